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

    /// A number for the terminal on which the device is now; another one as soon as it was unplugged or
    /// another device came. None while there is no device, or while another program owns it.
    virtual std::optional<std::uint64_t> connection() = 0;
    /// Makes one call. The arguments are the operation's; the session number stands first.
    virtual rules::Reply call(const manipulaDados::Operation& operation,
                              const std::vector<manipulaDados::Argument>& arguments) = 0;
};

}  // namespace fiscorad
