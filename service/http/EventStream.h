#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace fiscorad::http {

/// The events that one reader has not read yet. Safe for threads.
class EventStream {
  public:
    using Event = std::shared_ptr<const std::string>;

    /// Adds an event. A reader who leaves too much unread is cut off: it may come back and ask for the
    /// present state.
    void push(Event event);
    /// Nothing more comes.
    void end();

    /// Copies up to `size` bytes, at least one; none if the stream has ended. If there is nothing to copy, 0:
    /// `sleep` has been called then, and `wake` will be called once there is. Neither may come back here.
    std::optional<std::size_t> read(char* bytes, std::size_t size, const std::function<void()>& sleep,
                                    std::function<void()> wake);

  private:
    static constexpr std::size_t UNREAD_BYTES_AT_MOST = std::size_t{256} * 1024;
    void wakeReader();

    std::mutex m_mutex;
    std::deque<Event> m_unread;
    std::size_t m_unreadBytes = 0;
    std::size_t m_read = 0;  ///< bytes of the first one
    bool m_ended = false;
    std::function<void()> m_wake;  ///< set while the reader sleeps
};

}  // namespace fiscorad::http
