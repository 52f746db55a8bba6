#pragma once

#include <fstream>
#include <string>

/// Whether a file is there and can be written. It is opened for update and closed again, and neither made nor
/// changed.
inline bool opensForUpdate(const std::string& path) {
    return std::fstream(path, std::ios::in | std::ios::out).is_open();
}
