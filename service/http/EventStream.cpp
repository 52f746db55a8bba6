#include "http/EventStream.h"

#include <utility>

namespace fiscorad::http {

void EventStream::push(Event event) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ended) return;
    m_unreadBytes += event->size();
    m_unread.push_back(std::move(event));
    if (m_unreadBytes > UNREAD_BYTES_AT_MOST) m_ended = true;
    if (m_ended) m_unread.clear();
    wakeReader();
}

void EventStream::end() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_ended = true;
    wakeReader();
}

std::optional<std::size_t> EventStream::read(char* bytes, std::size_t size,
                                             const std::function<void()>& sleep, std::function<void()> wake) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_unread.empty() && m_ended) return std::nullopt;
    if (m_unread.empty()) {
        sleep();
        m_wake = std::move(wake);
        return 0;
    }
    const std::string& event = *m_unread.front();
    const std::size_t copied = event.copy(bytes, size, m_read);
    m_read += copied;
    m_unreadBytes -= copied;
    if (m_read == event.size()) {
        m_unread.pop_front();
        m_read = 0;
    }
    return copied;
}

void EventStream::wakeReader() {
    if (const auto wake = std::exchange(m_wake, nullptr)) wake();
}

}  // namespace fiscorad::http
