#pragma once

#include <cstddef>

namespace manipulaDados {

/// The longest answer in bytes, FISCORA_ANSWER_MAX_BYTES of fiscora.h. The classes' headers do without
/// fiscora.h, so that a program may include them beside its own prototypes of the flat functions.
constexpr std::size_t ANSWER_MAX_BYTES = 1572864;

}  // namespace manipulaDados
