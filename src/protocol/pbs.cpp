#include "protocol/pbs.h"

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

constexpr std::array<std::uint16_t, 256> makeTable() {
    std::array<std::uint16_t, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) table[byte] = crcOfByte(byte);
    return table;
}

}  // namespace

const std::string LIBRARY_VERSION = "1.1.4";

// constexpr, so that the table is made by the compiler and lies in read-only data.
constexpr std::array<std::uint16_t, 256> crc16tab = makeTable();

namespace {

/// The CRC `crc` after one byte more.
constexpr std::uint16_t crcBehind(unsigned crc, unsigned byte) {
    return static_cast<std::uint16_t>((crc << 8) ^ crc16tab[(crc >> 8) ^ byte]);
}

/// Bytes that `crcBehindBlock` takes at once. Their tables take 8 KiB, a part of a first-level cache.
constexpr std::size_t BLOCK = 16;

/// The CRC of each single byte with `zeros` zero bytes behind it: crc16tab for none.
constexpr std::array<std::array<std::uint16_t, 256>, BLOCK> makeZerosBehind() {
    std::array<std::array<std::uint16_t, 256>, BLOCK> tables{crc16tab};
    for (std::size_t zeros = 1; zeros < BLOCK; ++zeros)
        for (std::size_t byte = 0; byte < 256; ++byte)
            tables[zeros][byte] = crcBehind(tables[zeros - 1][byte], 0);
    return tables;
}
constexpr auto ZEROS_BEHIND = makeZerosBehind();

/// The CRC `crc` after BLOCK bytes more, numbered by I. A CRC that begins with 0 is linear: that of a block
/// is the exclusive or of those of its bytes, each with zeros in the place of the bytes behind it; and the
/// CRC so far acts as two bytes more in the place of the block's first two.
template <std::size_t... I>
std::uint16_t crcBehindBlock(unsigned crc, const unsigned char* block, std::index_sequence<I...>) {
    const unsigned ofBlock = (ZEROS_BEHIND[BLOCK - 1 - I][block[I]] ^ ...);
    return static_cast<std::uint16_t>(ofBlock ^ ZEROS_BEHIND[BLOCK - 1][crc >> 8] ^
                                      ZEROS_BEHIND[BLOCK - 2][crc & 0xff]);
}

}  // namespace

std::uint16_t crc16_ccitt(const void* data, int length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::size_t left = length > 0 ? static_cast<std::size_t>(length) : 0;
    std::uint16_t crc = 0;
    for (; left >= BLOCK; left -= BLOCK, bytes += BLOCK)
        crc = crcBehindBlock(crc, bytes, std::make_index_sequence<BLOCK>());
    for (; left > 0; --left, ++bytes) crc = crcBehind(crc, *bytes);
    return crc;
}

std::string to_string(int value) { return std::to_string(value); }

int readNumber(const std::string& text) {
    return static_cast<std::int32_t>(std::strtoll(text.c_str(), nullptr, 10));
}

}  // namespace pbs
