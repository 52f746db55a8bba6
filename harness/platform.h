#pragma once

#include <sys/time.h>
#include <sys/types.h>
#include <termios.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/Message.h"

/// While it lives, this thread's calls belong to the test, not to the library: none of them fails.
class TestsOwn {
  public:
    TestsOwn() { ++depth; }
    TestsOwn(const TestsOwn&) = delete;
    TestsOwn& operator=(const TestsOwn&) = delete;
    ~TestsOwn() { --depth; }

    static thread_local int depth;
};

/// Called instead of a platform function.
template <typename Signature>
class StandIn;
template <typename Result, typename... Arguments>
class StandIn<Result(Arguments...)> : public std::function<Result(Arguments...)> {
  public:
    using std::function<Result(Arguments...)>::function;

    Result operator()(Arguments... arguments) const {
        const TestsOwn here;
        return std::function<Result(Arguments...)>::operator()(arguments...);
    }
};

/// Stand-ins for the platform functions of the same names. The test program defines these functions, so the
/// library's calls come here; without a stand-in they go on to the platform.
struct Platform {
    StandIn<int(timeval*)> gettimeofday;
    StandIn<int(useconds_t)> usleep;
    StandIn<std::time_t()> time;
    StandIn<FILE*(const char* command)> popen;
    StandIn<int(FILE*)> pclose;
    StandIn<int(const char* path, int flags)> open;
    StandIn<int(int fd)> isatty;
    StandIn<int(int fd, termios*)> tcgetattr;
    StandIn<int(int fd, int when, const termios*)> tcsetattr;
    StandIn<int(int fd, int queue)> tcflush;
    StandIn<int(int fd, unsigned long request, void*)> ioctl;
    StandIn<ssize_t(int fd, void*, size_t)> read;
    StandIn<ssize_t(int fd, const void*, size_t)> write;
    StandIn<int(int fd)> close;
    StandIn<int(const char* from, const char* to)> rename;
    StandIn<int(const char* path)> remove;
    StandIn<int(const char* command)> system;
    StandIn<void()> sync;
    /// Asked, by name, before each call that can fail, `operator new` included (`read` and `write`: only on
    /// the line): the `errno` to fail with, or 0 to go on.
    StandIn<int(std::string_view call)> failure;
};
extern Platform platform;

/// The platform's own popen, past any stand-in.
FILE* realPopen(const char* command);

/// Stops the clock of `time` at `localTime`, such as "2031-02-28 23:59:58".
void setClock(const std::string& localTime);

/// Makes or replaces a file, and makes its folder.
void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
/// Contents of all files below the working directory, by path: "./logsDrs/logDrs20310228.log".
using Files = std::map<std::string, std::string>;
Files files();
/// Text of a day's log or, of a tar.gz file, of the log in it.
std::string readLog(const std::string& path);
/// Stands in for `system` with the archive's command: makes the archive without a process, uncompressed.
int archiveUncompressed(const std::string& command);

/// A message as the library and the device send it, with a compressed body.
pbs::Message compressedMessage(const std::string& code, const std::string& body);

/// Number of the process's open descriptors.
long openDescriptors();

/// A fiscal device on a serial line, and a clock that moves only when the library waits. While it lives, the
/// library finds it as /dev/ttyACM0 and talks to nothing else.
class FakeLine {
  public:
    /// Result of one read after `afterMs`: the bytes or, if there are none, `result` (0 or -1).
    struct Reading {
        std::string bytes;
        int result = 0;
        std::int64_t afterMs = 0;
    };

    static constexpr int DESCRIPTOR = 1000;

    FakeLine();
    FakeLine(const FakeLine&) = delete;
    FakeLine& operator=(const FakeLine&) = delete;
    ~FakeLine();

    std::int64_t nowMs() const { return m_nowUs / 1000; }
    void advanceMs(std::int64_t ms) { m_nowUs += ms * 1000; }

    std::string listing =
        "lrwxrwxrwx 1 root root 13 x-mfc+_with_musb-if00 -> ../../ttyACM0";  ///< of the discovery
    std::string written;                                                     ///< all bytes sent to the device
    std::vector<std::string> calls;  ///< the calls in order, such as "usleep 100000"
    std::deque<Reading> readings;    ///< results of the next reads; then silence, 100 ms per read
    std::function<ssize_t(size_t length)> writeResult;  ///< if set: the result of each write
    std::function<std::vector<pbs::Message>(pbs::Message& command)>
        answers;     ///< if set: the answers to each command
    int queued = 0;  ///< bytes that TIOCOUTQ reports; below 0: it fails
    bool isTerminal = true;
    termios settings;  ///< of the terminal; all bits set at first
    bool open = false;

  private:
    int note(const std::string& call);
    ssize_t give(void* buffer, size_t capacity);
    ssize_t take(const void* bytes, size_t length);

    std::int64_t m_nowUs = 0;
    pbs::Message m_command;
};

/// A temporary folder, and the working directory as long as it lives.
class WorkingDirectory {
  public:
    WorkingDirectory();
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;
    ~WorkingDirectory();

    /// All log lines below logsDrs, archived ones too, in the order of their files, without their times:
    /// "info, text".
    std::vector<std::string> logLines() const;

  private:
    std::string m_before;
    std::string m_path;
};
