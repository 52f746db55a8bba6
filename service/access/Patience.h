#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace fiscorad {

/// How long an address that shows wrong tokens waits for its answer: longer each time. Right ones never
/// wait. Safe for threads.
class Patience {
  public:
    using Clock = std::chrono::steady_clock;

    /// One more wrong token from there: how long to wait with the answer, from 250 ms to 8 s.
    std::chrono::milliseconds afterWrong(const std::string& address, Clock::time_point now);

  private:
    struct Failures {
        int count = 0;
        Clock::time_point last;
    };
    std::mutex m_mutex;
    std::map<std::string, Failures> m_failures;  ///< of the last minutes, at most 1000 addresses
};

}  // namespace fiscorad
