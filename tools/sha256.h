#pragma once

#include <string>
#include <string_view>

namespace tool {

/// SHA-256 (FIPS 180-4) of `bytes`: 64 digits of lower-case hexadecimal.
std::string sha256(std::string_view bytes);
/// `bytes` in lower-case hexadecimal.
std::string hexadecimal(std::string_view bytes);

}  // namespace tool
