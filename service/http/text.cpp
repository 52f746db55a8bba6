#include "http/text.h"

#include <charconv>

#include "fields.h"

namespace fiscorad::http {
namespace {

std::optional<char> escapedByte(std::string_view digits) {
    unsigned value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, 16);
    if (digits.size() != 2 || error != std::errc() || stop != end) return std::nullopt;
    return static_cast<char>(value);
}

/// With blanks for "+".
std::optional<std::string> formText(std::string_view text) {
    std::string blanks(text);
    for (char& c : blanks)
        if (c == '+') c = ' ';
    return unescaped(blanks);
}

}  // namespace

std::optional<std::string> unescaped(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            result += text[i];
            continue;
        }
        const auto byte = escapedByte(text.substr(i + 1, 2));
        if (!byte) return std::nullopt;
        result += *byte;
        i += 2;
    }
    return result;
}

std::optional<NamedValues> formValues(std::string_view text) {
    NamedValues values;
    for (const std::string_view piece : fieldsOf(text, '&')) {
        if (piece.empty()) continue;
        const auto equals = piece.find('=');
        auto name = formText(piece.substr(0, equals));
        auto value = formText(equals == std::string_view::npos ? "" : piece.substr(equals + 1));
        if (!name || !value) return std::nullopt;
        values.emplace_back(std::move(*name), std::move(*value));
    }
    return values;
}

}  // namespace fiscorad::http
