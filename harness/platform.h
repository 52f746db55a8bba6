#pragma once

#include <sys/time.h>
#include <sys/types.h>
#include <termios.h>

#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/Message.h"

/// Says, while it lives, that what this thread does is the test's doing and not the library's: nothing fails.
class TestsOwn {
  public:
    TestsOwn() { ++depth; }
    TestsOwn(const TestsOwn&) = delete;
    TestsOwn& operator=(const TestsOwn&) = delete;
    ~TestsOwn() { --depth; }

    static thread_local int depth;
};

/// What is called in the place of a platform function.
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

/// Stand-ins for the platform functions of the same names. The test program defines these functions itself,
/// so the library calls them here; where a test has set none, the call goes on to the platform.
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
    /// Asked before each call that a fault of the machine can strike, `operator new` included, by its name
    /// (`read` and `write` on the line alone): what `errno` it fails with, or 0 where it goes on.
    StandIn<int(std::string_view call)> failure;
};
extern Platform platform;

/// The platform's own popen, whatever stands in for it.
FILE* realPopen(const char* command);

/// Stops the clock of `time` at that local time, such as "2031-02-28 23:59:58".
void setClock(const std::string& localTime);

/// Makes or replaces a file.
void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
/// Contents of all files below the working directory, by path: "./logsDrs/logDrs20310228.log".
using Files = std::map<std::string, std::string>;
Files files();
/// Text of a day's log or, of a tar.gz file, of the log in it.
std::string readLog(const std::string& path);

/// A message as the library and the device send it, with a compressed body.
pbs::Message compressedMessage(const std::string& code, const std::string& body);

/// How many descriptors the process has open.
long openDescriptors();

/// A fiscal device on a serial line, and a clock that moves only when the library waits. While it lives the
/// library finds it as /dev/ttyACM0 and talks to nothing else.
class FakeLine {
  public:
    /// What one read gives: bytes, or the result of a read without any (0 or -1), after so many milliseconds.
    struct Reading {
        std::string bytes;
        int result = 0;
        long afterMs = 0;
    };

    static constexpr int DESCRIPTOR = 1000;

    FakeLine();
    FakeLine(const FakeLine&) = delete;
    FakeLine& operator=(const FakeLine&) = delete;
    ~FakeLine();

    long nowMs() const { return m_nowUs / 1000; }
    void advanceMs(long ms) { m_nowUs += ms * 1000; }

    std::string listing =
        "lrwxrwxrwx 1 root root 13 x-mfc+_with_musb-if00 -> ../../ttyACM0";  ///< of the discovery
    std::string written;             ///< all bytes that the device has been sent
    std::vector<std::string> calls;  ///< the calls in order, such as "usleep 100000"
    std::deque<Reading> readings;    ///< what is read next; then silence, 100 ms a read
    std::function<ssize_t(size_t length)>
        writeResult;  ///< set: what each write takes of `length`, or fails with
    std::function<std::vector<pbs::Message>(pbs::Message& command)>
        answers;     ///< set: what follows each command
    int queued = 0;  ///< what TIOCOUTQ reads; below 0: it can't be asked
    bool isTerminal = true;
    termios settings;  ///< of the terminal; all bits set at first
    bool open = false;

  private:
    int note(const std::string& call);
    ssize_t give(void* buffer, size_t capacity);
    ssize_t take(const void* bytes, size_t length);

    long m_nowUs = 0;
    pbs::Message m_command;
};

/// A temporary folder that is the working directory while it lives.
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
