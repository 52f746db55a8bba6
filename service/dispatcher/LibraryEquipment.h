#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "Descriptor.h"
#include "dispatcher/Equipment.h"
#include "fiscal/UCManipulaDadosSat.h"

namespace fiscorad {

/// The real device, through the library. It owns the device from when it is found until it is unplugged: a
/// lock (flock) on the device's node, which `fiscora call` and other services respect. Not safe for threads.
class LibraryEquipment : public Equipment {
  public:
    std::optional<std::uint64_t> connection() override;
    rules::Reply call(const manipulaDados::Operation& operation,
                      const std::vector<manipulaDados::Argument>& arguments) override;

  private:
    bool isStillThere() const;

    manipulaDados::ManipulaDadosSat m_library;
    tool::Descriptor m_terminal;  ///< held open: until it is closed, no other device gets its number
    timespec m_linksChanged{};    ///< the folder of links when the device was searched for
    std::uint64_t m_number = 0;
};

}  // namespace fiscorad
