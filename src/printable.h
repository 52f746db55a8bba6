#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

/// `text` with "?" in place of each control character: C0, DEL and C1, the last as a byte of its own or in
/// UTF-8. Safe to print on a terminal and to write on one line. Other bytes stay as they are.
__attribute__((visibility("hidden"))) inline std::string printable(std::string_view text) {
    const auto isContinuation = [](unsigned char byte) { return byte >= 0x80 && byte < 0xC0; };
    const auto isC1 = [](unsigned char byte) { return byte >= 0x80 && byte < 0xA0; };
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto lead = static_cast<unsigned char>(text[0]);
        const std::size_t length = lead < 0xC2 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 1;
        // The bytes from 0x80 to 0x9F are controls, except within a character of several bytes.
        const bool isWhole =
            text.size() >= length &&
            std::all_of(text.begin() + 1, text.begin() + static_cast<long>(length), isContinuation);
        const std::size_t taken = isWhole ? length : 1;
        const bool isControl = lead < 0x20 || lead == 0x7F || isC1(lead) ||
                               (lead == 0xC2 && taken == 2 && isC1(static_cast<unsigned char>(text[1])));
        if (isControl)
            result += '?';
        else
            result.append(text.substr(0, taken));
        text.remove_prefix(taken);
    }
    return result;
}
