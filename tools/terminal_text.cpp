#include "terminal_text.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <cstdint>

namespace tool {
namespace {

/// A character at the front of a text.
struct Character {
    std::size_t bytes = 1;
    bool isUtf8 = false;
    std::uint32_t code = 0;  ///< of Unicode, if it is UTF-8
};

/// UTF-8 by RFC 3629: no overlong form, no surrogate, nothing beyond U+10FFFF. Unicode's noncharacters do not
/// count either, because XML cannot contain them.
Character first(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80) return {1, true, lead};
    const std::size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < bytes) return {};
    std::uint32_t code = lead & (0x7FU >> bytes);
    for (std::size_t i = 1; i < bytes; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0U) != 0x80) return {};
        code = code << 6U | (byte & 0x3FU);
    }
    constexpr std::uint32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < LEAST[bytes] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF) ||
        (code & 0xFFFEU) == 0xFFFE)
        return {};
    return {bytes, true, code};
}

/// The blanks that fill `text` up to `columns`.
std::string blanks(std::string_view text, std::size_t columns) {
    return std::string(columns - std::min(columns, width(text)), ' ');
}

bool isControl(std::uint32_t code) { return code < 0x20 || (code >= 0x7F && code < 0xA0); }

/// The offset of the character at column `columns`; the size of `text` if it is shorter.
std::size_t offsetOf(std::string_view text, std::size_t columns) {
    std::size_t offset = 0;
    for (; columns > 0 && offset < text.size(); --columns) offset += first(text.substr(offset)).bytes;
    return offset;
}

}  // namespace

std::size_t terminalColumns(int fd) {
    winsize size{};
    return ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : TERMINAL_COLUMNS;
}

std::string withoutControls(std::string_view text,
                            const std::function<std::string(std::string_view bytes)>& replace) {
    std::string result;
    while (!text.empty()) {
        const Character character = first(text);
        const std::string_view bytes = text.substr(0, character.bytes);
        if (character.isUtf8 && !isControl(character.code))
            result += bytes;
        else
            result += replace(bytes);
        text.remove_prefix(character.bytes);
    }
    return result;
}

std::string withoutControls(std::string_view text) {
    return withoutControls(text, [](std::string_view bytes) { return bytes == "\n" ? " " : "?"; });
}

std::string toUtf8(std::string_view text) {
    std::size_t good = 0;
    while (good < text.size()) {
        const Character character = first(text.substr(good));
        if (!character.isUtf8) break;
        good += character.bytes;
    }
    if (good == text.size()) return std::string(text);
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80) result += static_cast<char>(0xC0U | byte >> 6U);
        result += byte < 0x80 ? c : static_cast<char>(0x80U | (byte & 0x3FU));
    }
    return result;
}

std::size_t width(std::string_view text) {
    std::size_t columns = 0;
    for (; !text.empty(); ++columns) text.remove_prefix(first(text).bytes);
    return columns;
}

std::string leftAligned(std::string_view text, std::size_t columns) {
    return std::string(text) + blanks(text, columns);
}

std::string rightAligned(std::string_view text, std::size_t columns) {
    return blanks(text, columns) + std::string(text);
}

std::string cut(std::string_view text, std::size_t columns) {
    if (offsetOf(text, columns) == text.size()) return std::string(text);
    return std::string(text.substr(0, offsetOf(text, columns - 1))) + "…";
}

std::vector<std::string> wrapped(std::string_view text, std::size_t columns) {
    std::vector<std::string> lines;
    while (true) {
        const std::size_t end = offsetOf(text, columns);
        if (end == text.size()) break;
        const std::size_t blank = text.rfind(' ', end);
        const bool breaks = blank != std::string_view::npos && blank > 0;
        lines.emplace_back(text.substr(0, breaks ? blank : end));
        text.remove_prefix(breaks ? blank + 1 : end);
    }
    lines.emplace_back(text);
    return lines;
}

std::string shellWord(const std::string& word) {
    constexpr char PLAIN[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789@%+=:,./_-";
    if (!word.empty() && word.find_first_not_of(PLAIN) == std::string::npos) return word;
    std::string quoted = "'";
    for (const char c : word) quoted += c == '\'' ? "'\\''" : std::string(1, c);
    return quoted + "'";
}

}  // namespace tool
