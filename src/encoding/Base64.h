#pragma once

#include <cstdint>
#include <string>

/// Base64 with the alphabet of RFC 4648, section 4.
class Base64 {
  public:
    static const std::string base64_chars;  ///< the alphabet; a character's position is its value

    /// Whether a byte is a letter or digit in the process's locale, "+" or "/".
    static bool is_base64(unsigned char byte);
    /// The text of `length` bytes, padded, without line breaks.
    static std::string encode(const unsigned char* bytes, std::uint32_t length);
    /// The bytes of `text` up to its end, its first "=" or its first foreign character (line breaks
    /// included). Never fails: missing padding is no error, and a single character left over is dropped.
    static std::string decode(const std::string& text);
};
