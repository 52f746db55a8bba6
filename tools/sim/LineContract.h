#pragma once

// What `fiscora sim` and the library that it preloads into a program agree on.

namespace sim {

/// Environment variable with the path of the simulated line.
constexpr char LINE_VARIABLE[] = "FISCORA_SIM_LINE";

}  // namespace sim
