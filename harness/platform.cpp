#include "platform.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <fts.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

Platform platform;
thread_local int TestsOwn::depth = 0;

namespace {

/// What the platform's symbol is called. The headers of a 32-bit platform with 64-bit time rename some, here
/// and in the library.
const char* symbol(const char* name) {
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
    constexpr std::pair<std::string_view, const char*> RENAMED[] = {{"fts_open", "__fts64_open_time64"},
                                                                    {"gettimeofday", "__gettimeofday64"},
                                                                    {"ioctl", "__ioctl_time64"},
                                                                    {"open", "open64"},
                                                                    {"time", "__time64"}};
    for (const auto& [plain, renamed] : RENAMED)
        if (plain == name) return renamed;
#endif
    return name;
}

/// The platform's own function.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol(name)));
}

/// Whether this call fails; `errno` then says why.
bool fails(const char* name) {
    if (!platform.failure || TestsOwn::depth > 0) return false;
    const int error = platform.failure(name);
    if (error != 0) errno = error;
    return error != 0;
}

/// The stand-in's result or, without a stand-in, that of the platform's function `name`.
template <typename Result, typename... Arguments>
Result call(const char* name, const StandIn<Result(Arguments...)>& standIn, Arguments... arguments) {
    return standIn ? standIn(arguments...) : next<Result(Arguments...)>(name)(arguments...);
}

/// The same, unless the call is meant to fail with `failed`.
template <typename Result, typename... Arguments>
Result callOrFail(const char* name, Result failed, const StandIn<Result(Arguments...)>& standIn,
                  Arguments... arguments) {
    return fails(name) ? failed : call(name, standIn, arguments...);
}

void* allocate(std::size_t size) noexcept { return fails("operator new") ? nullptr : std::malloc(size); }
void* allocateOrThrow(std::size_t size) {
    void* const block = allocate(size);
    return block != nullptr ? block : throw std::bad_alloc();
}

}  // namespace

FILE* realPopen(const char* command) { return next<FILE*(const char*, const char*)>("popen")(command, "r"); }

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

extern "C" {

int gettimeofday(timeval* now, void* zone) noexcept {
    return platform.gettimeofday ? platform.gettimeofday(now)
                                 : next<int(timeval*, void*)>(__func__)(now, zone);
}
int usleep(useconds_t us) { return call(__func__, platform.usleep, us); }
std::time_t time(std::time_t* result) noexcept {
    const std::time_t now =
        platform.time ? platform.time() : next<std::time_t(std::time_t*)>(__func__)(nullptr);
    if (result != nullptr) *result = now;
    return now;
}
FILE* popen(const char* command, const char* mode) {
    if (fails(__func__)) return nullptr;
    return platform.popen ? platform.popen(command)
                          : next<FILE*(const char*, const char*)>(__func__)(command, mode);
}
int pclose(FILE* file) { return call(__func__, platform.pclose, file); }
int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    if (fails(__func__)) return -1;
    return platform.open ? platform.open(path, flags)
                         : next<int(const char*, int, ...)>(__func__)(path, flags, mode);
}
int isatty(int fd) noexcept { return callOrFail(__func__, 0, platform.isatty, fd); }
int tcgetattr(int fd, termios* settings) noexcept {
    return callOrFail(__func__, -1, platform.tcgetattr, fd, settings);
}
int tcsetattr(int fd, int when, const termios* settings) noexcept {
    return callOrFail(__func__, -1, platform.tcsetattr, fd, when, settings);
}
int tcflush(int fd, int queue) noexcept { return call(__func__, platform.tcflush, fd, queue); }
int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    return call(__func__, platform.ioctl, fd, request, argument);
}
ssize_t read(int fd, void* buffer, size_t capacity) {
    if (fd == FakeLine::DESCRIPTOR && fails(__func__)) return -1;
    return call(__func__, platform.read, fd, buffer, capacity);
}
ssize_t write(int fd, const void* bytes, size_t length) {
    if (fd == FakeLine::DESCRIPTOR && fails(__func__)) return -1;
    return call(__func__, platform.write, fd, bytes, length);
}
int close(int fd) { return call(__func__, platform.close, fd); }
int rename(const char* from, const char* to) noexcept {
    return callOrFail(__func__, -1, platform.rename, from, to);
}
int remove(const char* path) noexcept { return callOrFail(__func__, -1, platform.remove, path); }
int system(const char* command) { return callOrFail(__func__, -1, platform.system, command); }
char* fgets(char* line, int capacity, FILE* file) {
    return fails(__func__) ? nullptr : next<char*(char*, int, FILE*)>(__func__)(line, capacity, file);
}
FTS* fts_open(char* const* roots, int options, int (*order)(const FTSENT**, const FTSENT**)) {
    return fails(__func__) ? nullptr : next<decltype(::fts_open)>(__func__)(roots, options, order);
}
void sync() noexcept {
    if (platform.sync) platform.sync();  // never the real disk
}

}  // extern "C"

void setClock(const std::string& localTime) {
    tm fields = {};
    fields.tm_isdst = -1;
    strptime(localTime.c_str(), "%Y-%m-%d %T", &fields);
    platform.time = [now = std::mktime(&fields)] { return now; };
}

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::absolute(path).parent_path());
    std::ofstream(path) << content;
}

std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

Files files() {
    Files result;
    for (const auto& entry : std::filesystem::recursive_directory_iterator("."))
        if (entry.is_regular_file()) result[entry.path()] = readFile(entry.path());
    return result;
}

namespace ustar {  // the header of an archive's entry, POSIX.1-1988: offsets and sizes in bytes
constexpr std::size_t BLOCK = 512, SIZE = 124, SIZE_DIGITS = 11, TYPE = 156, MAGIC = 257;
}

std::string readLog(const std::string& path) {
    const std::unique_ptr<gzFile_s, int (*)(gzFile)> file(
        gzdopen(openat(AT_FDCWD, path.c_str(), O_RDONLY), "rb"), gzclose);  // gzopen would open the line
    std::string text;
    std::array<char, 65536> chunk{};
    for (int count; file && (count = gzread(file.get(), chunk.data(), chunk.size())) > 0;)
        text.append(chunk.data(), static_cast<std::size_t>(count));
    if (text.size() < ustar::BLOCK || text.compare(ustar::MAGIC, 5, "ustar") != 0) return text;
    return text.substr(ustar::BLOCK, std::stoul(text.substr(ustar::SIZE, ustar::SIZE_DIGITS), nullptr, 8));
}

int archiveUncompressed(const std::string& command) {
    const std::string log = command.substr(command.rfind(' ') + 1), text = readFile(log);
    std::string archive(ustar::BLOCK, '\0');
    archive.replace(0, log.size(), log);
    std::snprintf(&archive[ustar::SIZE], ustar::SIZE_DIGITS + 1, "%011zo", text.size());
    archive[ustar::TYPE] = '0';
    archive.replace(ustar::MAGIC, 5, "ustar");
    archive += text;
    archive.resize((archive.size() / ustar::BLOCK + 3) * ustar::BLOCK);  // two blocks of zeros at the end
    writeFile(log + ".tar.gz", archive);
    return 0;
}

pbs::Message compressedMessage(const std::string& code, const std::string& body) {
    pbs::Message message(code, "3");
    message.setBody(body);
    message.compress();
    return message;
}

long openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

FakeLine::FakeLine() {
    std::memset(&settings, 0xff, sizeof settings);
    platform.gettimeofday = [this](timeval* now) {
        now->tv_sec = 1'000'000 + m_nowUs / 1'000'000;
        now->tv_usec = m_nowUs % 1'000'000;
        return 0;
    };
    platform.usleep = [this](useconds_t us) {
        m_nowUs += us;
        return note("usleep " + std::to_string(us));
    };
    platform.popen = [this](const char* command) {
        note("popen " + std::string(command));
        return realPopen(listing.empty() ? ":" : ("echo '" + listing + "'").c_str());
    };
    platform.open = [this](const char* path, int flags) {
        note("open " + std::string(path) + " " + std::to_string(flags));
        open = true;
        m_command = pbs::Message();  // drops an unfinished frame
        return DESCRIPTOR;
    };
    platform.isatty = [this](int fd) {
        note("isatty " + std::to_string(fd));
        errno = ENOTTY;
        return isTerminal ? 1 : 0;
    };
    platform.tcgetattr = [this](int, termios* present) {
        *present = settings;
        return note("tcgetattr");
    };
    platform.tcsetattr = [this](int, int when, const termios* wanted) {
        settings = *wanted;
        return note("tcsetattr " + std::to_string(when));
    };
    platform.tcflush = [this](int fd, int queue) {
        return note("tcflush " + std::to_string(fd) + " " + std::to_string(queue));
    };
    platform.ioctl = [this](int fd, unsigned long request, void* argument) {
        if (fd != DESCRIPTOR || request != TIOCOUTQ || queued < 0) return -1;
        note("TIOCOUTQ");
        *static_cast<int*>(argument) = queued;
        return 0;
    };
    platform.read = [this](int fd, void* buffer, size_t capacity) {
        if (fd == DESCRIPTOR) return give(buffer, capacity);
        return next<ssize_t(int, void*, size_t)>("read")(fd, buffer, capacity);
    };
    platform.write = [this](int fd, const void* bytes, size_t length) {
        if (fd == DESCRIPTOR) return take(bytes, length);
        return next<ssize_t(int, const void*, size_t)>("write")(fd, bytes, length);
    };
    platform.close = [this](int fd) {
        if (fd != DESCRIPTOR) return next<int(int)>("close")(fd);
        open = false;
        return note("close");
    };
}

FakeLine::~FakeLine() { platform = Platform(); }

int FakeLine::note(const std::string& call) {
    calls.push_back(call);
    return 0;
}

ssize_t FakeLine::give(void* buffer, size_t capacity) {
    note("read " + std::to_string(capacity));
    if (readings.empty()) {
        advanceMs(100);
        return 0;
    }
    Reading& reading = readings.front();
    advanceMs(reading.afterMs);
    reading.afterMs = 0;
    const size_t length = std::min(capacity, reading.bytes.size());
    std::memcpy(buffer, reading.bytes.data(), length);
    reading.bytes.erase(0, length);
    const ssize_t result = length > 0 ? static_cast<ssize_t>(length) : reading.result;
    if (reading.bytes.empty()) readings.pop_front();
    return result;
}

ssize_t FakeLine::take(const void* bytes, size_t length) {
    note("write " + std::to_string(length));
    if (writeResult) {
        const ssize_t result = writeResult(length);
        if (result <= 0) return result;
        length = static_cast<size_t>(result);
    }
    written.append(static_cast<const char*>(bytes), length);
    unsigned long consumed = 0;
    const auto state = m_command.parse(static_cast<const char*>(bytes), length, &consumed);
    if (answers && state == pbs::Message::PARSER_MESSAGE_READY) {
        m_command.uncompress();
        for (const auto& answer : answers(m_command)) readings.push_back({answer.toString()});
    }
    return static_cast<ssize_t>(length);
}

WorkingDirectory::WorkingDirectory() : m_before(std::filesystem::current_path()) {
    std::string path = std::filesystem::temp_directory_path() / "fiscora-test.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("cannot create a temporary folder");
    m_path = path;
    std::filesystem::current_path(m_path);
}

WorkingDirectory::~WorkingDirectory() {
    std::filesystem::current_path(m_before);
    std::filesystem::remove_all(m_path);
}

std::vector<std::string> WorkingDirectory::logLines() const {
    std::vector<std::string> lines;
    for (const auto& [path, content] : files()) {
        if (path.rfind("./logsDrs/", 0) != 0) continue;
        std::istringstream text(readLog(path));
        for (std::string line; std::getline(text, line);) {
            const auto start = line.find("] - [");
            lines.push_back(start == std::string::npos ? line
                                                       : line.substr(start + 5, line.size() - start - 6));
        }
    }
    return lines;
}
