#pragma once

#include "program/Settings.h"

namespace fiscorad {

/// Serves tills until SIGTERM or SIGINT; a second one ends the process at once. Returns the exit status.
/// Throws std::runtime_error with one line for the user if it cannot start.
int serve(const Settings& settings);

}  // namespace fiscorad
