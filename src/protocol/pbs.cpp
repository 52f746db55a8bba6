#include "protocol/pbs.h"

#include <cstdlib>

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

std::uint16_t crc16_ccitt(const void* data, int length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint16_t crc = 0;
    for (int i = 0; i < length; ++i)
        crc = static_cast<std::uint16_t>((crc << 8) ^
                                         crc16tab[static_cast<std::size_t>((crc >> 8) ^ bytes[i])]);
    return crc;
}

std::string to_string(int value) { return std::to_string(value); }

int readNumber(const std::string& text) {
    return static_cast<std::int32_t>(std::strtoll(text.c_str(), nullptr, 10));
}

}  // namespace pbs
