// Preloaded by `fiscora sim` into its command and the programs that the command starts. Puts the simulated
// line in place of the fiscal device, and leaves every other use of these functions alone. No state, no
// initialisers, and nothing of the C++ library: it runs inside programs of any kind.
//
// A library can still be loaded so that it does not meet these functions; search_stand_in.h and
// device_guard.h keep such a program from a real device.

// Where these are set by default, <fcntl.h> makes `open` another name of `open64`; both are defined here.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "link/discovery.h"
#include "sim/LineContract.h"

namespace {

/// One line as the real search prints it. The node ends in a letter where a real one has a digit: without
/// the simulated line it cannot be opened, and no real device is.
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

/// The simulated line's path if `path` is the device's node, else null.
const char* lineFor(const char* path) {
    return path != nullptr && std::strcmp(path, NODE) == 0 ? std::getenv(sim::LINE_VARIABLE) : nullptr;
}

/// Whether the `fiscora sim` that made `line` still runs: it holds a lock on the line's folder.
bool simulationLives(const char* line) {
    std::array<char, PATH_MAX> folder{};
    const char* const end = std::strrchr(line, '/');
    if (end == nullptr || end - line >= PATH_MAX) return false;
    std::memcpy(folder.data(), line, static_cast<std::size_t>(end - line));
    const int fd =
        next<int (*)(const char*, int, ...)>("open")(folder.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool locked = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd);
    return locked;
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

/// Passes `mode` on even if the flags do not ask for one.
int openBy(const char* name, const char* path, int flags, mode_t mode) {
    const auto real = next<int (*)(const char*, int, ...)>(name);
    const char* const line = creates(flags) ? nullptr : lineFor(path);
    if (line == nullptr) return real(path, flags, mode);
    const int fd = real(line, flags, mode);
    // Asked after the opening: by then the terminal's number may be another program's.
    if (fd < 0 || simulationLives(line)) return fd;
    close(fd);
    errno = ENXIO;
    return -1;
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

/// Without RTLD_DEEPBIND, with which the library would bind to the real functions (PHP's FFI sets it). The
/// real dlopen judges by its return address whose search path and namespace count, so each of these must end
/// in a jump to it, not in a call: CMakeLists.txt optimises this file in every build, and nothing counts here
/// for the coverage.
[[gnu::no_profile_instrument_function]] void* dlopen(const char* file, int mode) noexcept {
    return next<void* (*)(const char*, int)>("dlopen")(file, mode & ~RTLD_DEEPBIND);
}

[[gnu::no_profile_instrument_function]] void* dlmopen(Lmid_t space, const char* file, int mode) noexcept {
    return next<void* (*)(Lmid_t, const char*, int)>("dlmopen")(space, file, mode & ~RTLD_DEEPBIND);
}

/// What was written to the simulated line counts as transmitted, so there is no output to discard: a pty
/// hands it over a moment after the write, and a discard would catch it on the way.
int tcflush(int fd, int queue) noexcept {
    const auto real = next<int (*)(int, int)>("tcflush");
    if ((queue != TCOFLUSH && queue != TCIOFLUSH) || !isLine(fd)) return real(fd, queue);
    return queue == TCOFLUSH ? 0 : real(fd, TCIFLUSH);
}
}
