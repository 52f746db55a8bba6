#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "rules/document.h"

namespace fiscorad {

/// Milliseconds since 1970-01-01 00:00 UTC, as in the journal.
inline long long toMs(Time time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}
inline Time fromMs(long long ms) { return Time(std::chrono::milliseconds(ms)); }

/// RFC 3339 in local time with its offset: "2026-11-23T16:51:43-03:00".
std::string timeText(Time time);

/// A moment or a day, in which case it ends 24 hours later or so.
struct Span {
    Time begin;
    Time end;  ///< just after it; of a moment, `begin`
};
/// Of "2026-11-23" in local time, or of a time by RFC 3339; none if it is neither. A blank is taken for a
/// "+", since forms and queries write one for the other.
std::optional<Span> parseTime(std::string_view text);

}  // namespace fiscorad
