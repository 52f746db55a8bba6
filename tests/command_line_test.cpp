// Command lines of the tool that are refused, with nothing done.

#include <gmock/gmock.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform.h"
#include "surroundings.h"

namespace {

const struct {
    const char* arguments;  ///< of fiscora, in a folder with one log
    const char* expected;   ///< part of the one line that is printed
} CASES[] = {
    {"call", "an operation is missing"},
    {"call consultarsat 1", "expected one of AtivarSAT, "},
    {"call EnviarDadosVenda 1 12345678", "arguments: numeroSessao codigoDeAtivacao dadosVenda (given: 2)"},
    {"call ConsultarSAT one", "numeroSessao: expected a number from 0 to 999999, not \"one\""},
    {"call ConsultarSAT 1000000", "numeroSessao: expected a number"},
    {"call ConsultarSAT -- -1", "numeroSessao: expected a number"},
    {"call AtivarSAT 1 1 12345678 14200166000166 65536", "cUF: expected a number from 0 to 65535"},
    {"call EnviarDadosVenda 1 12345678 @absent.xml", "cannot read absent.xml: No such file"},
    {"call EnviarDadosVenda 1 12345678 @.", "cannot read .: Is a directory"},
    {"call ExtrairLogs 1 @- </proc/self/mem", "cannot read the standard input: Input/output error"},
    {"call ExtrairLogs 1 @/dev/zero", "/dev/zero is too long"},
    {"call TrocarCodigoDeAtivacao 1 12345678 1 'a\nb' x", "novoCodigo contains a line break"},
    {"call EnviarDadosVenda 1 12345678 /proc/self/comm", "is a file; write @/proc/self/comm"},
    {"call ConsultarSAT 1 --outt x", "there is no option --outt"},
    {"call ConsultarSAT 1 --out document.xml", "contains no document"},
    {"call ExtrairLogs 1 12345678 --out absent/log", "cannot write absent/log"},
    {"call ExtrairLogs 1 12345678 --out /dev/null", "cannot write /dev/null: it is not a regular file"},
    {"call --list ConsultarSAT", "unexpected argument: ConsultarSAT"},
    {"doctor now", "unexpected argument: now ("},
    {"doctor -- now", "unexpected argument: now ("},
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
    {"log --svg ''", "not the name of a file"},
    {"log --follow --json", "--follow cannot be combined"},
    {"log today", "unexpected argument: today"},
    {"log -- today", "unexpected argument: today"},
    {"sim", "fiscora sim: "},
    {"sim --fault x -- true", "no fault \"x\""},
    {"sim --fault '' -- true", "no fault \"\""},
    {"sim --fault silence=3 -- true", "takes no count"},
    {"sim --fault silence@0 -- true", "number of an exchange"},
    {"sim --fault silence@1x -- true", "of an exchange"},
    {"sim --fault wrong-code= -- true", "from 1 to 1000"},
    {"sim --fault wrong-code=0@1 -- true", "1 to 1000"},
    {"sim --fault too-large=1001 -- true", "from 1 to 1000"},
};

TEST(CommandLine, AWrongOneIsRefusedInALineAndDoesNothing) {
    const WorkingDirectory folder;
    std::vector<std::string> lines;
    Files untouched;
    for (const auto& row : CASES) {
        const std::string log = std::to_string(lines.size()) + "/logsDrs/logDrs20310228.log";
        untouched["./" + log] = "a log\n";
        lines.push_back("mkdir logsDrs; echo a log >../" + log +
                        "; LC_ALL=C.UTF-8 LANGUAGE= " FISCORA_TOOL " sim -- " FISCORA_TOOL " " +
                        row.arguments);
    }
    const auto results = runShells(lines);
    for (std::size_t i = 0; i < results.size(); ++i) {
        SCOPED_TRACE(CASES[i].arguments);
        const std::string command(CASES[i].arguments, std::strcspn(CASES[i].arguments, " "));
        EXPECT_EQ(results[i].exitStatus, 2);
        EXPECT_THAT(results[i].output, testing::MatchesRegex("fiscora " + command + ": [^\n]+\n"));
        EXPECT_THAT(results[i].output, testing::HasSubstr(CASES[i].expected));
    }
    EXPECT_EQ(files(), untouched);
}

}  // namespace
