#include "service/StampedDevice.h"

#include <thread>

#include "fields.h"
#include "fiscal/operations.h"
#include "fiscora.h"

namespace {

constexpr std::size_t ACCESS_KEY = 8;  ///< field of the answer to a sale

sim::DeviceSettings settingsOf(const std::string& serial) {
    sim::DeviceSettings settings;
    settings.serialNumber = serial;
    return settings;
}

}  // namespace

StampedDevice::StampedDevice(const std::string& serial, std::chrono::milliseconds latency)
    : m_latency(latency), m_device(settingsOf(serial)) {}

fiscorad::rules::Reply StampedDevice::call(const manipulaDados::Operation& operation,
                                           const std::vector<manipulaDados::Argument>& arguments) {
    const auto began = Clock::now();
    const auto request = m_library.makeRequest(operation, arguments);
    if (!request) return {FISCORA_STATUS_BAD_REQUEST, 0, ""};
    const std::string answer = m_device.answer(operation.command, *request);
    std::this_thread::sleep_for(m_latency);
    const auto ended = Clock::now();

    const std::lock_guard lock(m_mutex);
    m_calls.push_back({operation.command, began, ended});
    if (operation.effect == manipulaDados::Effect::Books) {
        const auto fields = fieldsOf(answer);
        if (fields.size() > ACCESS_KEY) m_answered.emplace(fields[ACCESS_KEY], ended);
    }
    return {FISCORA_STATUS_OK, 0, answer};
}

std::vector<StampedDevice::Call> StampedDevice::calls() const {
    const std::lock_guard lock(m_mutex);
    return m_calls;
}

std::optional<StampedDevice::Clock::time_point> StampedDevice::answered(const std::string& accessKey) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_answered.find(accessKey);
    return found == m_answered.end() ? std::nullopt : std::optional(found->second);
}
