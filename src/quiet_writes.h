#pragma once

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <initializer_list>

/// While it lives, a write of this thread fails with an error instead of raising a signal: SIGPIPE if nobody
/// reads what is printed, SIGXFSZ if a file may not grow. Signals that were pending before stay so. Its
/// end leaves `errno` as it was.
class __attribute__((visibility("hidden"))) QuietWrites {
  public:
    QuietWrites() {
        sigemptyset(&m_signals);
        sigset_t pending;
        sigpending(&pending);
        for (const int signal : {SIGPIPE, SIGXFSZ})
            if (sigismember(&pending, signal) == 0) sigaddset(&m_signals, signal);
        pthread_sigmask(SIG_BLOCK, &m_signals, &m_before);
    }
    QuietWrites(const QuietWrites&) = delete;
    QuietWrites& operator=(const QuietWrites&) = delete;
    ~QuietWrites() {
        const int error = errno;
        const timespec noWait{};
        while (sigtimedwait(&m_signals, nullptr, &noWait) > 0) continue;
        errno = error;
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

  private:
    sigset_t m_signals{};
    sigset_t m_before{};
};
