#include "time_text.h"

#include <array>
#include <chrono>
#include <ctime>

namespace fiscorad {
namespace {

/// The local midnight that begins the day `after` days after that of `day`.
Time midnight(std::tm day, int after) {
    day.tm_mday += after;
    day.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&day));
}

/// Whether the calendar has that day (strptime takes a 31st of any month), and Time too: its nanoseconds
/// begin in 1677 and end in 2262.
bool isInCalendar(const std::tm& given) {
    constexpr int FIRST_YEAR = 1970 - 1900;
    constexpr int LAST_YEAR = 2199 - 1900;
    if (given.tm_year < FIRST_YEAR || given.tm_year > LAST_YEAR) return false;
    std::tm day{};
    day.tm_year = given.tm_year;
    day.tm_mon = given.tm_mon;
    day.tm_mday = given.tm_mday;
    timegm(&day);
    return day.tm_mday == given.tm_mday;
}

}  // namespace

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

}  // namespace fiscorad
