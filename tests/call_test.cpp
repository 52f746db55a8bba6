// `fiscora call` from the shell, against the simulated device.

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "platform.h"
#include "surroundings.h"

namespace {

using testing::AllOf, testing::HasSubstr, testing::MatchesRegex, testing::Not, testing::StartsWith;

const std::string SIM = FISCORA_TOOL " sim ", CALL = FISCORA_TOOL " call ",
                  SALE = " EnviarDadosVenda 5 12345678 '<CFe/>'";

/// Names of the files in `folder`, in order, without the debug log.
std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().filename() != "logsDrs") names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
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
        const char* document = "old";  ///< what d.xml begins with
        bool makesFile = false;        ///< "l", beside d.xml
    } cases[] = {
        // clang-format off
        {"an answer is printed otherwise", "", CALL + "ConsultarSAT 999999", 0,
         MatchesRegex("status +0 \\(FISCORA_STATUS_OK.*\\)\nnumeroSessao +999999\nEEEEE +08000\n" "mensagem +SAT em Operação\ncod\nmensagemSEFAZ\n")},
        {"words are taken apart", "--trace", CALL + "EnviarStatusAC 7 '[a,b]' c -- -d", 0, HasSubstr("| 000007|[a,b]|c|-d\n")},
        {"an empty pause ends the input", "", "{ sleep 0.5; printf '1234'; sleep 0.5; printf '5678\\r\\n'; } | " + nonBlocking + CALL +
             "ExtrairLogs 7 @-", 0, HasSubstr("15000")},
        {"a refused request passes for an unanswered one", "", CALL + "ExtrairLogs 7 " + std::string(41, 'c'), 2, StartsWith("status             8")},
        {"a document in place is taken for a file's name", "", CALL + "EnviarDadosVenda 8 12345678 '<CFe>" + std::string(300, ' ') + "</CFe>'", 0,
         HasSubstr("06000")},
        {"a lost output passes", "", CALL + "ConsultarSAT 7 >/dev/full", 1, HasSubstr("standard output")},
        {"a terminal is flooded with a signature", "", "script -qec \"" + CALL + SALE + "\" /dev/null", 0,
         AllOf(HasSubstr("bytes; --full shows all)"), Not(HasSubstr(std::string(100, 'a'))))},
        {"--full is not full", "", "script -qec \"" + CALL + "--full" + SALE + "\" /dev/null", 0, Not(HasSubstr("--full"))},
        {"calls take each other's answers", "", "for i in 1 2 3; do " + CALL + "ConsultarSAT $i & done; wait; echo $?", 0,
         AllOf(HasSubstr("waiting for it to finish"), HasSubstr("000001\nEEEEE              08000"),
               HasSubstr("000002\nEEEEE              08000"), HasSubstr("000003\nEEEEE              08000"))},
        {"a call that reached no device asks for care", "", "env -u FISCORA_SIM_LINE " + CALL + SALE, 1,
         AllOf(HasSubstr("run fiscora doctor"), Not(HasSubstr("ConsultarNumeroSessao")))},
        {"no advice after a sale", "--fault hang-up", CALL + "--out d.xml" + SALE, 1,
         AllOf(StartsWith("status             2"), HasSubstr(asks), Not(HasSubstr("12345678")))},
        {"no advice to who interrupts", "--fault silence", "timeout -s INT 4 " + CALL + "--out d.xml" + SALE, 124, HasSubstr(asks)},
        {"a late document is lost", "--fault junk-behind", CALL + "--out d.xml" + SALE, 1, StartsWith("status             32768"), "<CFe>"},
        {"a refusal overwrites a document, or --state has no effect", "--state not-activated",
         CALL + "ExtrairLogs --out d.xml 7 12345678", 1, HasSubstr("the answer contains no document")},
        {"a full disk costs a document", "", "ulimit -f 0; " + CALL + "--out d.xml" + SALE, 1,
         AllOf(HasSubstr("cannot write d.xml: File too large"), HasSubstr(asks), HasSubstr("arquivoCFeBase64   PEN"))},
        {"another call's answer passes", "--fault previous-answer@2", CALL + SALE + " >/dev/null; " + CALL + "--out d.xml EnviarDadosVenda 6 12345678 '<CFe/>'", 1,
         AllOf(HasSubstr("numeroSessao       000005"), HasSubstr("this is not the answer"), HasSubstr("--out d.xml 7 @- 6  # type"))},
        {"what is no answer passes", "--fault bad-body", CALL + "--out d.xml" + SALE, 1, AllOf(StartsWith("status             0"), HasSubstr(asks))},
        {"a sale is lost with the output", "", CALL + SALE + " >&-", 1, HasSubstr("fiscora call ConsultarNumeroSessao 6 @- 5  # type")},
        {"a sale is lost with its reader", "", CALL + SALE + " | sleep 0", 0, HasSubstr("ConsultarNumeroSessao 6 @- 5")},
        {"no advice after SIGQUIT", "--fault silence", "timeout -s QUIT 4 " + CALL + "--out d.xml" + SALE, 124, HasSubstr(asks)},
        {"a pipe counts as a dump", "", "a() { for s in 0 1 2 3 4 5 6 7 8 9; do date -d \"+$s sec\" +%Y%d%m%H%M%S_ConsultarSAT_tx.bin; done; }; mkfifo $(a); " +
             CALL + "--dump ConsultarSAT 7; echo $?; rm -- *.bin *.txt", 0, AllOf(HasSubstr("could not be written"), HasSubstr("\n1\n"))},
        {"a row is glued to half a row", "", "printf 2031/28 >teste_desempenho.csv; " + CALL + "--record ConsultarSAT 7; echo $?; rm *.csv", 0, HasSubstr("\n2\n")},
        {"a device writes on the terminal", "--fault hostile-fields", "script -qec \"" + CALL + "ConsultarSAT 7\" /dev/null", 0,
         AllOf(HasSubstr("txSessao:000000"), Not(HasSubstr("\x1b[2J")), Not(HasSubstr("\x7f")), Not(HasSubstr("\xc2\x9b")), Not(HasSubstr("\n[2026")))},
        {"a pipe gets less than the device sent", "--fault hostile-fields", CALL + "ConsultarSAT 7", 0, HasSubstr("txBufferSize:0]\r\n\x1b[2J\x7f\xc2\x9b")},
        {"the owner loses the file", "", "chown 1:1 d.xml 2>&-; chmod 6640 d.xml; own=$(stat -c %u:%g d.xml); " + CALL +
             "ExtrairLogs --out d.xml 7 12345678; [ $own = $(stat -c %u:%g d.xml) ] && stat -c kept:%a d.xml", 0, HasSubstr("\nkept:640\n"), "SAT 9"},
        {"a link is replaced", "", "ln -s d.xml l; " + CALL + "ExtrairLogs --out l 7 12345678; test -L l", 0, HasSubstr("15000"), "SAT 9", true},
        {"a link to nothing is replaced", "", "ln -s x l; " + CALL + "ExtrairLogs --out l 7 12345678", 2,
         HasSubstr("it is a dangling link"), "old", true},
        {"a pipe hangs the call", "", "mkfifo l; " + CALL + "ExtrairLogs --out l 7 12345678", 2, HasSubstr("not a regular file"), "old", true},
    };  // clang-format on
    const WorkingDirectory folder;
    std::vector<std::string> lines;
    for (const auto& row : cases) {
        const std::string script = "line" + std::to_string(lines.size());
        writeFile(script, row.line);
        lines.push_back("printf old >d.xml; " + SIM + row.options + " -- sh ../" + script);
    }
    const auto results = runShells(lines);
    for (std::size_t i = 0; i < results.size(); ++i) {
        const auto& row = cases[i];
        const std::string own = std::to_string(i);
        SCOPED_TRACE(row.fault);
        EXPECT_EQ(results[i].exitStatus, row.exitStatus);
        EXPECT_THAT(results[i].output, row.output);
        std::vector<std::string> files{"d.xml"};
        if (row.makesFile) files.push_back("l");
        EXPECT_EQ(filesIn(own), files);
        EXPECT_THAT(readFile(own + "/d.xml"), StartsWith(row.document));
    }
}

TEST(CallCommand, DumpAndRecordHoldTheCall) {
    const WorkingDirectory folder;
    const auto result = runShell(SIM + "-- " + CALL + "--dump --record ConsultarSAT 7");
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    const auto names = filesIn(".");
    ASSERT_EQ(names.size(), 4U) << testing::PrintToString(names);
    EXPECT_THAT(readFile(names[0]), StartsWith("DRS Version:01.00.01.001\r\nDe"));
    EXPECT_EQ(readFile(names[1]), "000007|08000|SAT em Operação||");
    EXPECT_EQ(readFile(names[2]), "000007");
    EXPECT_THAT(readFile(names[3]), HasSubstr(";ConsultarSAT;;0;"));
    EXPECT_EQ(runShell(SIM + "-- " + CALL + "ExtrairLogs --record 7 " + std::string(41, 'c')).exitStatus, 2);
    EXPECT_EQ(filesIn("."), names) << "a request that was refused leaves a row";

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
    writeFile("sale.xml", sale);

    const auto result = runShell(SIM + "--activation-code " + code + " -- " + CALL +
                                 "--out document.xml EnviarDadosVenda 1 " + code +
                                 " @sale.xml >answer; "
                                 "sed -n 's/^arquivoCFeBase64 *//p' answer | base64 -d | cmp - document.xml");
    EXPECT_EQ(result.output, "") << "the file differs from the answer, or something was complained of";
    EXPECT_EQ(result.exitStatus, 0) << readFile("answer").substr(0, 1000);
    EXPECT_GT(std::filesystem::file_size("document.xml"), 1'150'000U);

    const auto refused =
        runShell(SIM + "--fault refused-write -- " + CALL + "EnviarDadosVenda 2 " + code + " @sale.xml");
    EXPECT_THAT(refused.output, StartsWith("status             2"));
    EXPECT_EQ(runShell("grep -c 'Falha no envio' logsDrs/*").output, "1\n") << "all of it was taken";
}

}  // namespace
