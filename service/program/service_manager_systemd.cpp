#include <systemd/sd-daemon.h>

#include "program/service_manager.h"

namespace fiscorad::service_manager {

bool tell(const std::string& state) { return sd_notify(0, state.c_str()) > 0; }

std::optional<std::chrono::microseconds> watchdogInterval() {
    std::uint64_t microseconds = 0;
    if (sd_watchdog_enabled(0, &microseconds) <= 0) return std::nullopt;
    return std::chrono::microseconds(microseconds);
}

}  // namespace fiscorad::service_manager
