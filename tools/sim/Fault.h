#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace sim {

/// What the device puts on the line for one request.
struct Transmission {
    std::string bytes;    ///< at first the frame of the answer
    bool hangUp = false;  ///< the line hangs up behind the last byte
};

/// A way for the device to fail, and what the application then sees.
struct Fault {
    std::string_view name;
    int status;  ///< of the application's call, one of the FISCORA_... constants of fiscora.h
    std::string_view effect;
    void (*spoil)(Transmission& transmission);
};

/// All of them, in the order in which they are listed to the user.
const std::vector<Fault>& faults();
/// The one of that name, or null.
const Fault* findFault(std::string_view name);

/// A fault and the exchanges that it strikes.
struct FaultPlan {
    const Fault* fault;
    unsigned exchange;  ///< counted from 1; 0 for every one
};

}  // namespace sim
