#pragma once

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace logs {

/// A local time of the log: seconds since 1970-01-01 00:00:00 of the same local clock, without leaps for
/// daylight saving. Nothing if `text` is not "YYYY-MM-DD.HH:MM:SS", or its time of day in the form of another
/// locale, or there is no such time.
std::optional<std::time_t> parseTime(std::string_view text);
/// `time` in a format of strftime.
std::string timeText(std::time_t time, const char* format = "%Y-%m-%d %H:%M:%S");

/// What became of a call.
enum class Outcome {
    Ok,
    Refused,    ///< answered, but not with the operation's code of success
    Failed,     ///< any status but OK, or the answer of another session
    Incomplete  ///< its end is not in the log, or not its status
};
constexpr std::size_t OUTCOMES = 4;

/// What the log says about one call of a fiscal function. Texts are short UTF-8 without control characters;
/// an empty one is unknown.
struct Exchange {
    std::string operation;
    std::string session;
    std::optional<std::time_t> start;  ///< unknown if only the end is in the log
    std::optional<std::time_t> end;    ///< unknown if only the start is
    std::optional<int> status;         ///< known with the end, unless a long answer pushed it out of the line
    std::string answerSession;         ///< the session number in the answer
    std::string answerCode;            ///< EEEEE
    std::string answerText;            ///< the device's text for that code

    std::time_t time() const { return start ? *start : *end; }
    Outcome outcome() const;
    /// Whether a call with status OK got the answer to another one. False for the operations that ask for an
    /// earlier answer.
    bool isOfOtherSession() const;
    /// In seconds; since the log has whole seconds, it may be off by one. Unknown as well if the clock was
    /// set back.
    std::optional<long> duration() const;
};

/// Gathers the exchanges from the lines of the log.
///
/// An exchange begins with a line "txCode" and ends with a line "rxCode". Several processes may write one log
/// at the same time, and nothing in a line names its process. An end belongs to the newest open exchange that
/// it fits: one of the answer's operation, or of any operation if no answer came (code 0); one that has not
/// been open for longer than such an exchange can last, nor, if it timed out, for less than its timeout. If
/// more than one fits, one with the answer's session number comes first. So an exchange whose process died
/// stays open, and takes no other's end as long as later exchanges have theirs.
class Exchanges {
  public:
    /// `line` without its line break.
    void take(std::string_view line);

    /// In the order of the lines they begin with.
    const std::vector<Exchange>& all() const { return m_all; }
    /// Hands over those that have ended, in the same order, and forgets those that never will; at most a few
    /// dozen remain.
    std::vector<Exchange> takeEnded();
    /// How many lines were not of the form that the library writes, as one that was cut in the middle and
    /// continues with the next. Nothing is read from them.
    std::size_t damagedLines() const { return m_damagedLines; }

  private:
    bool isTaken(std::string_view line);
    bool begins(std::time_t time, std::string_view text);
    bool ends(std::time_t time, std::string_view text, std::optional<int> status);
    /// Removes it from the open ones, or makes a new one if none fits.
    Exchange& endedExchange(std::time_t time, std::string_view code, std::string_view session,
                            std::optional<int> status);

    std::vector<Exchange> m_all;
    std::vector<std::size_t> m_open;  ///< indices of m_all
    std::size_t m_damagedLines = 0;
};

}  // namespace logs
