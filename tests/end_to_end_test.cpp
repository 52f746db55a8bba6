// Programs that call the library in real time, each run by `fiscora sim`.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
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
        {"silence is no timeout, or spoils the next call", SIM + "--fault silence@1 -- " + TILL + " 2", 0,
         "32768 [0-9]+ \n0" + good, 7},
        {"a lost line is not noticed, or not found again",
         SIM + "--fault hang-up-in-answer@1 -- " + TILL + " 2", 0, "2 [0-9]+ \n0" + good, 2},
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
        {"ConsultarSAT 2147483648", "numeroSessao is a number"},
        {"AtivarSAT 1 1 12345678 14200166000166 65536", "cUF is a number from 0 to 65535"},
        {"EnviarDadosVenda 1 12345678 @absent.xml", "cannot read absent.xml"},
        {"EnviarDadosVenda 1 12345678 @.", "cannot read ."},
        {"ExtrairLogs 1 @- </proc/self/comm", "codigoDeAtivacao holds a line break"},
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
}

}  // namespace
