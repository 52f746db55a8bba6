// `fiscora call` from the shell, against the simulated device.

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
