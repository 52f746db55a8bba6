#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace fiscorad {

/// `text` in zlib's format (RFC 1950). `dictionary` is a text that it resembles: a signed document repeats
/// what was sent, so half of it need not be kept again. Throws JournalError if memory runs out.
std::string pack(std::string_view text, std::string_view dictionary = {});
/// The text of `size` bytes that was packed with that dictionary, byte for byte. Throws JournalError if
/// `packed` is damaged.
std::string unpack(std::string_view packed, std::size_t size, std::string_view dictionary = {});

}  // namespace fiscorad
