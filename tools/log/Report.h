#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "log/Exchanges.h"

namespace logs {

/// Stands for what the log does not say.
constexpr char UNKNOWN[] = "-";

/// `text`, or UNKNOWN if it is empty.
std::string known(const std::string& text);
/// Such as "6 s".
std::string durationText(const std::optional<long>& seconds);
/// What became of the call, with the device's code or the status: "refused 06010".
std::string resultText(const Exchange& exchange);

/// What else to say of the result: what the device said with a refusal, or whose answer came; else empty.
std::string noteOn(const Exchange& exchange);

/// Totals and pictures are by group: the operation's name, or empty if this version has no such operation. So
/// there is at most one group more than there are operations, whatever names a log contains.
std::string groupOf(const Exchange& exchange);
/// The group's name for people.
std::string groupName(const std::string& group);
/// Groups by name, with the operations unknown to this version last.
struct GroupOrder {
    bool operator()(const std::string& a, const std::string& b) const {
        return a.empty() != b.empty() ? b.empty() : a < b;
    }
};

/// A table of calls, at most 80 columns wide, with a line for each new day. Below a call is the note on it.
class ExchangeTable {
  public:
    enum class Colours { Off, On };

    /// Columns are wide enough for `exchanges`; if that is empty, for whatever comes.
    ExchangeTable(std::ostream& out, const std::vector<Exchange>& exchanges, Colours colours = Colours::Off);

    void printHeading();
    void print(const Exchange& exchange);

  private:
    std::ostream& m_out;
    Colours m_colours;
    std::size_t m_operation = 0;  ///< columns
    std::size_t m_session = 0;    ///< columns
    std::string m_day;            ///< of the last line
};

/// Prints for each operation how often it was called, refused and failed, and its median and longest
/// duration.
void printSummary(std::ostream& out, const std::vector<Exchange>& exchanges);

/// The files that could not be read to their ends, each with the reason, and the damaged lines.
struct Complaints {
    std::vector<std::string> files;
    std::size_t damagedLines = 0;
};
/// Prints calls, totals and complaints as one JSON object. Times are local; what is unknown is null.
void printJson(std::ostream& out, const std::vector<Exchange>& exchanges, const Complaints& complaints);

}  // namespace logs
