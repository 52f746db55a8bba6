#include "log/Report.h"

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>

#include "fiscal/operations.h"
#include "i18n.h"
#include "status_names.h"
#include "terminal_text.h"

namespace logs {
namespace {

using nlohmann::ordered_json;
using tool::leftAligned;
using tool::rightAligned;
using tool::tr;
using tool::translatable;
using tool::width;

struct OutcomeNames {
    const char* shown;
    const char* json;
    const char* colour;  ///< ECMA-48, "select graphic rendition"
};
constexpr std::array<OutcomeNames, OUTCOMES> OUTCOME_NAMES = {{
    {translatable("ok"), "ok", "32"},
    {translatable("refused"), "refused", "33"},
    {translatable("failed"), "failed", "31"},
    {translatable("no end"), "incomplete", "2"},
}};

const OutcomeNames& namesOf(Outcome outcome) { return OUTCOME_NAMES[static_cast<std::size_t>(outcome)]; }

// Columns of the table.
constexpr std::size_t TIME = 8, LONGEST_OPERATION = 29, SESSION = 6, DURATION = 7, GAP = 2;

/// What became of the calls of one operation.
struct Totals {
    std::size_t calls = 0;
    std::array<std::size_t, OUTCOMES> outcomes{};
    std::vector<long> seconds;  ///< the known durations

    std::size_t count(Outcome outcome) const { return outcomes[static_cast<std::size_t>(outcome)]; }
};

/// The middle value; with an even count, the larger of the middle two.
std::optional<long> median(std::vector<long> values) {
    if (values.empty()) return std::nullopt;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::optional<long> longest(const std::vector<long>& values) {
    if (values.empty()) return std::nullopt;
    return *std::max_element(values.begin(), values.end());
}

using TotalsByGroup = std::map<std::string, Totals, GroupOrder>;

TotalsByGroup totalsOf(const std::vector<Exchange>& exchanges) {
    TotalsByGroup totals;
    for (const Exchange& exchange : exchanges) {
        Totals& operation = totals[groupOf(exchange)];
        ++operation.calls;
        ++operation.outcomes[static_cast<std::size_t>(exchange.outcome())];
        if (const auto seconds = exchange.duration()) operation.seconds.push_back(*seconds);
    }
    return totals;
}

/// The status by its name in fiscora.h, without the prefix; its number if it has none.
std::string statusText(int status) {
    const std::string_view name = tool::statusName(status);
    return name.empty() ? std::to_string(status) : std::string(name);
}

ordered_json orNull(const std::string& text) { return text.empty() ? ordered_json() : ordered_json(text); }
template <typename Value>
ordered_json orNull(const std::optional<Value>& value) {
    return value ? ordered_json(*value) : ordered_json();
}
ordered_json timeOrNull(const std::optional<std::time_t>& time) {
    return time ? ordered_json(timeText(*time, "%Y-%m-%dT%H:%M:%S")) : ordered_json();
}

ordered_json jsonOf(const Exchange& exchange) {
    return {{"operation", orNull(exchange.operation)}, {"session", orNull(exchange.session)},
            {"start", timeOrNull(exchange.start)},     {"end", timeOrNull(exchange.end)},
            {"seconds", orNull(exchange.duration())},  {"outcome", namesOf(exchange.outcome()).json},
            {"status", orNull(exchange.status)},       {"answer_session", orNull(exchange.answerSession)},
            {"code", orNull(exchange.answerCode)},     {"text", orNull(exchange.answerText)}};
}

ordered_json jsonOf(const std::string& group, const Totals& totals) {
    return {{"operation", orNull(group)},
            {"calls", totals.calls},
            {"refused", totals.count(Outcome::Refused)},
            {"failed", totals.count(Outcome::Failed)},
            {"incomplete", totals.count(Outcome::Incomplete)},
            {"median_seconds", orNull(median(totals.seconds))},
            {"longest_seconds", orNull(longest(totals.seconds))}};
}

}  // namespace

std::string known(const std::string& text) { return text.empty() ? UNKNOWN : text; }

std::string durationText(const std::optional<long>& seconds) {
    return seconds ? std::to_string(*seconds) + " s" : UNKNOWN;
}

std::string resultText(const Exchange& exchange) {
    const Outcome outcome = exchange.outcome();
    std::string name = tr(namesOf(outcome).shown);
    switch (outcome) {
        case Outcome::Ok:
        case Outcome::Refused: return name + " " + known(exchange.answerCode);
        case Outcome::Failed:
            return exchange.isOfOtherSession() ? name : name + " " + statusText(*exchange.status);
        default: return exchange.end ? tr("no status") : name;
    }
}

std::string noteOn(const Exchange& exchange) {
    switch (exchange.outcome()) {
        case Outcome::Refused: return exchange.answerText;
        case Outcome::Failed:
            return exchange.isOfOtherSession()
                       ? tool::filled(tr("answer of session %s"), exchange.answerSession.c_str())
                       : "";
        case Outcome::Incomplete:
            return exchange.end ? known(exchange.answerCode) + " " + exchange.answerText : "";
        default: return "";
    }
}

std::string groupOf(const Exchange& exchange) {
    return manipulaDados::findOperation(exchange.operation) == nullptr ? "" : exchange.operation;
}

std::string groupName(const std::string& group) { return group.empty() ? tr("others") : group; }

ExchangeTable::ExchangeTable(std::ostream& out, const std::vector<Exchange>& exchanges, Colours colours)
    : m_out(out),
      m_colours(colours),
      m_operation(exchanges.empty() ? LONGEST_OPERATION : width(tr("Operation"))),
      m_session(std::max(SESSION, width(tr("Session")))) {
    for (const Exchange& exchange : exchanges) {
        m_operation = std::max(m_operation, width(exchange.operation));
        m_session = std::max(m_session, width(exchange.session));
    }
}

void ExchangeTable::printHeading() {
    const std::string gap(GAP, ' ');
    m_out << leftAligned(tr("Time"), TIME) << gap << leftAligned(tr("Operation"), m_operation) << gap
          << rightAligned(tr("Session"), m_session) << gap << rightAligned(tr("Took"), DURATION) << gap
          << tr("Result") << '\n';
}

void ExchangeTable::print(const Exchange& exchange) {
    const std::string day = timeText(exchange.time(), "%Y-%m-%d");
    if (day != m_day) m_out << day << '\n';
    m_day = day;

    const std::string gap(GAP, ' ');
    const std::string call = timeText(exchange.time(), "%H:%M:%S") + gap +
                             leftAligned(known(exchange.operation), m_operation) + gap +
                             rightAligned(known(exchange.session), m_session) + gap +
                             rightAligned(durationText(exchange.duration()), DURATION) + gap;
    std::string result = resultText(exchange);
    const OutcomeNames& names = namesOf(exchange.outcome());
    if (m_colours == Colours::On) {
        const std::string_view word = tr(names.shown);
        result.insert(result.compare(0, word.size(), word) == 0 ? word.size() : result.size(), "\033[m");
        result.insert(0, std::string("\033[") + names.colour + "m");
    }
    m_out << call << result << '\n';
    const std::string note = noteOn(exchange);
    if (note.empty()) return;
    const std::string indent(TIME + GAP, ' ');
    for (const auto& line : tool::wrapped(note, tool::TERMINAL_COLUMNS - indent.size()))
        m_out << indent << line << '\n';
}

void printSummary(std::ostream& out, const std::vector<Exchange>& exchanges) {
    const std::array<std::string, 7> headings = {tr("Operation"), tr("Calls"),  tr("Refused"), tr("Failed"),
                                                 tr("No end"),    tr("Median"), tr("Longest")};
    std::vector<std::array<std::string, 7>> rows = {headings};
    for (const auto& [group, totals] : totalsOf(exchanges))
        rows.push_back(
            {groupName(group), std::to_string(totals.calls), std::to_string(totals.count(Outcome::Refused)),
             std::to_string(totals.count(Outcome::Failed)), std::to_string(totals.count(Outcome::Incomplete)),
             durationText(median(totals.seconds)), durationText(longest(totals.seconds))});
    std::array<std::size_t, 7> widths{};
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
    for (const auto& row : rows) {
        out << leftAligned(row[0], widths[0]);
        for (std::size_t i = 1; i < row.size(); ++i) out << "  " << rightAligned(row[i], widths[i]);
        out << '\n';
    }
}

void printJson(std::ostream& out, const std::vector<Exchange>& exchanges, const Complaints& complaints) {
    // One call per line, and none of them kept: there may be a million.
    out << "{\"calls\": [";
    for (std::size_t i = 0; i < exchanges.size(); ++i)
        out << (i == 0 ? "\n  " : ",\n  ") << jsonOf(exchanges[i]).dump();
    out << "\n],\n\"operations\": [";
    const char* separator = "\n  ";
    for (const auto& [group, totals] : totalsOf(exchanges)) {
        out << separator << jsonOf(group, totals).dump();
        separator = ",\n  ";
    }
    out << "\n],\n\"damaged_lines\": " << complaints.damagedLines << ",\n\"unread_files\": "
        << ordered_json(complaints.files).dump(-1, ' ', false, ordered_json::error_handler_t::replace)
        << "}\n";
}

}  // namespace logs
