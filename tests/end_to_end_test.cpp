// Programs that call the library in real time, each run by `fiscora sim`.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "encoding/Base64.h"
#include "platform.h"
#include "sim/SimulatedDevice.h"
#include "transaction/DoTransaction.h"

namespace {

struct Result {
    int exitStatus;
    std::string output;
    double seconds;
};

/// Runs a shell line; its standard output and error come back together.
Result run(const std::string& line) {
    const auto start = std::chrono::steady_clock::now();
    FILE* const stream = popen(("{ " + line + "\n} 2>&1").c_str(), "r");
    std::string output;
    for (int byte; (byte = std::fgetc(stream)) != EOF;) output += static_cast<char>(byte);
    const int status = pclose(stream);
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - start;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output, duration.count()};
}

bool matches(const std::string& text, const std::string& expression) {
    return testing::Matcher<std::string>(testing::MatchesRegex(expression)).Matches(text);
}

const std::string SIM = FISCORA_TOOL " sim ";
const std::string TILL = FISCORA_TILL;

struct Case {
    const char* fault;  ///< that the case would catch
    std::string line;
    int exitStatus;
    std::string output;  ///< a POSIX extended regular expression
    double leastSeconds = 0;
    double mostSeconds = 60;
};

TEST(EndToEnd, ProgramsUnderTheSimulatedDevice) {
    const std::string good = " [0-9]+ 00000[0-9]\\|08000\\|SAT em Operação\\|\\|\n";
    const Case cases[] = {
        {"an answer is lost, or a descriptor", SIM + "-- " + TILL + " 2", 0, "0" + good + "0" + good, 2.2},
        {"the latency is left out", SIM + "--latency 600 -- " + TILL + " 1", 0, "0" + good, 1.6},
        {"the line is not paced", SIM + "--baud 2400 -- " + TILL + " 1", 0, "0" + good, 2.6},  // 399 bytes
        {"a call without a device takes its timeout", "PATH=/nonexistent " + TILL + " 1", 0, "1 [0-9]+ \n",
         1},
        {"the exit status is lost", SIM + "-- sh -c 'exit 7'", 7, ""},
        {"the death of the command is not told", SIM + "-- sh -c 'kill -TERM $$'", 128 + 15, ""},
        {"a signal is not passed on", SIM + "-- sh -c 'kill -TERM $PPID; exec sleep 30'", 128 + 15, "", 0,
         20},
        {"a command that is not there passes", SIM + "-- /nonexistent/command", 127,
         ".*/nonexistent/command.*\n"},
        {"a call without a command does something", SIM, 2, "fiscora sim: .+\n"},
    };
    for (const auto& [fault, line, exitStatus, output, leastSeconds, mostSeconds] : cases) {
        SCOPED_TRACE(fault);
        const WorkingDirectory folder;
        const Result result = run(line);
        EXPECT_EQ(result.exitStatus, exitStatus);
        EXPECT_TRUE(matches(result.output, output)) << result.output;
        EXPECT_GE(result.seconds, leastSeconds);
        EXPECT_LE(result.seconds, mostSeconds);
    }
}

constexpr char GOOD[] = "00000[0-9]\\|08000\\|SAT em Operação\\|\\|";
constexpr char EMPTY[] = "";
constexpr char GARBAGE[] = "x[^|]*";  // begins as a zlib stream does

/// A fault in one call of a till, with a call behind it that finds all well.
struct FaultCase {
    std::string plan;  ///< the number of the call at its end
    int status;
    std::string answer;       ///< a POSIX extended regular expression, as `output` above
    int leastMs;              ///< that the call lasts
    const char* option = "";  ///< of the till
};

const FaultCase FAULT_CASES[] = {
    {"silence@1", 32768, EMPTY, 7000},
    {"silence@1", 32768, EMPTY, 6000, "--signals"},  // they cut the second's pause behind the call short
    {"silence-in-answer@1", 32768, EMPTY, 7000},
    {"hang-up@1", 2, EMPTY, 1000},
    {"hang-up-in-answer@1", 2, EMPTY, 1000},
    {"refused-write@1", 2, EMPTY, 1000},
    {"wrong-code@1", 4, EMPTY, 2500},
    {"wrong-code=5@1", 0, GOOD, 2500},
    {"too-large@1", 4, EMPTY, 2500},
    {"too-large=5@1", 0, GOOD, 2500},
    {"bad-checksum@1", 1, EMPTY, 1100},
    {"bad-head@1", 32768, EMPTY, 7000},
    {"long-head@1", 32768, EMPTY, 7000},
    {"negative-size@1", 32768, EMPTY, 7000},
    {"missing-bytes@1", 32768, EMPTY, 7000},
    {"bad-body@1", 0, GARBAGE, 1100},
    {"bomb@1", 0, GARBAGE, 1100},
    {"junk-before@1", 0, GOOD, 1100},
    {"junk-behind@1", 32768, GOOD, 7000},
    {"two-answers@1", 0, GOOD, 1100},
    {"previous-answer@2", 0, "000001\\|08000\\|.*", 1100},
    {"byte-by-byte@1", 0, GOOD, 1150},
};

/// What `fiscora sim --list-faults` says: each kind of fault with its status.
std::map<std::string, int> listedFaults() {
    std::map<std::string, int> listed;
    std::istringstream lines(run(SIM + "--list-faults").output);
    std::string line, kind;
    for (std::getline(lines, line); std::getline(lines, line);) {
        if (line.front() == ' ') continue;
        std::istringstream words(line);
        words >> kind;
        words >> listed[kind.substr(0, kind.find('['))];
    }
    return listed;
}

TEST(EndToEnd, AFaultEndsInAnotherStatusTimeOrAnswerThanListedOrSpoilsTheNextCall) {
    const WorkingDirectory folder;
    std::vector<std::future<Result>> results;
    for (const auto& [plan, status, answer, leastMs, option] : FAULT_CASES) {
        const std::string number = std::to_string(results.size());
        const std::string calls = std::to_string(plan.back() - '0' + 1);
        results.push_back(std::async(std::launch::async, run,
                                     "mkdir " + number + "; cd " + number + "; exec timeout 60 " + SIM +
                                         "--fault " + plan + " -- " + TILL + " " + option + " " + calls));
    }
    auto listed = listedFaults();
    auto untested = listed;
    EXPECT_GT(listed.size(), 15U);
    auto result = results.begin();
    for (const auto& [plan, status, answer, leastMs, option] : FAULT_CASES) {
        SCOPED_TRACE(plan + option);
        const std::string kind = plan.substr(0, plan.find_first_of("=@"));
        untested.erase(kind);
        if (plan.find('=') == std::string::npos) {
            EXPECT_EQ(listed[kind], status);
        }
        const auto [exitStatus, output, seconds] = (result++)->get();
        EXPECT_EQ(exitStatus, 0) << "a descriptor stays open, or a call lasts for ever";
        const std::string good = std::string("0 [0-9]+ ") + GOOD + "\n";
        const std::string spoilt = std::to_string(status) + " [0-9]+ " + answer + "\n";
        const bool first = plan.back() == '1';
        EXPECT_TRUE(matches(output, (first ? "" : good) + spoilt + good)) << output;
        const std::string line = first ? output : output.substr(output.find('\n') + 1);
        const int ms = std::atoi(line.substr(line.find(' ') + 1).c_str());
        EXPECT_GE(ms, leastMs);
        EXPECT_LE(ms, leastMs + 10'000);
    }
    for (const auto& [kind, status] : untested) ADD_FAILURE() << kind << " is listed and not tested";
}

TEST(EndToEnd, ABadPlanOfAFaultIsTakenOrRefusedWithoutItsReason) {
    const char* const cases[][2] = {
        {"x", "no fault \"x\""},          {"", "no fault \"\""},
        {"silence=3", "takes no count"},  {"silence@0", "number of an exchange"},
        {"silence@1x", "of an exchange"}, {"wrong-code=", "from 1 to 1000"},
        {"wrong-code=0@1", "1 to 1000"},  {"too-large=1001", "from 1 to 1000"},
    };
    for (const auto& [plan, expected] : cases) {
        const Result result = run(SIM + "--fault '" + plan + "' -- true");
        EXPECT_EQ(result.exitStatus, 2) << plan;
        EXPECT_NE(result.output.find(expected), std::string::npos) << result.output;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
}

// A foreign-function interface passes 32 bits where the operation takes 16.
TEST(EndToEnd, ForeignFunctionInterface) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "an interpreter without the sanitizer cannot load a library with it";
#endif
    const WorkingDirectory folder;
    const Result result =
        run(SIM +
            "--state not-activated --trace -- python3 -c '"
            "import ctypes\n"
            "fiscal = ctypes.CDLL(\"" FISCORA_LIBRARY
            "\")\n"
            "fiscal.AtivarSAT.restype = ctypes.c_char_p\n"
            "answer = fiscal.AtivarSAT(7, 65537, b\"segredo123\", b\"14200166000166\", 65571)\n"
            "print(fiscal.CodigoErro(), answer.decode())'");
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_NE(result.output.find("000007|1|***|14200166000166|35"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("\n0 000007|04000|"), std::string::npos) << result.output;
    EXPECT_EQ(result.output.find("segredo123"), std::string::npos) << result.output;
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
