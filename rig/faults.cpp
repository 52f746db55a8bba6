/// A till's application whose device is unplugged in the middle of a call, accepts nothing, or comes back
/// under another name.
///
///     driver_faults CLOSE_MS
///
/// CLOSE_MS: how long the driver may take to close a port whose device accepts nothing. After every fault a
/// call must work: it asks the device for its answer to the previous call, which tells whether that request
/// arrived.
///
/// Prints for each scenario, separated by tabs: "fault", the scenario, its status, the ms that the call took,
/// the ms of these that closing took, the expected outcome, the code that the next call returned, and the
/// difference or "ok". Exit status 1 if anything differs.

#include <fiscora.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "sim/Fault.h"
#include "till.h"
#include "transaction/DoTransaction.h"

namespace {

using Clock = std::chrono::steady_clock;

const std::string CODE = "12345678", SECOND_CODE = "87654321";

// The devices answer after a second; at two million baud a sale's answer takes a little longer.
const std::string PLAY_DEVICES = "driver_device /run/usb/sat " + CODE +
                                 " 1000 2000000 & driver_device /run/usb/second " + SECOND_CODE +
                                 " 1000 2000000 &";

constexpr unsigned HANG_SECONDS = 120;

struct Call {
    const char* (*make)(int session);
    const char* code;  ///< of success
};

const char* askForState(int session) { return ConsultarSAT(session); }
const char* askSecond(int session) { return ConsultarStatusOperacional(session, SECOND_CODE.c_str()); }
const char* sell(int session) {
    static const std::string document = till::writeSale(1).document;
    return EnviarDadosVenda(session, CODE.c_str(), document.c_str());
}

constexpr Call QUERY{askForState, "08000"};
constexpr Call QUERY_OF_SECOND{askSecond, "10000"};
constexpr Call SALE{sell, "06000"};

enum class Answer { None, Part, Whole };  ///< what the application reads of it

struct Scenario {
    const char* name;
    const char* before;  ///< shell command, as is `after`
    const Call& call;
    int status;
    Answer answer;
    int longestMs;               ///< of the call, without CLOSE_MS
    const char* after;           ///< ends the fault
    const char* rememberedCode;  ///< of the device's answer to the call
};

constexpr const char* NOT_RECEIVED = "11003";

/// The status that `fiscora sim` lists for this fault; the real driver must give the same.
int statusUnder(const char* fault) { return sim::findFault(fault)->status; }

// If the device is silent, a query ends after 6 s and a sale after 10 s, plus a pause of one second, and
// another if the line failed. The rest allows for a slow machine.
const std::array SCENARIOS{
    Scenario{"unplugged during the request",
             "usbdev tell sat delay 50 && usbdev tell sat when taken 65536 20 unplug", SALE,
             statusUnder("refused-write"), Answer::None, 5000,
             "usbdev unplug sat && usbdev tell sat delay 0 && usbdev plug sat", NOT_RECEIVED},
    Scenario{"unplugged during the wait", "usbdev tell sat when taken 1 500 unplug", QUERY,
             statusUnder("hang-up"), Answer::None, 5000, "usbdev unplug sat && usbdev plug sat", "08000"},
    Scenario{"unplugged during the answer", "usbdev tell sat when given 65536 20 unplug", SALE,
             statusUnder("hang-up-in-answer"), Answer::Part, 10000, "usbdev unplug sat && usbdev plug sat",
             "06000"},
    Scenario{"not plugged in, then as ttyACM1", "usbdev unplug sat", QUERY, FISCORA_STATUS_NO_ANSWER,
             Answer::None, 1500,
             "usbdev add other -m Other && usbdev plug sat && [ \"$(usbdev node sat)\" = ttyACM1 ]",
             NOT_RECEIVED},
    Scenario{"takes nothing of a query", "usbdev tell sat hold", QUERY, statusUnder("silence"), Answer::None,
             8000, "usbdev tell sat release", NOT_RECEIVED},
    Scenario{"takes nothing of a sale", "usbdev tell sat hold", SALE, statusUnder("silence"), Answer::None,
             12500, "usbdev tell sat release", NOT_RECEIVED},
    Scenario{"takes nothing for 3 s", "usbdev tell sat hold && usbdev tell sat when taken 0 3000 release",
             SALE, FISCORA_STATUS_OK, Answer::Whole, 11500, "true", "06000"},
    Scenario{"takes nothing, unplugged after 7 s",
             "usbdev tell sat hold && usbdev tell sat when taken 0 7000 unplug", SALE, statusUnder("hang-up"),
             Answer::None, 10000, "usbdev unplug sat && usbdev tell sat release && usbdev plug sat",
             NOT_RECEIVED},
    Scenario{"two devices, the later name answers", "usbdev add second -s 2", QUERY_OF_SECOND,
             FISCORA_STATUS_OK, Answer::Whole, 5000, "usbdev unplug second", NOT_RECEIVED},
};

long g_bytesRead = 0;
Clock::duration g_closing{0};

/// A call as the application saw it.
struct Observation {
    int status;
    long long ms, closingMs;
    long bytesRead;
    std::vector<std::string> answerFields;
};

long long inMs(Clock::duration duration) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

Observation observe(const Call& call, int session) {
    g_bytesRead = 0;
    g_closing = {};
    const auto start = Clock::now();
    const auto answerFields = split(call.make(session), '|');
    return {CodigoErro(), inMs(Clock::now() - start), inMs(g_closing), g_bytesRead, answerFields};
}

long openDescriptors() {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::distance(begin(descriptors), end(descriptors));
}

std::string faultInAnswer(const Scenario& scenario, int session, const Observation& seen) {
    if (scenario.answer == Answer::Whole)
        return till::faultInHead(session, scenario.call.code, seen.answerFields);
    if (!seen.answerFields.empty()) return "an answer";
    if ((seen.bytesRead > 0) == (scenario.answer == Answer::Part)) return {};
    return std::to_string(seen.bytesRead) + " bytes of an answer";
}

/// Runs one scenario and prints its line. False if anything differs.
bool meet(const Scenario& scenario, int session, int closeMs) {
    std::string differences;
    const auto expect = [&](bool holds, const std::string& otherwise) {
        if (!holds) differences += (differences.empty() ? "" : ", ") + otherwise;
    };
    const long descriptors = openDescriptors();
    expect(std::system(scenario.before) == 0, "fault not made");
    alarm(HANG_SECONDS);
    const Observation seen = observe(scenario.call, session);
    expect(openDescriptors() == descriptors, "descriptors left open");
    const int longestMs = scenario.longestMs + (scenario.status == FISCORA_STATUS_TIMEOUT ? closeMs : 0);
    const std::string faultOfAnswer = faultInAnswer(scenario, session, seen);
    expect(seen.status == scenario.status, "status");
    expect(seen.ms <= longestMs, "too long");
    expect(faultOfAnswer.empty(), faultOfAnswer);

    expect(std::system(scenario.after) == 0, "fault not ended");
    alarm(HANG_SECONDS);
    const auto next = split(ConsultarNumeroSessao(session + 1, CODE.c_str(), session), '|');
    const std::string faultOfNext = till::faultInHead(session + 1, scenario.rememberedCode, next);
    expect(faultOfNext.empty(), "next call: " + faultOfNext);
    expect(openDescriptors() == descriptors, "descriptors left open by the next call");

    std::cout << "fault\t" << scenario.name << '\t' << seen.status << '\t' << seen.ms << '\t'
              << seen.closingMs << '\t' << scenario.status << " in " << longestMs << '\t'
              << (next.size() > 1 ? next[1] : "none") << '\t' << (differences.empty() ? "ok" : differences)
              << std::endl;
    return differences.empty();
}

/// Makes any wait of the library in the kernel fail after HANG_SECONDS.
void interruptHangs() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
}

}  // namespace

// The library calls these instead of the platform's.
extern "C" ssize_t read(int fd, void* buffer, size_t count) {
    const long result = syscall(SYS_read, fd, buffer, count);
    if (result > 0) g_bytesRead += result;
    return result;
}

extern "C" int close(int fd) {
    const auto start = Clock::now();
    const long result = syscall(SYS_close, fd);
    g_closing += Clock::now() - start;
    return static_cast<int>(result);
}

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: driver_faults CLOSE_MS\n";
        return 2;
    }
    const int closeMs = std::atoi(argv[1]);
    if (std::system(PLAY_DEVICES.c_str()) != 0) return 1;
    interruptHangs();
    int session = 0;
    bool asExpected = true;
    for (const Scenario& scenario : SCENARIOS) {
        session += 2;
        if (!meet(scenario, session, closeMs)) asExpected = false;
    }
    return asExpected ? 0 : 1;
}
