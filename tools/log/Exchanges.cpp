#include "log/Exchanges.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <numeric>
#include <utility>

#include "fiscal/operations.h"
#include "fiscora.h"
#include "log/Lines.h"
#include "terminal_text.h"

namespace logs {
namespace {

/// The library writes the time of day in the application's locale: almost everywhere in the first of these
/// forms, in North America on a 12-hour clock, in northern Europe with points.
constexpr const char* LOG_TIMES[] = {"%Y-%m-%d.%H:%M:%S", "%Y-%m-%d.%I:%M:%S %p", "%Y-%m-%d.%H.%M.%S"};

/// The code of a message that no answer has filled.
constexpr std::string_view NO_ANSWER_CODE = "0";

/// How often an answer of a wrong kind can restart the timeout.
constexpr long MAX_RESTARTS = 5;
/// How much longer than its timeouts an exchange can last: finding the device, sending, closing the port.
constexpr long MARGIN_SECONDS = 120;
/// Assumed for an operation unknown to this version.
constexpr long LONGEST_TIMEOUT_SECONDS = 1800;

/// No more processes than this share a log: if more exchanges are open, the oldest will never end.
constexpr std::size_t MAX_OPEN = 64;

// How many characters of a field are kept: enough for every operation and for session numbers of ten digits.
constexpr std::size_t OPERATION_COLUMNS = 29;
constexpr std::size_t SESSION_COLUMNS = 10;
constexpr std::size_t CODE_COLUMNS = 8;
constexpr std::size_t TEXT_COLUMNS = 160;

/// Takes the text up to `separator`, and the separator, off the front of `rest`; nothing if it is not there.
std::optional<std::string_view> takeUntil(std::string_view& rest, std::string_view separator) {
    const std::size_t end = rest.find(separator);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view text = rest.substr(0, end);
    rest.remove_prefix(end + separator.size());
    return text;
}

bool takePrefix(std::string_view& rest, std::string_view prefix) {
    if (rest.substr(0, prefix.size()) != prefix) return false;
    rest.remove_prefix(prefix.size());
    return true;
}

/// A field as it can be shown. It can hold any bytes of a device's answer, or one blank if it is missing.
std::string shown(std::string_view field, std::size_t columns) {
    if (field == " ") return "";
    return tool::cut(tool::withoutControls(tool::toUtf8(field)), columns);
}

/// Takes `label` and the number after it off the end of `text`; nothing if it does not end like that.
std::optional<int> takeNumber(std::string_view& text, std::string_view label) {
    const std::size_t start = text.rfind(label);
    if (start == std::string_view::npos) return std::nullopt;
    const std::string_view digits = text.substr(start + label.size());
    int number = 0;
    const auto [rest, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || rest != digits.data() + digits.size()) return std::nullopt;
    text = text.substr(0, start);
    return number;
}

/// Whether a line begins inside `text`: the one before it was cut by a full disk or the end of its process.
bool containsLine(std::string_view text) {
    for (std::size_t end; (end = text.find("] - [")) != std::string_view::npos; text.remove_prefix(end + 1)) {
        const std::string_view before = text.substr(0, end);
        const std::size_t start = before.rfind('[');
        if (start != std::string_view::npos && parseTime(before.substr(start + 1))) return true;
    }
    return false;
}

/// The number of a session, however many zeros it begins with.
std::string_view withoutZeros(std::string_view session) {
    return session.substr(std::min(session.find_first_not_of('0'), session.size()));
}

/// The device's text, from what follows EEEEE: "CCCC rxMessage: ...". In most answers, which have no CCCC,
/// the text is in its place.
std::string answerText(std::string_view rest) {
    std::string_view message = rest;
    const auto content = takeUntil(message, " rxMessage: ").value_or(rest);
    const bool isCode = content.find_first_not_of("0123456789 ") == std::string_view::npos;
    return shown(isCode ? message : content, TEXT_COLUMNS);
}

/// `operation` is the answer's, empty if no answer came.
bool fits(const Exchange& exchange, std::time_t end, const std::string& operation,
          std::optional<int> status) {
    if (!operation.empty() && operation != exchange.operation) return false;
    const auto* const known = manipulaDados::findOperation(exchange.operation);
    const long timeout = known == nullptr ? LONGEST_TIMEOUT_SECONDS : known->timeoutMs / 1000;
    const long open = end - *exchange.start;
    if (known != nullptr && status == FISCORA_STATUS_TIMEOUT && open < timeout) return false;
    return open <= (1 + MAX_RESTARTS) * timeout + MARGIN_SECONDS;
}

}  // namespace

std::optional<std::time_t> parseTime(std::string_view text) {
    const std::string copy(text);
    for (const char* const format : LOG_TIMES) {
        tm fields{};
        if (strptime(copy.c_str(), format, &fields) == nullptr) continue;
        const std::time_t time = timegm(&fields);
        // strptime accepts single digits, and the 31st of every month.
        if (timeText(time, format) == text) return time;
    }
    return std::nullopt;
}

std::string timeText(std::time_t time, const char* format) {
    tm fields{};
    gmtime_r(&time, &fields);
    std::array<char, 80> text{};
    return {text.data(), strftime(text.data(), text.size(), format, &fields)};
}

Outcome Exchange::outcome() const {
    if (!status) return Outcome::Incomplete;
    if (status != FISCORA_STATUS_OK || isOfOtherSession()) return Outcome::Failed;
    const auto* const known = manipulaDados::findOperation(operation);
    // By the tax authority's tables, codes of success end in three zeros.
    const bool succeeded = known != nullptr ? known->succeededWith(answerCode)
                                            : answerCode.size() == 5 && answerCode.substr(2) == "000";
    return succeeded ? Outcome::Ok : Outcome::Refused;
}

bool Exchange::isOfOtherSession() const {
    const auto* const known = manipulaDados::findOperation(operation);
    return status == FISCORA_STATUS_OK && known != nullptr && known->answer.fields != nullptr &&
           !answerSession.empty() && withoutZeros(answerSession) != withoutZeros(session);
}

std::optional<long> Exchange::duration() const {
    if (!start || !end || *end < *start) return std::nullopt;
    return *end - *start;
}

void Exchanges::take(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);  // from a copy made on Windows
    // An empty line loses nothing: two processes may both end the line that a third has left.
    if (!line.empty() && !isTaken(line)) ++m_damagedLines;
}

std::vector<Exchange> Exchanges::takeEnded() {
    std::vector<Exchange> ended;
    std::vector<Exchange> open;
    std::sort(m_open.begin(), m_open.end());
    for (std::size_t i = 0; i < m_all.size(); ++i) {
        if (m_all[i].end)
            ended.push_back(std::move(m_all[i]));
        else if (std::binary_search(m_open.begin(), m_open.end(), i))
            open.push_back(std::move(m_all[i]));
    }
    m_all = std::move(open);
    m_open.resize(m_all.size());
    std::iota(m_open.begin(), m_open.end(), 0);
    return ended;
}

/// Whether `line` is one that the library writes.
bool Exchanges::isTaken(std::string_view line) {
    if (takePrefix(line, "DRS Version: ")) return !containsLine(line);
    const bool mayBeCut = line.size() == LINE_MAX_BYTES;
    if (line.size() > LINE_MAX_BYTES || !takePrefix(line, "[")) return false;
    const auto time = parseTime(takeUntil(line, "] - [").value_or(""));
    if (!time || containsLine(line) || !takeUntil(line, ", ") || line.empty()) return false;
    const bool isClosed = line.back() == ']';
    if (!isClosed && !mayBeCut) return false;
    if (isClosed) line.remove_suffix(1);
    if (takePrefix(line, "txCode: ")) return begins(*time, line);
    if (!takePrefix(line, "rxCode: ")) return true;
    auto status = isClosed ? takeNumber(line, " status: ") : std::nullopt;
    if (!takeNumber(line, " rxBufferSize: ")) status.reset();
    return (status || mayBeCut) && ends(*time, line, status);
}

bool Exchanges::begins(std::time_t time, std::string_view text) {
    const auto operation = takeUntil(text, " txSessao:");
    if (!operation || !takeNumber(text, " txBufferSize:")) return false;
    if (m_open.size() == MAX_OPEN) m_open.erase(m_open.begin());
    m_open.push_back(m_all.size());
    Exchange exchange;
    exchange.operation = shown(*operation, OPERATION_COLUMNS);
    exchange.session = shown(text, SESSION_COLUMNS);
    exchange.start = time;
    m_all.push_back(std::move(exchange));
    return true;
}

/// Without a status, fields are missing at the end of `text`.
bool Exchanges::ends(std::time_t time, std::string_view text, std::optional<int> status) {
    const auto next = [&](std::string_view separator) -> std::optional<std::string_view> {
        const auto field = takeUntil(text, separator);
        return field || status ? field : std::exchange(text, {});
    };
    const auto code = next(" rxSessao: "), session = next(" rxEEEEE: "), answerCode = next(" rxCCCC: ");
    if (!code || !session || !answerCode) return false;
    if (status && text.find(" rxMessage: ") == std::string_view::npos) return false;

    Exchange& exchange = endedExchange(time, *code, *session, status);
    exchange.end = time;
    exchange.status = status;
    exchange.answerSession = shown(*session, SESSION_COLUMNS);
    exchange.answerCode = shown(*answerCode, CODE_COLUMNS);
    exchange.answerText = answerText(text);
    return true;
}

Exchange& Exchanges::endedExchange(std::time_t time, std::string_view code, std::string_view session,
                                   std::optional<int> status) {
    const std::string operation = code == NO_ANSWER_CODE ? "" : shown(code, OPERATION_COLUMNS);
    const auto fitting = [&](std::size_t place) { return fits(m_all[place], time, operation, status); };
    const std::string number = shown(session, SESSION_COLUMNS);
    const auto hasSession = [&](std::size_t place) {
        return fitting(place) && m_all[place].session == number;
    };
    auto found = std::find_if(m_open.rbegin(), m_open.rend(), hasSession);
    if (found == m_open.rend()) found = std::find_if(m_open.rbegin(), m_open.rend(), fitting);
    if (found == m_open.rend()) {
        Exchange exchange;
        exchange.operation = operation;
        exchange.session = number;
        m_all.push_back(std::move(exchange));
        return m_all.back();
    }
    const std::size_t place = *found;
    m_open.erase(std::next(found).base());
    return m_all[place];
}

}  // namespace logs
