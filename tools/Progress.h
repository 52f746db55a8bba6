#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace tool {

/// Shows on the terminal, from the third second on, how long a call has taken and may take. Shows
/// nothing if output is piped.
class Progress {
  public:
    Progress(std::string name, std::chrono::milliseconds limit);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    /// Wipes what was shown.
    ~Progress();

  private:
    void show();

    std::string m_name;
    std::chrono::milliseconds m_limit;
    std::mutex m_mutex;
    std::condition_variable m_ending;
    bool m_ended = false;
    std::thread m_thread;
};

}  // namespace tool
