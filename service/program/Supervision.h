#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "program/Settings.h"

namespace fiscorad {

/// Tells the system's service manager, if there is one, that the service is ready and works, and what state
/// the device is in. The manager kills and restarts a service that stops reporting that it works.
class Supervision {
  public:
    struct Settings {
        std::function<bool()> works;
        std::function<std::string()> status;  ///< one line for people; empty: as before
        std::function<void(const std::string&)> warn;
    };

    explicit Supervision(Settings settings) : m_settings(std::move(settings)) {}
    Supervision(const Supervision&) = delete;
    Supervision& operator=(const Supervision&) = delete;
    ~Supervision();

    /// Says so, and goes on telling in a thread of its own.
    void ready();
    void stopping();

  private:
    void run();
    void tellStatus();
    void feedWatchdog();

    Settings m_settings;
    std::optional<std::chrono::microseconds> m_watchdog;
    std::string m_told;  ///< the last status
    bool m_worked = true;

    std::mutex m_mutex;
    std::condition_variable m_news;
    bool m_ended = false;
    std::thread m_thread;
};

/// Whether the service that listens there answers a request, or under TLS at least turns down a client that
/// does not speak it. Waits a few seconds at most.
bool answers(const Endpoint& endpoint);

}  // namespace fiscorad
