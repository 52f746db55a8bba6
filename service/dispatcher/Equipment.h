#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "fiscal/UCManipulaDadosSat.h"
#include "rules/rules.h"

namespace fiscorad {

/// The device as the dispatcher reaches it.
class Equipment {
  public:
    virtual ~Equipment() = default;

    /// A number for the terminal that the device is on now; it changes when the device is unplugged or
    /// another one takes its place. None while there is no device, or while another program owns it.
    virtual std::optional<std::uint64_t> connection() = 0;
    /// Makes one call. The arguments are the operation's; the session number comes first.
    virtual rules::Reply call(const manipulaDados::Operation& operation,
                              const std::vector<manipulaDados::Argument>& arguments) = 0;
};

}  // namespace fiscorad
