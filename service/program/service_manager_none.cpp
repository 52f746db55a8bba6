// Built if systemd's library is missing.
#include "program/service_manager.h"

namespace fiscorad::service_manager {

bool tell(const std::string& /*state*/) { return false; }

std::optional<std::chrono::microseconds> watchdogInterval() { return std::nullopt; }

}  // namespace fiscorad::service_manager
