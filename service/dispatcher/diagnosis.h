#pragma once

#include <string>

namespace fiscorad {

/// What `fiscora doctor --json` prints, in Portuguese, run as this service's own user; nothing is sent to the
/// device. Takes a second or so, 15 s at most. Throws std::runtime_error if it cannot be run.
std::string diagnose();

}  // namespace fiscorad
