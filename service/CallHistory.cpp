#include "CallHistory.h"

#include <algorithm>

namespace fiscorad {
namespace {

constexpr std::size_t MOST = 50'000;
constexpr std::chrono::hours KEPT{24};

}  // namespace

void CallHistory::add(const LastCall& call) {
    const std::lock_guard lock(m_mutex);
    m_calls.push_back(call);
    while (m_calls.size() > MOST || m_calls.front().began < call.began - KEPT) m_calls.pop_front();
}

std::vector<LastCall> CallHistory::since(Time since) const {
    const std::lock_guard lock(m_mutex);
    const auto first = std::find_if(m_calls.begin(), m_calls.end(),
                                    [&](const LastCall& call) { return call.began >= since; });
    return {first, m_calls.end()};
}

}  // namespace fiscorad
