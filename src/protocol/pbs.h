#pragma once

#include <cstdint>
#include <string>

namespace pbs {

/// Version of the message protocol implemented here. Not the driver's version, and not sent in any frame.
extern const std::string LIBRARY_VERSION;

/// CRC-16/XMODEM of each single byte: polynomial 0x1021, most significant bit first.
extern const std::uint16_t crc16tab[256];

/// CRC-16/XMODEM (polynomial 0x1021, initial value 0, nothing reflected, nothing inverted) of `length` bytes
/// at `data`; 0x31C3 over the nine ASCII bytes "123456789". A length below 1 gives 0, and `data` is not read.
std::uint16_t crc16_ccitt(const void* data, int length);

/// Decimal text of `value`, the form of every number in a frame: no leading zeros, no grouping, "-" before a
/// negative one.
std::string to_string(int value);

/// Reads a number as strtoll does in base 10 (skips leading white space, takes one sign, stops at the first
/// non-digit, 0 if there are no digits) and keeps its low 32 bits.
int readNumber(const std::string& text);

}  // namespace pbs
