#pragma once

#include <bitset>
#include <string>
#include <string_view>

// Rules that the library applies to several bytes at once, written out bit by bit.

/// CRC-16/XMODEM (polynomial 0x1021, initial value 0).
inline int plainCrc(std::string_view bytes) {
    unsigned crc = 0;
    for (const char byte : bytes)
        for (int bit = 7; bit >= 0; --bit) {
            const bool one = ((crc >> 15) & 1) != (static_cast<unsigned>(byte) >> bit & 1);
            crc = ((crc << 1) ^ (one ? 0x1021 : 0)) & 0xffff;
        }
    return static_cast<int>(crc);
}

inline const std::string BASE64_ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Decodes Base64 text up to its first character outside the alphabet.
inline std::string plainlyDecoded(const std::string& text) {
    std::string bits, bytes;
    for (const char character : text.substr(0, text.find_first_not_of(BASE64_ALPHABET)))
        bits += std::bitset<6>(BASE64_ALPHABET.find(character)).to_string();
    for (std::size_t i = 0; i + 8 <= bits.size(); i += 8)
        bytes += static_cast<char>(std::bitset<8>(bits, i, 8).to_ulong());
    return bytes;
}
