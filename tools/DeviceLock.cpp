#include "DeviceLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <iostream>
#include <thread>

#include "i18n.h"
#include "link/discovery.h"

namespace tool {
namespace {

constexpr std::chrono::milliseconds BETWEEN_TRIES{100};

}  // namespace

DeviceLock::DeviceLock(const std::string& program, std::chrono::seconds most) {
    const auto end = std::chrono::steady_clock::now() + most;
    const std::string node = serial::findDeviceNode();
    for (bool told = false; !node.empty() && !take(node); told = true) {
        if (m_state != State::Busy || std::chrono::steady_clock::now() >= end) return;
        if (!told)
            std::cerr << program << ": "
                      << tr("another program is talking to the device; waiting for it to finish")
                      << std::endl;
        std::this_thread::sleep_for(BETWEEN_TRIES);
    }
}

bool DeviceLock::take(const std::string& node) {
    // Opened anew for each try, since the device may have been plugged in again; for reading only, so that
    // nothing printed can reach it; without waiting for a carrier.
    m_node = tool::Descriptor(open(node.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (m_node.get() < 0)
        m_state = State::NoDevice;
    else
        m_state = flock(m_node.get(), LOCK_EX | LOCK_NB) == 0 ? State::Held : State::Busy;
    return m_state == State::Held;
}

}  // namespace tool
