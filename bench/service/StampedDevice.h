#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dispatcher/Equipment.h"
#include "fiscal/UCManipulaDadosSat.h"
#include "sim/SimulatedDevice.h"

/// A simulated device in this process, which answers after `latency` and remembers when each call began and
/// ended.
class StampedDevice : public fiscorad::Equipment {
  public:
    using Clock = std::chrono::steady_clock;
    struct Call {
        std::string operation;
        Clock::time_point began;
        Clock::time_point ended;
    };

    /// `serial`: nine digits.
    StampedDevice(const std::string& serial, std::chrono::milliseconds latency);

    std::optional<std::uint64_t> connection() override { return 1; }
    fiscorad::rules::Reply call(const manipulaDados::Operation& operation,
                                const std::vector<manipulaDados::Argument>& arguments) override;

    std::vector<Call> calls() const;
    /// When the device gave out the document with that access key.
    std::optional<Clock::time_point> answered(const std::string& accessKey) const;

  private:
    const std::chrono::milliseconds m_latency;
    manipulaDados::ManipulaDadosSat m_library;
    sim::SimulatedDevice m_device;
    mutable std::mutex m_mutex;
    std::vector<Call> m_calls;
    std::map<std::string, Clock::time_point> m_answered;
};
