#pragma once

#include <sys/time.h>
#include <sys/types.h>
#include <termios.h>

#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "protocol/Message.h"

/// Stand-ins for the platform functions of the same names. The test program defines these functions itself,
/// so the library calls them here; where a test has set none, the call goes on to the platform.
struct Platform {
    std::function<int(timeval*)> gettimeofday;
    std::function<int(useconds_t)> usleep;
    std::function<std::time_t()> time;
    std::function<FILE*(const char* command)> popen;
    std::function<int(const char* path, int flags)> open;
    std::function<int(int fd)> isatty;
    std::function<int(int fd, termios*)> tcgetattr;
    std::function<int(int fd, int when, const termios*)> tcsetattr;
    std::function<int(int fd, int queue)> tcflush;
    std::function<int(int fd, unsigned long request, void*)> ioctl;
    std::function<ssize_t(int fd, void*, size_t)> read;
    std::function<ssize_t(int fd, const void*, size_t)> write;
    std::function<int(int fd)> close;
    std::function<int(const char* from, const char* to)> rename;
    std::function<int(const char* path)> remove;
    std::function<int(const char* command)> system;
    std::function<void()> sync;
};
extern Platform platform;

/// The platform's own popen, whatever stands in for it.
FILE* realPopen(const char* command);

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

    /// All log lines below logsDrs, in the order of their files, without time: "info, text".
    std::vector<std::string> logLines() const;

  private:
    std::string m_before;
    std::string m_path;
};
