#include "encoding/Base64.h"

#include <endian.h>

#include <array>
#include <cctype>
#include <cstring>
#include <new>
#include <string_view>

namespace {

constexpr std::string_view ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Quads per append: their text stays in a first-level cache.
constexpr std::size_t BLOCK_QUADS = 256;

/// The two characters of each 12 bits.
using Pair = std::array<char, 2>;
constexpr std::array<Pair, 4096> makePairs() {
    std::array<Pair, 4096> pairs{};
    for (std::size_t bits = 0; bits < pairs.size(); ++bits)
        pairs[bits] = {ALPHABET[bits >> 6], ALPHABET[bits & 0x3f]};
    return pairs;
}
constexpr auto PAIRS = makePairs();

/// Marks a byte outside the alphabet in VALUES, by a bit that no share of a quad uses.
constexpr std::uint32_t FOREIGN = 1U << 24;

/// The value of each byte, shifted to its place as the first, second, third or fourth of a quad.
constexpr std::array<std::array<std::uint32_t, 256>, 4> makeValues() {
    std::array<std::array<std::uint32_t, 256>, 4> values{};
    for (std::size_t place = 0; place < 4; ++place) {
        for (auto& value : values[place]) value = FOREIGN;
        for (std::uint32_t value = 0; value < ALPHABET.size(); ++value)
            values[place][static_cast<unsigned char>(ALPHABET[value])] = value << (18 - 6 * place);
    }
    return values;
}
constexpr auto VALUES = makeValues();

/// Appends the text of groups of six bytes. Each step reads eight bytes, so a few are left at the end.
/// Returns the number of bytes taken.
std::size_t encodeSixes(std::string& text, const unsigned char* bytes, std::size_t length) {
    std::array<char, 4 * BLOCK_QUADS> block;
    std::size_t taken = 0;
    while (length - taken >= 8) {
        std::size_t used = 0;
        for (; used < block.size() && length - taken >= 8; used += 8, taken += 6) {
            std::uint64_t bits = 0;
            std::memcpy(&bits, bytes + taken, sizeof bits);
            bits = be64toh(bits);
            std::memcpy(&block[used], &PAIRS[bits >> 52], sizeof(Pair));
            std::memcpy(&block[used + 2], &PAIRS[bits >> 40 & 0xfff], sizeof(Pair));
            std::memcpy(&block[used + 4], &PAIRS[bits >> 28 & 0xfff], sizeof(Pair));
            std::memcpy(&block[used + 6], &PAIRS[bits >> 16 & 0xfff], sizeof(Pair));
        }
        text.append(block.data(), used);
    }
    return taken;
}

/// Appends the bytes of the quads before the first foreign byte; returns the number of characters taken. The
/// plain rule decodes the rest, and would decode these quads the same.
std::size_t decodeQuads(std::string& bytes, const std::string& text) {
    std::array<char, 3 * BLOCK_QUADS> block;
    const auto* const characters = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t taken = 0;
    for (bool isClean = true; isClean && text.size() - taken >= 4;) {
        std::size_t used = 0;
        for (; used < block.size() && text.size() - taken >= 4; used += 3, taken += 4) {
            const unsigned char* const quad = characters + taken;
            const std::uint32_t bits =
                VALUES[0][quad[0]] | VALUES[1][quad[1]] | VALUES[2][quad[2]] | VALUES[3][quad[3]];
            isClean = (bits & FOREIGN) == 0;
            if (!isClean) break;
            block[used] = static_cast<char>(bits >> 16);
            block[used + 1] = static_cast<char>(bits >> 8);
            block[used + 2] = static_cast<char>(bits);
        }
        bytes.append(block.data(), used);
    }
    return taken;
}

}  // namespace

// Base64::base64_chars, by its name in the C++ ABI and as bytes, so that nothing destroys it at exit. If a
// program has such a member in a class of its own, the dynamic linker makes one object of both, and
// destroying it twice would crash that program. For the same reason the functions below read ALPHABET.
alignas(std::string) extern unsigned char base64Chars[sizeof(std::string)] __asm__(
    "_ZN6Base6412base64_charsB5cxx11E");
alignas(std::string) unsigned char base64Chars[sizeof(std::string)];

namespace {
/// Keeps the text reachable for leak checkers if such a program has put its own in the object.
__attribute__((used)) const char* const allocated = (new (base64Chars) std::string(ALPHABET))->data();
}  // namespace

bool Base64::is_base64(unsigned char byte) { return std::isalnum(byte) != 0 || byte == '+' || byte == '/'; }

std::string Base64::encode(const unsigned char* bytes, std::uint32_t length) {
    std::string text;
    text.reserve((length / 3 + 1) * std::size_t{4});
    for (std::size_t i = encodeSixes(text, bytes, length); i < length; i += 3) {
        const std::uint32_t left = length - i;
        const std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16 |
                                    (left > 1 ? static_cast<std::uint32_t>(bytes[i + 1]) << 8 : 0) |
                                    (left > 2 ? bytes[i + 2] : 0);
        text += ALPHABET[group >> 18];
        text += ALPHABET[group >> 12 & 0x3f];
        text += left > 1 ? ALPHABET[group >> 6 & 0x3f] : '=';
        text += left > 2 ? ALPHABET[group & 0x3f] : '=';
    }
    return text;
}

std::string Base64::decode(const std::string& text) {
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    std::uint32_t bits = 0;  // only the lowest 8 + 6 are ever read
    int bitCount = 0;
    for (std::size_t i = decodeQuads(bytes, text); i < text.size(); ++i) {
        const char character = text[i];
        if (!is_base64(static_cast<unsigned char>(character))) break;
        // A letter of the locale that is not in the alphabet counts as npos, all bits set.
        bits = bits << 6 | (static_cast<std::uint32_t>(ALPHABET.find(character)) & 0x3f);
        bitCount += 6;
        if (bitCount < 8) continue;
        bitCount -= 8;
        bytes += static_cast<char>(bits >> bitCount);
    }
    return bytes;
}
