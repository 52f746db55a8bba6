#pragma once

// What `fiscora sim` and the library that it preloads into a program agree on.

namespace sim {

/// Environment variable with the path of the simulated line. Its folder is locked (flock) as long as the
/// `fiscora sim` that made it lives.
constexpr char LINE_VARIABLE[] = "FISCORA_SIM_LINE";

}  // namespace sim
