// Programs that call the library in real time, each under `fiscora sim`.

#include <gmock/gmock.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "encoding/Base64.h"
#include "platform.h"
#include "sim/Fault.h"
#include "sim/SimulatedDevice.h"
#include "surroundings.h"
#include "transaction/DoTransaction.h"

namespace {

using testing::AllOf, testing::Ge, testing::HasSubstr, testing::Le, testing::MatchesRegex, testing::Not;

const std::string SIM = FISCORA_TOOL " sim ";
const std::string TILL = FISCORA_TILL;

TEST(EndToEnd, ProgramsMeetTheSimulatedDevice) {
    const std::string good = " [0-9]+ 00000[0-9]\\|08000\\|SAT em Operação\\|\\|\n";
    const struct {
        const char* name;
        std::string line;
        int exitStatus;
        std::string output;  // a POSIX extended regular expression
        double leastSeconds = 0, mostSeconds = 60;
    } cases[] = {
        {"two calls", SIM + "-- " + TILL + " 2", 0, "0" + good + "0" + good, 2.2},
        {"latency", SIM + "--latency 600 -- " + TILL + " 1", 0, "0" + good, 1.6},
        {"slow line", SIM + "--baud 2400 -- " + TILL + " 1", 0, "0" + good, 2.6},  // 399 bytes
        {"no device", "PATH=/nonexistent " + TILL + " 1", 0, "1 [0-9]+ \n", 1},
        {"exit status", SIM + "-- sh -c 'exit 7'", 7, ""},
        {"killed command", SIM + "-- sh -c 'kill -TERM $$'", 128 + 15, ""},
        {"signal to pass on", SIM + "-- sh -c 'kill -TERM $PPID; exec sleep 30'", 128 + 15, "", 0, 20},
        {"absent command", SIM + "-- /nonexistent/command", 127, ".*/nonexistent/command.*\n"},
        {"no command", SIM, 2, "fiscora sim: .+\n"},
    };
    for (const auto& [name, line, exitStatus, output, leastSeconds, mostSeconds] : cases) {
        SCOPED_TRACE(name);
        const WorkingDirectory folder;
        const auto result = runShell(line);
        EXPECT_EQ(result.exitStatus, exitStatus);
        EXPECT_THAT(result.output, MatchesRegex(output));
        EXPECT_THAT(result.seconds, AllOf(Ge(leastSeconds), Le(mostSeconds)));
    }
}

/// A till whose call `number` meets a fault, and which makes one more call after it.
struct SpoiltTill {
    std::string plan;
    int number;
    int status;
    sim::Answer answer;
    std::string option = "";
};

std::vector<SpoiltTill> spoiltTills() {
    const sim::Fault& silence = *sim::findFault("silence");
    std::vector<SpoiltTill> tills{{"silence", 1, silence.status, silence.answer, "--signals"}};
    for (const auto& fault : sim::faults()) {
        const std::string name(fault.name);
        tills.push_back({name, fault.answer == sim::Answer::Previous ? 2 : 1, fault.status, fault.answer});
        if (fault.count > 0) tills.push_back({name + "=5", 1, FISCORA_STATUS_OK, sim::Answer::Own});
    }
    return tills;
}

/// The line that a till prints for a call, as a regular expression.
std::string callLine(int number, int status, sim::Answer answer) {
    const auto own = [](int session) {
        return "00000" + std::to_string(session) + "\\|08000\\|SAT em Operação\\|\\|";
    };
    const std::map<sim::Answer, std::string> answers{{sim::Answer::None, ""},
                                                     {sim::Answer::Own, own(number)},
                                                     {sim::Answer::Previous, own(number - 1)},
                                                     {sim::Answer::Compressed, "x[^|\n]*"}};
    return std::to_string(status) + " [0-9]+ " + answers.at(answer) + "\n";
}

TEST(EndToEnd, EachFaultEndsAsListedAndSparesTheNextCall) {
    const WorkingDirectory folder;
    const auto tills = spoiltTills();
    std::vector<std::future<ShellResult>> results;
    for (const auto& [plan, number, status, answer, option] : tills) {
        const std::string own = std::to_string(results.size()), at = std::to_string(number);
        results.push_back(std::async(std::launch::async, runShell,
                                     "mkdir " + own + "; cd " + own + "; exec timeout 60 " + SIM +
                                         "--fault " + plan + "@" + at + " -- " + TILL + " " + option + " " +
                                         std::to_string(number + 1)));
    }
    auto result = results.begin();
    for (const auto& [plan, number, status, answer, option] : tills) {
        SCOPED_TRACE(plan + option);
        const auto [exitStatus, output, seconds] = (result++)->get();
        EXPECT_EQ(exitStatus, 0) << "a descriptor stays open, or a call lasts for ever";
        std::string lines;
        for (int call = 1; call < number; ++call)
            lines += callLine(call, FISCORA_STATUS_OK, sim::Answer::Own);
        lines += callLine(number, status, answer) + callLine(number + 1, FISCORA_STATUS_OK, sim::Answer::Own);
        EXPECT_THAT(output, MatchesRegex(lines));
        const double leastSeconds = status == FISCORA_STATUS_TIMEOUT ? 6 + 2 : 2;  // with a second per call
        EXPECT_THAT(seconds, AllOf(Ge(leastSeconds), Le(leastSeconds + 20)));
    }
}

TEST(EndToEnd, ABadPlanOfAFaultIsRefusedWithItsReason) {
    const char* const cases[][2] = {
        {"x", "no fault \"x\""},          {"", "no fault \"\""},
        {"silence=3", "takes no count"},  {"silence@0", "number of an exchange"},
        {"silence@1x", "of an exchange"}, {"wrong-code=", "from 1 to 1000"},
        {"wrong-code=0@1", "1 to 1000"},  {"too-large=1001", "from 1 to 1000"},
    };
    for (const auto& [plan, expected] : cases) {
        const auto result = runShell(SIM + "--fault '" + plan + "' -- true");
        EXPECT_EQ(result.exitStatus, 2) << plan;
        EXPECT_THAT(result.output, HasSubstr(expected));
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
}

TEST(EndToEnd, AnOperationTakes16OfThe32BitsOfAForeignInterface) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "an interpreter without the sanitizer cannot load a library with it";
#endif
    const WorkingDirectory folder;
    const auto result =
        runShell(SIM +
                 "--state not-activated --trace -- python3 -c '"
                 "import ctypes\n"
                 "fiscal = ctypes.CDLL(\"" FISCORA_LIBRARY
                 "\")\n"
                 "fiscal.AtivarSAT.restype = ctypes.c_char_p\n"
                 "answer = fiscal.AtivarSAT(7, 65537, b\"segredo123\", b\"14200166000166\", 65571)\n"
                 "print(fiscal.CodigoErro(), answer.decode())'");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, HasSubstr("000007|1|***|14200166000166|35"));
    EXPECT_THAT(result.output, HasSubstr("\n0 000007|04000|"));
    EXPECT_THAT(result.output, Not(HasSubstr("segredo123")));
}

using Result = ShellResult;
Result run(const std::string& line) { return runShell(line); }

bool matches(const std::string& text, const std::string& expression) {
    return testing::Matcher<std::string>(testing::MatchesRegex(expression)).Matches(text);
}

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Names of the files in the working directory, in order, the debug log's left out.
std::vector<std::string> files() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("."))
        if (entry.path().filename() != "logsDrs") names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(CallCommand, WrongCommandLinesSendNothing) {
    const struct {
        const char* arguments;
        const char* expected;  ///< part of the message
    } cases[] = {
        {"", "OPERATION is required"},
        {"consultarsat 1", "expected one of AtivarSAT, "},
        {"EnviarDadosVenda 1 12345678",
         "takes numeroSessao codigoDeAtivacao dadosVenda (arguments: 3), and got 2"},
        {"ConsultarSAT one", "numeroSessao is a number"},
        {"ConsultarSAT 1000000", "numeroSessao is a number from 0 to 999999"},
        {"ConsultarSAT -- -1", "numeroSessao is a number"},
        {"AtivarSAT 1 1 12345678 14200166000166 65536", "cUF is a number from 0 to 65535"},
        {"EnviarDadosVenda 1 12345678 @absent.xml", "cannot read absent.xml"},
        {"EnviarDadosVenda 1 12345678 @.", "cannot read ."},
        {"ExtrairLogs 1 @- </proc/self/status", "codigoDeAtivacao holds a line break"},
        {"EnviarDadosVenda 1 12345678 /proc/self/comm", "is a file; expected its content, @/proc/self/comm"},
        {"ConsultarSAT 1 --outt x", "there is no option --outt"},
        {"ConsultarSAT 1 --out document.xml", "holds no document"},
        {"ExtrairLogs 1 12345678 --out absent/log", "cannot write absent/log"},
        {"ExtrairLogs 1 12345678 --out .", "cannot write ."},
    };
    for (const auto& [arguments, expected] : cases) {
        const WorkingDirectory folder;
        const Result result = run(SIM + "-- " FISCORA_TOOL " call " + arguments);
        EXPECT_EQ(result.exitStatus, 2) << arguments;
        EXPECT_NE(result.output.find(expected), std::string::npos) << result.output;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
        EXPECT_TRUE(std::filesystem::is_empty(".")) << arguments;
    }
}

TEST(CallCommand, AnswerDumpAndRecord) {
    const WorkingDirectory folder;
    const Result result = run(SIM + "-- " FISCORA_TOOL " call --dump --record ConsultarSAT 7");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_TRUE(matches(result.output,
                        "status +0 \\(FISCORA_STATUS_OK.*\\)\nnumeroSessao +000007\nEEEEE +08000\n"
                        "mensagem +SAT em Operação\ncod\nmensagemSEFAZ\n"))
        << result.output;
    const auto names = files();
    ASSERT_EQ(names.size(), 4U);
    EXPECT_EQ(contentOf(names[0]).substr(0, 28), "DRS Version:01.00.01.001\r\nDe");
    EXPECT_EQ(contentOf(names[1]), "000007|08000|SAT em Operação||");
    EXPECT_EQ(contentOf(names[2]), "000007");
    EXPECT_NE(contentOf(names[3]).find(";ConsultarSAT;;0;"), std::string::npos) << names[3];

    const std::string call = SIM + "-- " FISCORA_TOOL " call ";
    EXPECT_EQ(run(SIM + "--fault hang-up -- " FISCORA_TOOL " call ConsultarSAT 7").exitStatus, 1);
    EXPECT_EQ(run(call + "ExtrairLogs --record 7 " + std::string(41, 'c')).output.substr(0, 20),
              "status             8");
    EXPECT_EQ(run(call + "ExtrairLogs --out refused 7 wrongcode").exitStatus, 1);
    EXPECT_EQ(run("printf '12345678\\r\\n' | " + call + "ExtrairLogs 7 @-").exitStatus, 0);
    const std::string inPlace = "EnviarDadosVenda 8 12345678 '<CFe>" + std::string(300, ' ') + "</CFe>'";
    EXPECT_EQ(run(call + inPlace).exitStatus, 0);  // too long for the name of a file
    EXPECT_EQ(run(call + "ExtrairLogs 9 ''").exitStatus, 0);
    EXPECT_EQ(run(call + "ConsultarSAT 7 >/dev/full").exitStatus, 1);
    EXPECT_NE(run(SIM + "--trace -- " FISCORA_TOOL " call EnviarStatusAC 7 '[a,b]' c -- -d")
                  .output.find("| 000007|[a,b]|c|-d\n"),
              std::string::npos);
    EXPECT_EQ(files(), names) << "a call that gave nothing leaves a file or a row";
}

// The largest sale, and a code that leaves its request no room but for the terminating zero.
TEST(CallCommand, FullSizeSaleAndItsDocumentTravelWhole) {
    const WorkingDirectory folder;
    const std::string code(31, 'c');
    std::string sale = "<CFe><infCFe><emit><CNPJ>14200166000166</CNPJ></emit>";
    for (int i = 1; sale.size() < 1'572'000; ++i) {
        const std::string number = std::to_string(i * 7919 % 100'003);
        sale += "<det nItem=\"" + std::to_string(i) + "\"><prod><cProd>" + number + "</cProd><vProd>" +
                std::to_string(i % 97) + ".25</vProd></prod></det>";
    }
    sale += "</infCFe></CFe>";
    sale.resize(1'572'864, '\n');
    std::ofstream("sale.xml") << sale;

    const Result result =
        run(SIM + "--activation-code " + code +
            " -- " FISCORA_TOOL " call --out document.xml EnviarDadosVenda 1 " + code + " @sale.xml");
    EXPECT_EQ(result.exitStatus, 0);
    const std::string timeField = "timeStamp          ";
    const auto place = result.output.find(timeField);
    ASSERT_NE(place, std::string::npos) << result.output.substr(0, 1000);
    std::tm time{};
    strptime(result.output.substr(place + timeField.size(), 14).c_str(), "%Y%m%d%H%M%S", &time);
    time.tm_isdst = -1;

    // What another such device makes of the same sale at the same moment.
    sim::SimulatedDevice device({sim::DeviceState::Active, code, [&] { return std::mktime(&time); }});
    const auto answer = split(device.answer("EnviarDadosVenda", "000001|" + code + "|" + sale), '|');
    const std::string document = contentOf("document.xml");
    EXPECT_GT(document.size(), 1'150'000U);
    EXPECT_TRUE(document == Base64::decode(answer.at(6)));

    const std::string refused = "--fault refused-write -- " FISCORA_TOOL " call EnviarDadosVenda 2 ";
    EXPECT_EQ(run(SIM + refused + code + " @sale.xml").output.substr(0, 20), "status             2");
    EXPECT_EQ(run("grep -c 'Falha no envio' logsDrs/*").output, "1\n") << "all of it was taken";
}

}  // namespace
