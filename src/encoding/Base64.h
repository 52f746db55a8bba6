#pragma once

#include <cstdint>
#include <string>

/// Base64 with the alphabet of RFC 4648, section 4.
class Base64 {
  public:
    static const std::string base64_chars;  ///< the alphabet; a character's position is its value

    /// Whether a byte is "+", "/", or a letter or digit in the process's locale.
    static bool is_base64(unsigned char byte);
    /// Encodes `length` bytes, with padding, without line breaks.
    static std::string encode(const unsigned char* bytes, std::uint32_t length);
    /// Decodes `text` up to its end, its first "=" or its first foreign character (a line break, say). Never
    /// fails: padding may be missing, and a single character left over is dropped.
    static std::string decode(const std::string& text);
};
