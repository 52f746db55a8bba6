#include "http/Workers.h"

#include <utility>

namespace fiscorad::http {

Workers::Workers(std::size_t threads) {
    for (std::size_t i = 0; i < threads; ++i) m_threads.emplace_back([this] { run(); });
}

void Workers::at(Clock::time_point when, Work work) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopped) return;
        m_due.emplace(when, std::move(work));
    }
    m_changed.notify_one();
}

void Workers::stop() {
    std::multimap<Clock::time_point, Work> dropped;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        dropped.swap(m_due);
    }
    m_changed.notify_all();
    for (std::thread& thread : m_threads) thread.join();
    m_threads.clear();
}

void Workers::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopped) {
        if (m_due.empty()) {
            m_changed.wait(lock);
        } else if (const auto when = m_due.begin()->first; when > Clock::now()) {
            m_changed.wait_until(lock, when);
        } else {
            auto next = m_due.extract(m_due.begin());
            lock.unlock();
            next.mapped()();
            next = {};  // what the work holds may want the lock when it goes
            lock.lock();
        }
    }
}

}  // namespace fiscorad::http
