#include "http/text.h"

#include <array>
#include <charconv>
#include <ctime>

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

/// The local midnight that begins the day `after` days after that of `day`.
Time midnight(std::tm day, int after) {
    day.tm_mday += after;
    day.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&day));
}

/// Whether the calendar has that day: strptime takes a 31st of any month.
bool isInCalendar(const std::tm& given) {
    std::tm day{};
    day.tm_year = given.tm_year;
    day.tm_mon = given.tm_mon;
    day.tm_mday = given.tm_mday;
    timegm(&day);
    return day.tm_mday == given.tm_mday;
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

std::string timeText(Time time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 40> text{};
    std::string result(text.data(), std::strftime(text.data(), text.size(), "%FT%T%z", &local));
    return result.insert(result.size() - 2, ":");
}

std::optional<Span> parseTime(std::string_view text) {
    std::string given(text);
    std::tm tm{};
    const char* rest = strptime(given.c_str(), "%Y-%m-%d", &tm);
    if (rest == nullptr || rest != given.c_str() + 10 || !isInCalendar(tm)) return std::nullopt;
    if (given.size() == 10) return Span{midnight(tm, 0), midnight(tm, 1)};

    rest = strptime(rest, "T%H:%M:%S", &tm);
    if (rest == nullptr || rest != given.c_str() + 19) return std::nullopt;
    if (*rest == '.') {
        const std::size_t end = given.find_first_not_of("0123456789", 20);
        if (end == 20 || end == std::string::npos) return std::nullopt;
        rest = given.c_str() + end;
    }
    if (*rest == ' ') given[static_cast<std::size_t>(rest - given.c_str())] = '+';
    rest = strptime(rest, "%z", &tm);
    if (rest != given.c_str() + given.size()) return std::nullopt;
    const long offset = tm.tm_gmtoff;
    const auto time = std::chrono::system_clock::from_time_t(timegm(&tm) - offset);
    return Span{time, time};
}

}  // namespace fiscorad::http
