#pragma once

#include <fstream>
#include <string>

/// Whether a file exists and can be written. Opens it for update and closes it, without creating or changing
/// it.
inline bool opensForUpdate(const std::string& path) {
    return std::fstream(path, std::ios::in | std::ios::out).is_open();
}
