// A till: asks the device for its state again and again, prints what came of each call, and looks at the end
// whether a descriptor was left open.
//
//     till [--without-pauses] CALLS
//
// Prints a line a call: status, milliseconds, answer. Exit status 0 when no descriptor was left open.

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "fiscora.h"

namespace {

bool withoutPauses = false;

long openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

}  // namespace

/// Comes before the platform's own.
extern "C" int usleep(useconds_t us) {
    if (withoutPauses) return 0;
    return reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, "usleep"))(us);
}

int main(int argc, char** argv) {
    withoutPauses = argc > 2 && std::strcmp(argv[1], "--without-pauses") == 0;
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
