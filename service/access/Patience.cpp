#include "access/Patience.h"

#include <algorithm>

namespace fiscorad {
namespace {

constexpr std::chrono::milliseconds FIRST{250};
constexpr int DOUBLED_AT_MOST = 5;
constexpr std::chrono::minutes REMEMBERED{5};
constexpr std::size_t MOST = 1000;

}  // namespace

std::chrono::milliseconds Patience::afterWrong(const std::string& address, Clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    for (auto failures = m_failures.begin(); failures != m_failures.end();)
        failures =
            now - failures->second.last > REMEMBERED ? m_failures.erase(failures) : std::next(failures);
    const auto known = m_failures.find(address);
    // With that many addresses remembered, a new one waits the maximum.
    if (known == m_failures.end() && m_failures.size() >= MOST) return FIRST * (1 << DOUBLED_AT_MOST);
    Failures& failures = m_failures[address];
    failures.last = now;
    return FIRST * (1 << std::min(failures.count++, DOUBLED_AT_MOST));
}

}  // namespace fiscorad
