#include "encoding/Base64.h"

#include <cctype>

const std::string Base64::base64_chars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool Base64::is_base64(unsigned char byte) { return std::isalnum(byte) != 0 || byte == '+' || byte == '/'; }

std::string Base64::encode(const unsigned char* bytes, std::uint32_t length) {
    std::string text;
    text.reserve((length / 3 + 1) * std::size_t{4});
    for (std::uint32_t i = 0; i < length; i += 3) {
        const std::uint32_t left = length - i;
        const std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16 |
                                    (left > 1 ? static_cast<std::uint32_t>(bytes[i + 1]) << 8 : 0) |
                                    (left > 2 ? bytes[i + 2] : 0);
        text += base64_chars[group >> 18];
        text += base64_chars[group >> 12 & 0x3f];
        text += left > 1 ? base64_chars[group >> 6 & 0x3f] : '=';
        text += left > 2 ? base64_chars[group & 0x3f] : '=';
    }
    return text;
}

std::string Base64::decode(const std::string& text) {
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    std::uint32_t bits = 0;  // only the lowest 8 + 6 are ever read
    int bitCount = 0;
    for (const char character : text) {
        if (!is_base64(static_cast<unsigned char>(character))) break;
        // A letter of the locale's own that the alphabet does not have counts as npos, all bits set.
        bits = bits << 6 | (static_cast<std::uint32_t>(base64_chars.find(character)) & 0x3f);
        bitCount += 6;
        if (bitCount < 8) continue;
        bitCount -= 8;
        bytes += static_cast<char>(bits >> bitCount);
    }
    return bytes;
}
