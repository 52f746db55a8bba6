#pragma once

#include <filesystem>
#include <string>

namespace sim {

/// PATH, or what shells take in its place.
std::string searchPath();

/// Path of the program that a shell would run for `name`: the first one on the search path that can be
/// executed, else the first one. Empty if there is none.
std::filesystem::path findProgram(const std::string& name);

/// Whether the program gains privileges when it starts. The guard would keep them from it, and it might fail
/// in a way that nobody understands.
bool raisesPrivileges(const std::filesystem::path& program);

}  // namespace sim
