#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <vector>

#include "dispatcher/device_state.h"

namespace fiscorad {

/// The device's calls of the last day, in memory. Safe for threads.
class CallHistory {
  public:
    /// Drops what is older than a day, and the oldest of more than 50,000.
    void add(const LastCall& call);
    /// Those that began at `since` or later, oldest first.
    std::vector<LastCall> since(Time since) const;

  private:
    mutable std::mutex m_mutex;
    std::deque<LastCall> m_calls;
};

}  // namespace fiscorad
