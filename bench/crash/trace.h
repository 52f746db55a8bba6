#pragma once

#include <filesystem>

#include "crash/Shop.h"

namespace crash {

/// Looks at what reached the device, as `fiscora sim --trace` has printed it: no session number twice, and
/// after a document whose answer was lost only questions until one of them is answered. Counts calls and
/// faults.
void checkTrace(const std::filesystem::path& trace, Counter& counter);

}  // namespace crash
