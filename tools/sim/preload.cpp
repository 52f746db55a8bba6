// Preloaded by `fiscora sim` into the command that it runs and that command's own children. Puts the
// simulated line in the place of the fiscal device, and leaves every other use of these functions alone. No
// state, no initialisers, and nothing of the C++ library: it runs inside programs of any kind.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "link/discovery.h"
#include "sim/LineContract.h"

namespace {

/// One line as the real search prints it. The node ends in a letter, where a real one has a digit: without
/// the simulated line its opening fails, and a device that is plugged in is out of reach.
constexpr char DISCOVERY_ANSWER[] =
    "echo 'lrwxrwxrwx 1 root root 13 Jan  1 00:00 usb-fiscora_simulated-mfc+_with_musb-if00 -> "
    "../../ttyACMS'";
constexpr char NODE[] = "/dev/ttyACMS";

/// The function that the program would have called without us; errno stays as it was.
template <typename Function>
Function next(const char* name) {
    const int before = errno;
    void* const address = dlsym(RTLD_NEXT, name);
    errno = before;
    Function function = nullptr;
    std::memcpy(&function, &address, sizeof function);
    return function;
}

const char* lineOr(const char* path) {
    if (path == nullptr || std::strcmp(path, NODE) != 0) return path;
    const char* line = std::getenv(sim::LINE_VARIABLE);
    return line != nullptr ? line : path;
}

bool isLine(int fd) {
    const int before = errno;
    const char* path = std::getenv(sim::LINE_VARIABLE);
    struct stat line {};
    struct stat file {};
    const bool same = path != nullptr && stat(path, &line) == 0 && fstat(fd, &file) == 0 &&
                      S_ISCHR(file.st_mode) && file.st_rdev == line.st_rdev;
    errno = before;
    return same;
}

bool creates(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

/// `mode` is passed on also where nothing looks at it.
int openBy(const char* name, const char* path, int flags, mode_t mode) {
    return next<int (*)(const char*, int, ...)>(name)(creates(flags) ? path : lineOr(path), flags, mode);
}

}  // namespace

extern "C" {

FILE* popen(const char* command, const char* mode) {
    const bool searching = command != nullptr && std::strcmp(command, serial::DISCOVERY_COMMAND) == 0;
    return next<decltype(&popen)>("popen")(searching ? DISCOVERY_ANSWER : command, mode);
}

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = creates(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openBy("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = creates(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openBy("open64", path, flags, mode);
}

/// What was written to the simulated line counts as transmitted, so there is no output to discard: a pty
/// hands it over a moment after the write, and its own discard would catch it on the way.
int tcflush(int fd, int queue) noexcept {
    const auto real = next<int (*)(int, int)>("tcflush");
    if ((queue != TCOFLUSH && queue != TCIOFLUSH) || !isLine(fd)) return real(fd, queue);
    return queue == TCOFLUSH ? 0 : real(fd, TCIFLUSH);
}
}
