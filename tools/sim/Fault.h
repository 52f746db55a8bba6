#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/Message.h"

namespace sim {

class SimulatedDevice;

/// Bytes that go out together.
struct Piece {
    std::string bytes;                    ///< at least one
    std::chrono::milliseconds before{0};  ///< since the piece before, or since the request
};

/// What the device puts on the line for one request.
struct Transmission {
    std::vector<Piece> pieces;
    bool hangUp = false;                ///< the line hangs up after the last byte
    std::chrono::milliseconds gone{0};  ///< how long the line then cannot be opened
    bool held = false;                  ///< another request does not end it
};

/// Between two answers, so that the library reads each separately: longer than its pause of 100 ms after a
/// request.
inline constexpr std::chrono::milliseconds BETWEEN_ANSWERS{300};

/// An exchange that a fault spoils.
struct Exchange {
    const pbs::Message& answer;        ///< the device's own, compressed
    const std::string& previousFrame;  ///< of the previous answer; empty at the first exchange
    unsigned number;                   ///< of bad answers or seconds, for kinds of fault that take one
};

/// What the application reads when the call is over.
enum class Answer {
    None,
    Own,         ///< the device's own, as without the fault
    Late,        ///< none; but a later call of the same operation may get it
    Previous,    ///< of the exchange before, if both are of the same operation
    Compressed,  ///< the body as it came
    BadCode,     ///< the device's own, without the first digit of field 1
    Busy,        ///< a refusal whose field 1 ends in 098
    Hostile,     ///< the device's own, with control characters after the text of field 2
};

/// The answer of a device that works.
std::string answerOf(SimulatedDevice& device, const std::string& operation, const std::string& request);

/// A way for the device to fail, and what the application then sees.
struct Fault {
    std::string_view name;
    const char* measure;  ///< name of the number that a plan may give, in English; null: it takes none
    unsigned number;      ///< if a plan gives none
    int status;           ///< of the application's call, one of the FISCORA_... constants of fiscora.h
    Answer answer;        ///< in the result of that call
    const char* effect;   ///< in English, as is `advice`; tools/po/ has the translations
    const char* advice;   ///< to the application's programmer
    /// What goes out in place of the answer. Null: nothing, the line hangs up at the request's first bytes.
    Transmission (*spoil)(const Exchange& exchange);
    /// The device's own answer; does with the request what the device does under this fault.
    std::string (*serve)(SimulatedDevice& device, const std::string& operation,
                         const std::string& request) = answerOf;
};

/// All of them, in the order in which they are listed to the user.
const std::vector<Fault>& faults();
/// The one of that name, or null.
const Fault* findFault(std::string_view name);

/// A fault and the exchanges that it spoils.
struct FaultPlan {
    const Fault* fault;
    unsigned number;        ///< as in `Exchange`
    unsigned exchange = 0;  ///< counted from 1; 0 for every one
    unsigned percent = 0;   ///< of all exchanges, at random, 1 to 100; 0: `exchange` counts
};

}  // namespace sim
