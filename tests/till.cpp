// A till: asks the device for its state again and again, prints what came of each call, and checks at the end
// that no descriptor was left open.
//
//     till [--without-pauses] [--signals] CALLS
//
//     --signals  a signal arrives every few milliseconds, with a handler that restarts what it interrupts
//
// Prints one line per call: status, milliseconds, answer. Exit status 1 if a descriptor was left open.

#include <dlfcn.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "fiscora.h"

// Names of the program's own that the library uses too: the library must keep to its own.

struct Base64 {
    static const std::string base64_chars;
    static std::string encode(const unsigned char*, std::uint32_t);
    static std::string decode(const std::string&);
};
const std::string Base64::base64_chars = "not the alphabet, and too long to be stored in the string itself";
std::string Base64::encode(const unsigned char*, std::uint32_t) { std::abort(); }
std::string Base64::decode(const std::string&) { std::abort(); }

struct LogDebug {
    static LogDebug* m_log;
    static LogDebug* obtemReferencia();
    void saveLog(const std::string&, const std::string&);
};
LogDebug* LogDebug::m_log = reinterpret_cast<LogDebug*>(1);
LogDebug* LogDebug::obtemReferencia() { std::abort(); }
void LogDebug::saveLog(const std::string&, const std::string&) { std::abort(); }

std::vector<std::string> split(const std::string&, char) { return {}; }

namespace {

bool withoutPauses = false;

long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

void startSignals() {
    constexpr suseconds_t PERIOD_US = 3000;
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    const itimerval period{{0, PERIOD_US}, {0, PERIOD_US}};
    setitimer(ITIMER_REAL, &period, nullptr);
}

}  // namespace

/// The library calls this one instead of the platform's.
extern "C" int usleep(useconds_t us) {
    if (withoutPauses) return 0;
    return reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, "usleep"))(us);
}

int main(int argc, char** argv) {
    const auto given = [&](std::string_view option) {
        return std::find(argv, argv + argc, option) != argv + argc;
    };
    withoutPauses = given("--without-pauses");
    if (given("--signals")) startSignals();
    const int calls = std::atoi(argv[argc - 1]);
    const long before = openDescriptors();
    for (int call = 1; call <= calls; ++call) {
        const auto start = std::chrono::steady_clock::now();
        const char* answer = ConsultarSAT(call);
        const auto duration = std::chrono::steady_clock::now() - start;
        std::printf(
            "%d %ld %s\n", CodigoErro(),
            static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(duration).count()),
            answer);
    }
    return openDescriptors() == before ? EXIT_SUCCESS : EXIT_FAILURE;
}
