#pragma once

#include <chrono>
#include <optional>
#include <string>

/// The system's service manager, if one has started this process.
namespace fiscorad::service_manager {

/// Tells it `state`, lines of NAME=VALUE as in sd_notify(3). False if there is none.
bool tell(const std::string& state);
/// How often at least it wants to hear WATCHDOG=1.
std::optional<std::chrono::microseconds> watchdogInterval();

}  // namespace fiscorad::service_manager
