#include "access/Sessions.h"

#include <algorithm>

#include "access/Token.h"

namespace fiscorad {
namespace {

constexpr std::size_t MOST = 100;

}  // namespace

std::string Sessions::open(const std::string& tokenHash) {
    std::string cookie = newSecret();
    const std::lock_guard lock(m_mutex);
    removeEnded();
    if (m_sessions.size() >= MOST) {
        const auto usedLessRecently = [](const auto& left, const auto& right) {
            return left.second.usedAt < right.second.usedAt;
        };
        m_sessions.erase(std::min_element(m_sessions.begin(), m_sessions.end(), usedLessRecently));
    }
    m_sessions[hashOf(cookie)] = {tokenHash, m_now(), m_now()};
    return cookie;
}

std::optional<std::string> Sessions::find(const std::string& cookie) {
    const std::lock_guard lock(m_mutex);
    removeEnded();
    const auto session = m_sessions.find(hashOf(cookie));
    if (session == m_sessions.end()) return std::nullopt;
    session->second.usedAt = m_now();
    return session->second.tokenHash;
}

void Sessions::close(const std::string& cookie) {
    const std::lock_guard lock(m_mutex);
    m_sessions.erase(hashOf(cookie));
}

void Sessions::removeEnded() {
    const auto now = m_now();
    for (auto session = m_sessions.begin(); session != m_sessions.end();) {
        const bool ended = now - session->second.openedAt > LIFE || now - session->second.usedAt > IDLE;
        session = ended ? m_sessions.erase(session) : std::next(session);
    }
}

}  // namespace fiscorad
