#include "Changes.h"

#include <utility>

namespace fiscorad {

Changes::Subscription::Subscription(Subscription&& other) noexcept
    : m_changes(std::exchange(other.m_changes, nullptr)), m_number(other.m_number) {}

Changes::Subscription& Changes::Subscription::operator=(Subscription&& other) noexcept {
    std::swap(m_changes, other.m_changes);
    std::swap(m_number, other.m_number);
    return *this;
}

Changes::Subscription::~Subscription() {
    if (m_changes != nullptr) m_changes->remove(m_number);
}

Changes::Subscription Changes::watch(std::int64_t document, DocumentListener listener) {
    const std::lock_guard lock(m_mutex);
    m_one[document].emplace(++m_last, std::move(listener));
    return {*this, m_last};
}

Changes::Subscription Changes::watchAll(DocumentListener documents, DeviceListener device) {
    const std::lock_guard lock(m_mutex);
    m_all.emplace(++m_last, Listener{std::move(documents), std::move(device)});
    return {*this, m_last};
}

void Changes::publish(const Document& document) {
    const std::lock_guard lock(m_mutex);
    if (const auto found = m_one.find(document.id); found != m_one.end())
        for (const auto& [number, listener] : found->second) listener(document);
    for (const auto& [number, listener] : m_all) listener.documents(document);
}

void Changes::publishDevice() {
    const std::lock_guard lock(m_mutex);
    for (const auto& [number, listener] : m_all) listener.device();
}

void Changes::remove(std::uint64_t number) {
    const std::lock_guard lock(m_mutex);
    if (m_all.erase(number) != 0) return;
    for (auto one = m_one.begin(); one != m_one.end(); ++one) {
        if (one->second.erase(number) == 0) continue;
        if (one->second.empty()) m_one.erase(one);
        return;
    }
}

}  // namespace fiscorad
