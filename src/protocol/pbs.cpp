#include "protocol/pbs.h"

#include <array>
#include <cstdlib>
#include <utility>

namespace pbs {

namespace {

constexpr unsigned POLYNOMIAL = 0x1021;

constexpr std::uint16_t crcOfByte(unsigned byte) {
    unsigned crc = byte << 8;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) != 0 ? (crc << 1) ^ POLYNOMIAL : crc << 1;
    return static_cast<std::uint16_t>(crc);
}

}  // namespace

const std::string LIBRARY_VERSION = "1.1.4";

// The compiler computes the table into read-only data. No function can return a plain array, hence the
// macros.
#define CRCS_4(n) crcOfByte(n), crcOfByte((n) + 1), crcOfByte((n) + 2), crcOfByte((n) + 3)
#define CRCS_16(n) CRCS_4(n), CRCS_4((n) + 4), CRCS_4((n) + 8), CRCS_4((n) + 12)
#define CRCS_64(n) CRCS_16(n), CRCS_16((n) + 16), CRCS_16((n) + 32), CRCS_16((n) + 48)
constexpr std::uint16_t crc16tab[256] = {CRCS_64(0), CRCS_64(64), CRCS_64(128), CRCS_64(192)};

namespace {

/// Continues `crc` over one more byte.
constexpr std::uint16_t afterByte(unsigned crc, unsigned byte) {
    return static_cast<std::uint16_t>((crc << 8) ^ crc16tab[(crc >> 8) ^ byte]);
}

/// Bytes per step of `afterBlock`. Its tables take 8 KiB, a part of a first-level cache.
constexpr std::size_t BLOCK = 16;

/// By number of zeros: the CRC of each byte followed by that many zero bytes.
constexpr std::array<std::array<std::uint16_t, 256>, BLOCK> makeBeforeZeros() {
    std::array<std::array<std::uint16_t, 256>, BLOCK> tables{};
    for (std::size_t zeros = 0; zeros < BLOCK; ++zeros)
        for (std::size_t byte = 0; byte < 256; ++byte)
            tables[zeros][byte] = zeros == 0 ? crc16tab[byte] : afterByte(tables[zeros - 1][byte], 0);
    return tables;
}
constexpr auto BEFORE_ZEROS = makeBeforeZeros();

/// Continues `crc` over BLOCK bytes, numbered by I. A CRC that starts at 0 is linear: a block's CRC is the
/// exclusive or of the CRCs of its bytes, each followed by zeros in place of the rest of the block. `crc`
/// itself counts as two bytes on top of the block's first two.
template <std::size_t... I>
std::uint16_t afterBlock(unsigned crc, const unsigned char* block, std::index_sequence<I...>) {
    const unsigned ofBlock = (BEFORE_ZEROS[BLOCK - 1 - I][block[I]] ^ ...);
    return static_cast<std::uint16_t>(ofBlock ^ BEFORE_ZEROS[BLOCK - 1][crc >> 8] ^
                                      BEFORE_ZEROS[BLOCK - 2][crc & 0xff]);
}

}  // namespace

std::uint16_t crc16_ccitt(const void* data, int length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::size_t left = length > 0 ? static_cast<std::size_t>(length) : 0;
    std::uint16_t crc = 0;
    for (; left >= BLOCK; left -= BLOCK, bytes += BLOCK)
        crc = afterBlock(crc, bytes, std::make_index_sequence<BLOCK>());
    for (; left > 0; --left, ++bytes) crc = afterByte(crc, *bytes);
    return crc;
}

std::string to_string(int value) { return std::to_string(value); }

int readNumber(const std::string& text) {
    return static_cast<std::int32_t>(std::strtoll(text.c_str(), nullptr, 10));
}

}  // namespace pbs
