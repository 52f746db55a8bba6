// Programs that call the library in real time, and the command lines of the tool, each under `fiscora sim`.

#include <gmock/gmock.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fiscora.h"
#include "platform.h"
#include "sim/Fault.h"
#include "surroundings.h"

namespace {

using testing::AllOf, testing::Ge, testing::HasSubstr, testing::Le, testing::MatchesRegex, testing::Not;

const std::string SIM = FISCORA_TOOL " sim ";
const std::string TILL = FISCORA_TILL;
const std::string CALL = FISCORA_TOOL " call";

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
        {"a ledger that is complete while the answer is on its way",
         "printf '<CFe><infCFe>\\r\\n</infCFe></CFe>' >sale; umask 0; " + SIM +
             "--ledger booked --fault silence -- sh -c 'timeout 3 " + CALL +
             " EnviarDadosVenda 7 12345678 @sale >/dev/null 2>&1; cat booked; stat -c %a booked; "
             "grep -c $(sha256sum sale | cut -c -64) booked'",
         0,
         "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}[+-][0-9]{2}:[0-9]{2}\tEnviarDadosVenda\t000007\tCFe[0-9]{44}\t"
         "[0-9a-f]{64}\n600\n1\n"},
        {"a full ledger",
         SIM + "--ledger /dev/full -- sh -c 'for n in 1 2; do " + CALL +
             " EnviarDadosVenda $n 12345678 \"<CFe/>\"; done' 2>&1 | grep -o '06...$\\|cannot.*'",
         0, "cannot write /dev/full: No space left on device; the device refuses documents\n06099\n06099\n"},
        {"a restart",
         SIM + "--fault restart=1@1 -- sh -c '" + TILL + " --without-pauses 2; sleep 2; " + TILL + " 1'", 0,
         "2 [0-9]+ \n1 [0-9]+ \n0" + good},
        {"random faults",
         "calls() { " + SIM + "--seed $1 --fault busy~30 --fault bad-code~70 -- " + TILL +
             " --without-pauses 50 | cut -d '|' -f 2; }; calls 5 >a; calls 5 | cmp - a; calls 6 | cmp -s - a; echo $?; "
             "sort -u a",
         0, "1\n08098\n8000\n"},
        {"absent command", SIM + "-- /nonexistent/command", 127, ".*/nonexistent/command.*\n"},
    };
    const WorkingDirectory folder;
    std::vector<std::string> lines;
    for (const auto& row : cases) lines.push_back("export LC_ALL=C\n" + row.line);
    const auto results = runShells(lines);
    auto shell = results.begin();
    for (const auto& [name, line, exitStatus, output, leastSeconds, mostSeconds] : cases) {
        SCOPED_TRACE(name);
        const auto& result = *shell++;
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
        const bool restarts = name == "restart";  // and must be back before the next call
        tills.push_back({restarts ? name + "=1" : name, fault.answer == sim::Answer::Previous ? 2 : 1,
                         fault.status, fault.answer});
        if (fault.measure != nullptr && !restarts)
            tills.push_back({name + "=5", 1, FISCORA_STATUS_OK, sim::Answer::Own});
    }
    return tills;
}

/// The line that a till prints for a call, as a regular expression.
std::string callLine(int number, int status, sim::Answer answer) {
    const auto own = [](int session) {
        return "00000" + std::to_string(session) + "\\|08000\\|SAT em Operação\\|\\|";
    };
    const std::map<sim::Answer, std::string> answers{
        {sim::Answer::None, ""},
        {sim::Answer::Own, own(number)},
        {sim::Answer::Late, ""},
        {sim::Answer::Previous, own(number - 1)},
        {sim::Answer::Compressed, "x[^|\n]*"},
        {sim::Answer::BadCode, "[0-9]+\\|8000\\|SAT em Operação\\|\\|"},
        {sim::Answer::Busy, "[0-9]+\\|08098\\|SAT em processamento. Tente novamente.\\|\\|"},
        {sim::Answer::Hostile, "[0-9]+\\|08000\\|SAT.*"}};
    return std::to_string(status) + " [0-9]+ " + answers.at(answer) + "\n";
}

TEST(EndToEnd, EachFaultEndsAsListedAndSparesTheNextCall) {
    const WorkingDirectory folder;
    const auto tills = spoiltTills();
    std::vector<std::string> scripts;
    for (const auto& [plan, number, status, answer, option] : tills)
        scripts.push_back("exec timeout 60 " + SIM + "--fault " + plan + "@" + std::to_string(number) +
                          " -- " + TILL + " " + option + " " + std::to_string(number + 1));
    const auto results = runShells(scripts);
    auto result = results.begin();
    for (const auto& [plan, number, status, answer, option] : tills) {
        SCOPED_TRACE(plan + option);
        const auto [exitStatus, output, seconds] = *result++;
        EXPECT_EQ(exitStatus, 0) << "a descriptor stays open, or a call lasts for ever";
        std::string lines;
        for (int call = 1; call < number; ++call)
            lines += callLine(call, FISCORA_STATUS_OK, sim::Answer::Own);
        const auto next = answer == sim::Answer::Late ? sim::Answer::Previous : sim::Answer::Own;
        lines += callLine(number, status, answer) + callLine(number + 1, FISCORA_STATUS_OK, next);
        EXPECT_THAT(output, MatchesRegex(lines));
        const double leastSeconds = status == FISCORA_STATUS_TIMEOUT ? 6 + 2 : 2;  // with a second per call
        EXPECT_THAT(seconds, AllOf(Ge(leastSeconds), Le(leastSeconds + 20)));
    }
}

TEST(EndToEnd, NoFaultBringsAnActivationCodeIntoTheTrace) {
    const WorkingDirectory folder;
    std::vector<std::string> scripts;
    for (const auto& fault : sim::faults())
        scripts.push_back(SIM + "--trace --fault " + std::string(fault.name) +
                          " -- timeout 4 " FISCORA_TOOL
                          " call TrocarCodigoDeAtivacao 1 12345678 1 outrocodigo outrocodigo");
    const auto results = runShells(scripts);
    for (std::size_t i = 0; i < results.size(); ++i) {
        const sim::Fault& fault = sim::faults()[i];
        const std::string request = fault.spoil == nullptr ? "" : "| 000001|***|1|***|***\n";
        EXPECT_THAT(results[i].output,
                    AllOf(HasSubstr("fault: " + std::string(fault.name)), HasSubstr(request),
                          Not(HasSubstr("12345678")), Not(HasSubstr("outrocodigo"))));
    }
}

/// Command lines that are refused.
const struct {
    const char* arguments;  ///< of fiscora, in a folder with one log
    const char* expected;   ///< part of the one line that is printed
} COMMAND_LINES[] = {
    {"call", "an operation is missing"},
    {"call consultarsat 1", "expected one of AtivarSAT, "},
    {"call EnviarDadosVenda 1 12345678", "arguments: numeroSessao codigoDeAtivacao dadosVenda (given: 2)"},
    {"call ConsultarSAT one", "numeroSessao: expected a number from 0 to 999999, not \"one\""},
    {"call ConsultarSAT 1000000", "numeroSessao: expected a number"},
    {"call ConsultarSAT -- -1", "numeroSessao: expected a number"},
    {"call AtivarSAT 1 1 12345678 14200166000166 65536", "cUF: expected a number from 0 to 65535"},
    {"call EnviarDadosVenda 1 12345678 @absent.xml", "cannot read absent.xml: No such file"},
    {"call EnviarDadosVenda 1 12345678 @.", "cannot read .: Is a directory"},
    {"call ExtrairLogs 1 @- </proc/self/mem", "cannot read standard input: Input/output error"},
    {"call ExtrairLogs 1 @/dev/zero", "/dev/zero is too long"},
    {"call EnviarDadosVenda 1 12345678 @/proc/self/cmdline", "/proc/self/cmdline contains a zero byte"},
    {"call TrocarCodigoDeAtivacao 1 12345678 1 'a\nb' x", "novoCodigo contains a line break or \"|\""},
    {"call ExtrairLogs 1 @- </dev/null", "codigoDeAtivacao is empty"},
    {"call EnviarDadosVenda 1 12345678 @/dev/null", "dadosVenda is empty"},
    {"call ExtrairLogs 1 @- </dev/zero", "standard input is too long"},
    {"call EnviarDadosVenda 1 12345678 /proc/self/comm", "is a file; write @/proc/self/comm"},
    {"call ConsultarSAT 1 --outt x", "there is no option --outt"},
    {"call ConsultarSAT 1 --out document.xml", "contains no document"},
    {"call ExtrairLogs 1 12345678 --out absent/log", "cannot write absent/log"},
    {"call ExtrairLogs 1 12345678 --out /dev/null", "cannot write /dev/null: not a regular file"},
    {"call ExtrairLogs 1 12345678 --out ''", "cannot write \"\": not a file name"},
    {"call --list ConsultarSAT", "unexpected argument: ConsultarSAT"},
    {"doctor now", "unexpected argument: now ("},
    {"log --since 20310229", "--since: expected a day, YYYYMMDD or YYYY-MM-DD, not \"20310229\""},
    {"log --since 2031-2-28", "expected a day"},
    {"log --since 20310228x", "expected a day"},
    {"log --since ''", "expected a day"},
    {"log --since", "--since needs a value"},
    {"log --dir a --dir b", "--dir is given more than once"},
    {"log --json=x", "--json does not take the value \"x\""},
    {"log --dir absent", "cannot read the log folder absent: No such file or directory; expected one"},
    {"log --dir $(printf 'x\\033\\233')", "cannot read the log folder x??: No such"},
    {"log --dir logsDrs/logDrs20310228.log", "Not a directory"},
    {"log --svg absent/picture.svg", "cannot write absent/picture.svg: No such file or directory"},
    {"log --svg logsDrs", "logsDrs: not a regular file"},
    {"log --svg ./logsDrs/logDrs20310228.log", "it is the name of a log"},
    {"log --svg ''", "not a file name"},
    {"log --follow --json", "--follow cannot be combined"},
    {"log -- today", "unexpected argument: today"},
    {"sim", "fiscora sim: "},
    {"sim --fault x -- true", "no fault \"x\""},
    {"sim --fault '' -- true", "no fault \"\""},
    {"sim --fault silence=3 -- true", "takes no number"},
    {"sim --fault silence@0 -- true", "number of an exchange"},
    {"sim --fault silence@1x -- true", "of an exchange"},
    {"sim --fault wrong-code= -- true", "from 1 to 1000"},
    {"sim --fault wrong-code=0@1 -- true", "1 to 1000"},
    {"sim --fault too-large=1001 -- true", "from 1 to 1000"},
    {"sim --fault silence~101 -- true", "from 1 to 100"},
    {"sim --fault silence~60 --fault hang-up~41 -- true", "exceed 100"},
    {"sim --serial 90000401x -- true", "nine digits"},
    {"sim --ledger absent/booked -- true", "cannot write absent/booked: No such file"},
};

TEST(EndToEnd, AWrongCommandLineIsRefusedInALineAndDoesNothing) {
    const WorkingDirectory folder;
    std::vector<std::string> lines;
    Files untouched;
    for (const auto& row : COMMAND_LINES) {
        const std::string log = std::to_string(lines.size()) + "/logsDrs/logDrs20310228.log";
        untouched["./" + log] = "a log\n";
        lines.push_back("mkdir logsDrs; echo a log >../" + log +
                        "; LC_ALL=C.UTF-8 LANGUAGE= " FISCORA_TOOL " sim -- " FISCORA_TOOL " " +
                        row.arguments);
    }
    const auto results = runShells(lines);
    for (std::size_t i = 0; i < results.size(); ++i) {
        SCOPED_TRACE(COMMAND_LINES[i].arguments);
        const std::string command(COMMAND_LINES[i].arguments, std::strcspn(COMMAND_LINES[i].arguments, " "));
        EXPECT_EQ(results[i].exitStatus, 2);
        EXPECT_THAT(results[i].output, testing::MatchesRegex("fiscora " + command + ": [^\n]+\n"));
        EXPECT_THAT(results[i].output, testing::HasSubstr(COMMAND_LINES[i].expected));
    }
    EXPECT_EQ(files(), untouched);
}

}  // namespace
