// `fiscora call` from the shell, against the simulated device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "encoding/Base64.h"
#include "platform.h"
#include "surroundings.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

const std::string SIM = FISCORA_TOOL " sim ";
const std::string CALL = FISCORA_TOOL " call ";
const std::string SALE = " EnviarDadosVenda 5 12345678 '<CFe/>'";

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Names of the files in the working directory, in order, without the debug log.
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
        {"", "an operation is missing"},
        {"consultarsat 1", "expected one of AtivarSAT, "},
        {"EnviarDadosVenda 1 12345678", "arguments: numeroSessao codigoDeAtivacao dadosVenda (given: 2)"},
        {"ConsultarSAT one", "numeroSessao: expected a number from 0 to 999999, not \"one\""},
        {"ConsultarSAT 1000000", "numeroSessao: expected a number"},
        {"ConsultarSAT -- -1", "numeroSessao: expected a number"},
        {"AtivarSAT 1 1 12345678 14200166000166 65536", "cUF: expected a number from 0 to 65535"},
        {"EnviarDadosVenda 1 12345678 @absent.xml", "cannot read absent.xml: No such file"},
        {"EnviarDadosVenda 1 12345678 @.", "cannot read .: Is a directory"},
        {"ExtrairLogs 1 @- </proc/self/mem", "cannot read standard input: Input/output error"},
        {"ExtrairLogs 1 @/dev/zero", "/dev/zero is too long"},
        {"TrocarCodigoDeAtivacao 1 12345678 1 'a\nb' x", "novoCodigo contains a line break"},
        {"EnviarDadosVenda 1 12345678 /proc/self/comm", "is a file; write @/proc/self/comm"},
        {"ConsultarSAT 1 --outt x", "there is no option --outt"},
        {"ConsultarSAT 1 --out document.xml", "contains no document"},
        {"ExtrairLogs 1 12345678 --out absent/log", "cannot write absent/log"},
        {"ExtrairLogs 1 12345678 --out /dev/null", "cannot write /dev/null: not a regular file"},
        {"--list ConsultarSAT", "unexpected argument: ConsultarSAT"},
    };
    for (const auto& [arguments, expected] : cases) {
        SCOPED_TRACE(arguments);
        const WorkingDirectory folder;
        const auto result = runShell(SIM + "-- " + CALL + arguments);
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_THAT(result.output, HasSubstr(expected));
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
        EXPECT_EQ(files(), std::vector<std::string>());
    }
}

TEST(CallCommand, AnswersFilesAndComplaintsAreWhatTheUserNeeds) {
    const std::string asks = "\n  fiscora call ConsultarNumeroSessao --out d.xml 6 @- 5  # type";
    const std::string nonBlocking = "python3 -c \"import os, sys\nos.set_blocking(0, False)\nos.execv('" +
                                    std::string(FISCORA_TOOL) + "', sys.argv[1:])\" ";
    const struct {
        const char* fault;
        std::string options;  ///< of fiscora sim
        std::string line;     ///< run by a shell in a folder with an old d.xml
        int exitStatus;
        testing::Matcher<std::string> output;
        std::vector<std::string> files = {"d.xml"};
        const char* document = "old";  ///< what d.xml begins with
    } cases[] = {
        {"an answer is printed otherwise", "", CALL + "ConsultarSAT 7", 0,
         MatchesRegex("status +0 \\(FISCORA_STATUS_OK.*\\)\nnumeroSessao +000007\nEEEEE +08000\n"
                      "mensagem +SAT em Operação\ncod\nmensagemSEFAZ\n")},
        {"the listing misses a column", "", CALL + "--list", 0,
         StartsWith("AtivarSAT\tnumeroSessao:session subComando:uint16 codigoDeAtivacao:code cnpj:text "
                    "cUF:uint16\t302\t04000\tnumeroSessao EEEEE mensagem cod mensagemSEFAZ CSR\n")},
        {"words are taken apart", "--trace", CALL + "EnviarStatusAC 7 '[a,b]' c -- -d", 0,
         HasSubstr("| 000007|[a,b]|c|-d\n")},
        {"an empty pause ends the input", "",
         "{ sleep 0.5; printf '1234'; sleep 0.5; printf '5678\\r\\n'; } | " + nonBlocking + CALL +
             "ExtrairLogs 7 @-",
         0, HasSubstr("15000")},
        {"a refused request passes for an unanswered one", "", CALL + "ExtrairLogs 7 " + std::string(41, 'c'),
         2, StartsWith("status             8")},
        {"a document in place is taken for a file's name", "",
         CALL + "EnviarDadosVenda 8 12345678 '<CFe>" + std::string(300, ' ') + "</CFe>'", 0,
         HasSubstr("06000")},
        {"a lost output passes", "", CALL + "ConsultarSAT 7 >/dev/full", 1, HasSubstr("standard output")},
        {"a terminal is flooded with a signature", "", "script -qec \"" + CALL + SALE + "\" /dev/null", 0,
         AllOf(HasSubstr("bytes; --full shows all)"), Not(HasSubstr(std::string(100, 'a'))))},
        {"--full is not full", "", "script -qec \"" + CALL + "--full" + SALE + "\" /dev/null", 0,
         Not(HasSubstr("--full"))},
        {"calls take each other's answers", "",
         "for i in 1 2 3; do " + CALL + "ConsultarSAT $i & done; wait; echo $?", 0,
         AllOf(HasSubstr("waiting for it to finish"), HasSubstr("000001\nEEEEE              08000"),
               HasSubstr("000002\nEEEEE              08000"), HasSubstr("000003\nEEEEE              08000"))},
        {"a call that reached no device asks for care", "", "env -u FISCORA_SIM_LINE " + CALL + SALE, 1,
         AllOf(HasSubstr("run fiscora doctor"), Not(HasSubstr("ConsultarNumeroSessao")))},
        {"no advice after a sale", "--fault hang-up", CALL + "--out d.xml" + SALE, 1,
         AllOf(StartsWith("status             2"), HasSubstr(asks), Not(HasSubstr("12345678")))},
        {"no advice to who interrupts", "--fault silence",
         "timeout -s INT 1.5 " + CALL + "--out d.xml" + SALE, 124, HasSubstr(asks)},
        {"a late document is lost",
         "--fault junk-behind",
         CALL + "--out d.xml" + SALE,
         1,
         StartsWith("status             32768"),
         {"d.xml"},
         "<CFe>"},
        {"a refusal overwrites a document", "", CALL + "ExtrairLogs --out d.xml 7 wrongcode", 1,
         HasSubstr("the answer contains no document")},
        {"a full disk costs a document", "", "ulimit -f 0; " + CALL + "--out d.xml" + SALE, 1,
         AllOf(HasSubstr("cannot write d.xml: File too large"), HasSubstr(asks),
               HasSubstr("arquivoCFeBase64   PEN"))},
        {"a link is replaced",
         "",
         "ln -s d.xml l; " + CALL + "ExtrairLogs --out l 7 12345678; test -L l",
         0,
         HasSubstr("15000"),
         {"d.xml", "l"},
         "SAT 9"},
        {"a link to nothing is replaced",
         "",
         "ln -s x l; " + CALL + "ExtrairLogs --out l 7 12345678",
         2,
         HasSubstr("it is a dangling link"),
         {"d.xml", "l"}},
        {"a pipe hangs the call",
         "",
         "mkfifo l; " + CALL + "ExtrairLogs --out l 7 12345678",
         2,
         HasSubstr("not a regular file"),
         {"d.xml", "l"}},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.fault);
        const WorkingDirectory folder;
        std::ofstream("d.xml") << "old";
        std::ofstream("line") << row.line;
        const auto result = runShell(SIM + row.options + " -- sh line");
        EXPECT_EQ(result.exitStatus, row.exitStatus);
        EXPECT_THAT(result.output, row.output);
        std::filesystem::remove("line");
        EXPECT_EQ(files(), row.files);
        EXPECT_THAT(contentOf("d.xml"), StartsWith(row.document));
    }
}

TEST(CallCommand, DumpAndRecordHoldTheCall) {
    const WorkingDirectory folder;
    const auto result = runShell(SIM + "-- " + CALL + "--dump --record ConsultarSAT 7");
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_LT(result.seconds, 1.9) << "a pause for a connection that was never made";
    const auto names = files();
    ASSERT_EQ(names.size(), 4U) << testing::PrintToString(names);
    EXPECT_THAT(contentOf(names[0]), StartsWith("DRS Version:01.00.01.001\r\nDe"));
    EXPECT_EQ(contentOf(names[1]), "000007|08000|SAT em Operação||");
    EXPECT_EQ(contentOf(names[2]), "000007");
    EXPECT_THAT(contentOf(names[3]), HasSubstr(";ConsultarSAT;;0;"));
    EXPECT_EQ(runShell(SIM + "-- " + CALL + "ExtrairLogs --record 7 " + std::string(41, 'c')).exitStatus, 2);
    EXPECT_EQ(files(), names) << "a request that was refused leaves a row";

    const auto full = runShell(SIM + "-- sh -c 'mkdir full; cd full; ulimit -f 0; " + CALL +
                               "--dump --record ConsultarSAT 7'");
    EXPECT_EQ(full.exitStatus, 1);
    EXPECT_THAT(full.output, AllOf(HasSubstr("--dump could not be"), HasSubstr("--record could not be")));
}

// The largest sale, and a code that leaves its request room for the terminating zero only.
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

    const auto result = runShell(SIM + "--activation-code " + code + " -- " + CALL +
                                 "--out document.xml EnviarDadosVenda 1 " + code + " @sale.xml");
    EXPECT_EQ(result.exitStatus, 0);
    const std::string document = contentOf("document.xml");
    EXPECT_GT(document.size(), 1'150'000U);
    const std::string name = "arquivoCFeBase64   ";
    const auto place = result.output.find(name);
    ASSERT_NE(place, std::string::npos) << result.output.substr(0, 1000);
    const auto end = result.output.find('\n', place);
    const auto shown = Base64::decode(result.output.substr(place + name.size(), end - place - name.size()));
    EXPECT_TRUE(document == shown) << "the file differs from the answer";

    const auto refused =
        runShell(SIM + "--fault refused-write -- " + CALL + "EnviarDadosVenda 2 " + code + " @sale.xml");
    EXPECT_THAT(refused.output, StartsWith("status             2"));
    EXPECT_EQ(runShell("grep -c 'Falha no envio' logsDrs/*").output, "1\n") << "all of it was taken";
}

}  // namespace
