#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace fiscorad {

/// Who is signed in on the page. In memory only: after a restart of the service, everybody must sign in
/// again. Safe for threads.
class Sessions {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::hours LIFE{12};
    static constexpr std::chrono::hours IDLE{1};

    explicit Sessions(std::function<Clock::time_point()> now = [] { return Clock::now(); })
        : m_now(std::move(now)) {}

    /// Opens a session for the token with that hash, and returns the cookie's value. At most 100 sessions
    /// are open; another one takes the place of the one unused for longest.
    std::string open(const std::string& tokenHash);
    /// The hash of the token that the session is for; none if it has ended.
    std::optional<std::string> find(const std::string& cookie);
    void close(const std::string& cookie);

  private:
    struct Session {
        std::string tokenHash;
        Clock::time_point openedAt;
        Clock::time_point usedAt;
    };
    void removeEnded();

    std::function<Clock::time_point()> m_now;
    std::mutex m_mutex;
    std::map<std::string, Session> m_sessions;  ///< by the hash of the cookie's value
};

}  // namespace fiscorad
