#pragma once

#include <chrono>
#include <string>

#include "Descriptor.h"

namespace tool {

/// The right to talk to the device, for the length of a call: two calls at the same time would take each
/// other's answers. It is a lock (flock) on the device's node, so it holds for all users of the machine, goes
/// when its program ends, and can be taken by other programs, such as flock(1), as well.
class DeviceLock {
  public:
    enum class State {
        Held,
        Busy,     ///< others held it all the time
        NoDevice  ///< there is no device, or this user may not open it: the call itself will tell
    };

    /// Waits up to `most` for its turn; `program` says so on standard error.
    DeviceLock(const std::string& program, std::chrono::seconds most);

    State state() const { return m_state; }

  private:
    bool take(const std::string& node);

    tool::Descriptor m_node;
    State m_state = State::NoDevice;
};

}  // namespace tool
