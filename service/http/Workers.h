#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace fiscorad::http {

/// A few threads for work that may block, such as disk access, so that the network's thread never does; also
/// for work due at a given time. Safe for threads.
class Workers {
  public:
    using Clock = std::chrono::steady_clock;
    using Work = std::function<void()>;

    explicit Workers(std::size_t threads);
    ~Workers() { stop(); }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    /// `work` throws nothing. In the order in which they are posted.
    void post(Work work) { at(Clock::now(), std::move(work)); }
    /// Ahead of everything that is queued.
    void postFirst(Work work) { at(Clock::time_point::min(), std::move(work)); }
    /// Not before `when`.
    void at(Clock::time_point when, Work work);
    /// Waits for what is running, and drops the rest.
    void stop();

  private:
    void run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::multimap<Clock::time_point, Work> m_due;
    bool m_stopped = false;
    std::vector<std::thread> m_threads;
};

}  // namespace fiscorad::http
