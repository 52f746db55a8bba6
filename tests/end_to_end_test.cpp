// Programs that call the library in real time, each under `fiscora sim`.

#include <gmock/gmock.h>

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
                                                     {sim::Answer::Compressed, "x[^|\n]*"},
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
        lines += callLine(number, status, answer) + callLine(number + 1, FISCORA_STATUS_OK, sim::Answer::Own);
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

}  // namespace
