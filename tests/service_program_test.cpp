// The program fiscorad from the shell, against the simulated device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform.h"
#include "surroundings.h"

namespace {

using testing::AllOf, testing::HasSubstr, testing::MatchesRegex, testing::Not;

constexpr char SALE[] =
    "<CFe><infCFe><ide><CNPJ>16716114000172</CNPJ></ide><det nItem=\"1\"><prod><xProd>x</xProd><qCom>1.0000</qCom>"
    "<vUnCom>5.00</vUnCom></prod></det><total/></infCFe></CFe>";

/// Shell functions for the scripts below: `start` a service whose log is in "log" and whose address in $url,
/// `sell` a key, `state` of a key, `finish` the service.
std::string script(const std::string& lines) {
    return std::string("set -u; umask 022; printf '12345678\\n' >code; chmod 600 code\n") +
           "fiscorad() { " FISCORAD
           " --journal j.db --activation-code-file code \"$@\"; }\n"
           "start() { rm -f log; " FISCORAD
           " --listen 127.0.0.1:0 --journal j.db --activation-code-file code \"$@\" 2>log & pid=$!\n"
           "  until grep -qs 'port' log; do sleep 0.05; done; url=http://127.0.0.1:$(sed -n 's/.*port \\([0-9]*\\).*/\\1/p' log); }\n"
           "sell() { curl -s -o answer -w '%{http_code} ' -H \"Idempotency-Key: $1\" -H \"Prefer: wait=${wait:-30}\" "
           "-H 'Content-Type: application/xml' -d '" +
           SALE +
           "' $url/v1/vendas; }\n"
           "state() { curl -s $url/v1/vendas/$1 | sed 's/.*\"estado\":\"\\([a-z-]*\\)\".*/\\1/'; echo; }\n"
           "certify() { openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=loja -addext "
           "subjectAltName=IP:127.0.0.1 -keyout key.pem -out c.pem 2>/dev/null; chmod 600 key.pem; }\n"
           "finish() { kill $pid; wait $pid; echo ended $?; }\n" +
           lines;
}

ShellResult runUnderSimulation(const std::string& options, const std::string& lines) {
    std::string quoted;
    for (const char c : script(lines)) quoted += c == '\'' ? "'\\''" : std::string(1, c);
    return runShell("timeout 60 " FISCORA_TOOL " sim " + options + " -- bash -c '" + quoted + "'");
}

TEST(Fiscorad, SaysInOneLineWhyItDoesNotStart) {
    const struct {
        const char* fault;
        std::string line;
        int exitStatus;
        testing::Matcher<std::string> output;
    } cases[] = {
        {"no code file", "rm code; fiscorad", 1, HasSubstr("/code: No such file")},
        {"an empty code file", ": >code; fiscorad", 1, HasSubstr("the activation code is missing")},
        {"a code that others can read", "chmod 644 code; fiscorad", 1, HasSubstr("others may read")},
        {"a code with a delimiter", "echo '1234|5678' >code; fiscorad", 1,
         HasSubstr("not an activation code")},
        {"a taken port",
         "start; " FISCORAD
         " --journal other.db --activation-code-file code --listen ${url#http://}; status=$?; kill $pid; exit $status",
         1, HasSubstr("in use")},
        {"an owned journal", "start; fiscorad; status=$?; kill $pid; exit $status", 1,
         HasSubstr("another fiscorad")},
        {"an owned journal under another name",
         "start; ln -s j.db soft.db; " FISCORAD
         " --journal soft.db --activation-code-file code; status=$?; kill $pid; exit $status",
         1, HasSubstr("another fiscorad")},
        {"a journal in no folder", FISCORAD " --journal none/j.db --activation-code-file code", 1,
         HasSubstr("none/j.db: No such file")},
        {"a damaged journal", "head -c 9000 /dev/zero | tr '\\0' x >j.db; fiscorad", 1,
         HasSubstr("not a database")},
        {"a file name that is none", FISCORAD " --journal '' --activation-code-file code", 2,
         HasSubstr("--journal needs a value")},
        {"a journal from a newer version",
         "start; kill $pid; wait $pid; printf '\\0\\0\\0\\11' | dd of=j.db bs=1 seek=60 conv=notrunc status=none; fiscorad",
         1, HasSubstr("from a newer version")},
        {"a network without TLS", "fiscorad --listen 0.0.0.0:0", 1, HasSubstr("need TLS")},
        {"a certificate without its key", "fiscorad --certificate c.pem", 2,
         HasSubstr("--certificate needs --key")},
        {"a certificate beside plain HTTP, in Portuguese",
         "LC_ALL=pt_BR.UTF-8 fiscorad --certificate c.pem --key k.pem --plain-http", 2,
         HasSubstr("usados juntos")},
        {"a certificate that is none", "fiscorad --certificate code --key code", 1,
         HasSubstr("code: contains no PEM certificate")},
        {"a key that others can read",
         "certify; chmod 644 key.pem; fiscorad --certificate c.pem --key key.pem", 1,
         HasSubstr("key.pem: readable by other users")},
        {"another certificate's key",
         "certify; mv c.pem old.pem; certify; fiscorad --certificate old.pem --key key.pem", 1,
         HasSubstr("not the key of the certificate")},
        {"a token's name that is none", "fiscorad token add 'a b'", 2, HasSubstr("is not a name")},
        {"no port", "fiscorad --listen 127.0.0.1", 1, HasSubstr("not an address and a port")},
        {"a configuration with a mistake", "echo 'listem = \"127.0.0.1:1\"' >c; fiscorad --config c", 2,
         HasSubstr("listem")},
        {"a decision in the configuration", "printf '[decide]\\nabandon = true\\n' >c; fiscorad --config c",
         2, HasSubstr("decide.abandon")},
        {"a host's name, in Portuguese", "LC_ALL=pt_BR.UTF-8 fiscorad --listen localhost:1", 1,
         HasSubstr("porta 1: não é um endereço IP")},
        {"a missing argument, in Portuguese", "LC_ALL=pt_BR.UTF-8 fiscorad decide", 2,
         HasSubstr("falta CHAVE")},
        {"a wrong option", "fiscorad --lissten 127.0.0.1:1", 2, HasSubstr("usage: ")},
        {"two decisions", "fiscorad decide key --abandon --send-again --reason x", 2,
         HasSubstr("give one of")},
        {"a decision without a journal", "fiscorad decide key --abandon --reason x", 1,
         HasSubstr("No such file")},
        {"another file taken for a journal", "echo x >f; " FISCORAD " check --journal f; stat -c %a f; false",
         1, AllOf(HasSubstr("not a database"), HasSubstr("\n644\n"))},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.fault);
        const WorkingDirectory folder;
        const ShellResult result = runUnderSimulation("", row.line);
        EXPECT_EQ(result.exitStatus, row.exitStatus) << result.output;
        EXPECT_THAT(result.output, AllOf(row.output, Not(HasSubstr("12345678"))));
    }
}

TEST(Fiscorad, SpeaksTlsToThoseWithATokenAsSoonAsThereIsOne) {
    const WorkingDirectory folder;
    const ShellResult result = runUnderSimulation(
        "",
        "certify; start --certificate c.pem --key key.pem; url=https${url#http}\n"
        "ask() { curl -s -o /dev/null -w '%{http_code} ' --cacert c.pem \"$@\"; }\n"
        "ask $url/v1/equipamento; ask --tls-max 1.2 $url/saude; ask --tls-max 1.1 $url/saude; ask http${url#https}/saude\n"
        "secret=$(fiscorad token add caixa1); fiscorad token add caixa1 2>&1; fiscorad token list | cut -f 1,2\n"
        "ask $url/v1/equipamento; ask -H \"Authorization: Bearer $secret\" $url/v1/equipamento\n"
        "finish; start --certificate c.pem --key key.pem; url=https${url#http}\n"
        "ask -H \"Authorization: Bearer $secret\" $url/v1/equipamento\n"
        "fiscorad token revoke caixa1; ask -H \"Authorization: Bearer $secret\" $url/v1/equipamento\n"
        "finish; grep -c $secret j.db* log");
    EXPECT_THAT(result.output, AllOf(HasSubstr("200 200 000 000 Keep it now"),
                                     HasSubstr("has a token already\ncaixa1\ttill\n401 200 ended 0\n200 "),
                                     HasSubstr("caixa1: revoked\n"), HasSubstr("\n401 ended 0\n"),
                                     HasSubstr("j.db:0\n"), HasSubstr("log:0\n")));
}

TEST(Fiscorad, TakesItsCodeFromTheServiceManagerAndTellsItThatItWorks) {
    for (const char* options : {"", "--certificate c.pem --key key.pem"}) {
        SCOPED_TRACE(options);
        const WorkingDirectory folder;
        const ShellResult result = runUnderSimulation(
            "",
            "certify; python3 -c \"\n"
            "import socket; s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); s.bind('manager')\n"
            "while True: print(s.recv(4096).decode(), flush=True)\" >told & manager=$!\n"
            "until [ -S manager ]; do sleep 0.05; done\n"
            "chmod 440 code; export CREDENTIALS_DIRECTORY=$PWD NOTIFY_SOCKET=$PWD/manager WATCHDOG_USEC=400000; start " +
                std::string(options) +
                "\nuntil grep -q answers told && [ $(grep -c WATCHDOG told) -ge 3 ]; do sleep 0.05; done\n"
                "finish; sleep 0.2; kill $manager; uniq told\n");
        EXPECT_THAT(result.output, MatchesRegex("ended 0\nREADY=1\n(.|\n)*STATUS=device 900004019 answers\n"
                                                "(.|\n)*WATCHDOG=1\nSTOPPING=1\n(WATCHDOG=1\n)?"));
    }
}

TEST(Fiscorad, SellsAndLetsPeopleLookAfterItsJournalWhileItRuns) {
    const WorkingDirectory folder;
    const ShellResult result = runUnderSimulation(
        "--ledger ledger --fault restart=1@4",
        "start; sell zero; wait=1; sell one; until grep -q incerta log; do sleep 0.1; done; finish; cat log\n"
        "fiscorad check; fiscorad backup b.db; stat -c %a j.db b.db\n"
        "fiscorad export --dir out; touch out/CFe$(printf %044d 1).xml.999999999.part\n"
        "fiscorad export --dir out; find out -type f ! -perm /077 | wc -l\n"
        "year=$(ls out); rm -r out; mkdir out; : >out/$year; fiscorad export --dir out || echo failed\n"
        "fiscorad decide one --abandon --reason x </dev/null; wc -l <ledger\n"
        "fiscorad restore b.db </dev/null; fiscorad check\n");
    EXPECT_THAT(result.output, HasSubstr("201 202 ended 0\n"));
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("listening on 127.0.0.1"), HasSubstr("venda one: enviada, sessao"),
                      Not(HasSubstr("12345678")), Not(HasSubstr("<CFe>"))));
    EXPECT_THAT(
        result.output,
        HasSubstr(
            "2 documents: nothing wrong\nWritten: b.db\n600\n600\n1 document written\n0 documents written\n1\n"));
    EXPECT_THAT(result.output,
                MatchesRegex("(.|\n)*fiscorad export: CFe[0-9]+: out/20[0-9/]+: Not a directory\n"
                             "0 documents written\nfailed\n(.|\n)*"));
    EXPECT_THAT(result.output, AllOf(HasSubstr("Attempt of"), HasSubstr("one: abandonada\n2\nRestored: ")));
    EXPECT_EQ(result.exitStatus, 0) << result.output;
}

TEST(Fiscorad, RemovesOnlyDocumentsThatAPersonSaysMayGoAndThatWereExported) {
    const WorkingDirectory folder;
    const ShellResult result = runUnderSimulation(
        "--ledger ledger",
        "start; sell one; fiscorad export --dir out; sell two; sell three; fiscorad export --dir out\n"
        "for file in $(ls -t out/*/*/* | head -n 1); do tr 0 1 <$file >x; mv x $file; done\n"
        "prune() { fiscorad prune --dir out --reason 'six years' \"$@\" </dev/null; echo status $?; }\n"
        "get() { curl -s -o /dev/null -w '%{http_code} ' $url/v1/vendas/$1/documento; }\n"
        "prune --before 2100-01-01 2>/dev/null; prune --before 2026-01-01 --legal-time-over; get one\n"
        "rm $(ls -t out/*/*/* | sed -n 2p); prune --before 2100-01-01 --legal-time-over; get one; get two; get three\n"
        "sell one; wc -l <ledger; finish; fiscorad check\n");
    EXPECT_THAT(
        result.output,
        MatchesRegex(
            "201 1 document written\n201 201 2 documents written\nstatus 2\n0 documents removed\n"
            "status 0\n200 (fiscorad prune: CFe[0-9]* is kept: out .*\n){2}1 document removed\nstatus 1\n"
            "410 200 200 200 3\nended 0\n3 documents: nothing wrong\n"));
}

TEST(Fiscorad, SellsAfterAnotherProgramOnlyWhenAPersonHasConfirmed) {
    const WorkingDirectory folder;
    const ShellResult result = runUnderSimulation(
        "--ledger ledger",
        "start; sell one; finish; " FISCORA_TOOL " call EnviarDadosVenda 123456 12345678 '" +
            std::string(SALE) +
            "' >/dev/null\n"
            "start; wait=3; sell two; wc -l <ledger; grep -o 'shows CFe[0-9]*, which' log\n"
            "fiscorad confirm --reason tried </dev/null; wait=30; sell two; wc -l <ledger; finish; fiscorad check\n");
    EXPECT_THAT(result.output,
                MatchesRegex("201 ended 0\n202 2\nshows CFe[0-9]{44}, which\n"
                             ".* the journal explains CFe[0-9]{44}\nConfirmed\n201 3\nended 0\n"
                             "2 documents: nothing wrong\n"));
}

TEST(Fiscorad, EndsItsCallAtASignalAndItselfAtTheSecond) {
    const WorkingDirectory folder;
    const ShellResult result = runUnderSimulation(
        "--latency 800",
        "start; (sell one; echo told) & till=$!; until grep -q enviada log; do sleep 0.05; done\n"
        "kill -HUP $pid; kill $pid; sleep 0.3; sell late; grep -o 'indisponivel' answer; wait $till; wait $pid; echo ended $?\n"
        "start; state one; sell two >/dev/null & until grep -q 'two: enviada' log; do sleep 0.05; done\n"
        "kill $pid; sleep 0.2; kill $pid; wait $pid; echo ended $?\n"
        "start; until state two | grep emitida; do sleep 0.2; done; finish; fiscorad check\n");
    EXPECT_THAT(result.output, HasSubstr("503 indisponivel\n"));
    EXPECT_THAT(result.output, MatchesRegex("(.|\n)*20[12] told\n(.|\n)*"));
    EXPECT_THAT(result.output, HasSubstr("ended 0\nemitida\n"));
    EXPECT_THAT(result.output, HasSubstr("ended 3\nemitida\nended 0\n2 documents: nothing wrong\n"));
}

}  // namespace
