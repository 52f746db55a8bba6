#include "log/Exchanges.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "fiscal/operations.h"
#include "fiscora.h"
#include "log/LogFiles.h"

namespace logs {
namespace {

/// The library writes the time of day as the application's locale has it: almost everywhere as the first of
/// these, in North America by twelve hours, in the north of Europe with points.
constexpr const char* LOG_TIMES[] = {"%Y-%m-%d.%H:%M:%S", "%Y-%m-%d.%I:%M:%S %p", "%Y-%m-%d.%H.%M.%S"};

/// The code of a message that no answer has filled.
constexpr std::string_view NO_ANSWER_CODE = "0";

/// An answer of a wrong kind starts the timeout anew, so often at most.
constexpr long MAX_RESTARTS = 5;
/// How much longer than its timeouts an exchange can last: finding the device, sending, closing the port.
constexpr long MARGIN_SECONDS = 120;
/// For an operation that this version does not have.
constexpr long LONGEST_TIMEOUT_SECONDS = 1800;

/// More processes than that do not share a log; what is open beside so many will not end.
constexpr std::size_t MAX_OPEN = 64;

/// As much of a field as a table shows.
constexpr std::size_t SHOWN_BYTES = 32;

/// Takes `text` up to `separator`, and that itself, off the front of `rest`; nothing where it is not there.
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

/// A field as it can be shown. It can hold any bytes of a device's answer, or one blank where it is missing.
std::string shown(std::string_view field) {
    if (field == " ") return "";
    std::string text(field.substr(0, SHOWN_BYTES));
    std::replace_if(
        text.begin(), text.end(), [](char byte) { return byte <= ' ' || byte > '~'; }, '?');
    return text;
}

bool fits(const Exchange& exchange, std::time_t end, std::string_view code, int status) {
    if (code != NO_ANSWER_CODE && code != exchange.operation) return false;
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
        // strptime takes less than two digits, and the 31st of each month.
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

bool Exchange::hasFailed() const { return status && *status != FISCORA_STATUS_OK; }

std::optional<long> Exchange::duration() const {
    if (!start || !end || *end < *start) return std::nullopt;
    return *end - *start;
}

void Exchanges::take(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);  // of a copy by way of Windows
    if (!isTaken(line)) ++m_damagedLines;
}

/// Whether `line` is one that the library writes.
bool Exchanges::isTaken(std::string_view line) {
    if (takePrefix(line, "DRS Version: ")) return true;
    if (line.size() > LINE_MAX_BYTES || !takePrefix(line, "[")) return false;
    const auto time = parseTime(takeUntil(line, "] - [").value_or(""));
    if (!time || !takeUntil(line, ", ") || line.empty() || line.back() != ']') return false;
    line.remove_suffix(1);
    if (takePrefix(line, "txCode: ")) return begins(*time, line);
    if (takePrefix(line, "rxCode: ")) return ends(*time, line);
    return true;
}

bool Exchanges::begins(std::time_t time, std::string_view text) {
    const auto operation = takeUntil(text, " txSessao:");
    if (!operation) return false;
    // The size is cut off behind a long session number.
    const auto session = takeUntil(text, " txBufferSize:").value_or(text);
    if (m_open.size() == MAX_OPEN) m_open.erase(m_open.begin());
    m_open.push_back(m_all.size());
    m_all.push_back({shown(*operation), shown(session), time, {}, {}, {}});
    return true;
}

bool Exchanges::ends(std::time_t time, std::string_view text) {
    const auto code = takeUntil(text, " rxSessao: "), session = takeUntil(text, " rxEEEEE: "),
               answerCode = takeUntil(text, " rxCCCC: ");
    constexpr std::string_view LABEL = " status: ";
    const std::size_t label = text.rfind(LABEL);
    if (!code || !session || !answerCode || label == std::string_view::npos) return false;
    const std::string_view digits = text.substr(label + LABEL.size());
    int status = 0;
    const auto [rest, error] = std::from_chars(digits.data(), digits.data() + digits.size(), status);
    if (error != std::errc() || rest != digits.data() + digits.size()) return false;

    Exchange& exchange = endedExchange(time, *code, *session, status);
    exchange.end = time;
    exchange.status = status;
    exchange.answerCode = shown(*answerCode);
    return true;
}

Exchange& Exchanges::endedExchange(std::time_t time, std::string_view code, std::string_view session,
                                   int status) {
    const auto fitting = [&](std::size_t place) { return fits(m_all[place], time, code, status); };
    const auto hasSession = [&](std::size_t place) {
        return fitting(place) && m_all[place].session == shown(session);
    };
    auto found = std::find_if(m_open.rbegin(), m_open.rend(), hasSession);
    if (found == m_open.rend()) found = std::find_if(m_open.rbegin(), m_open.rend(), fitting);
    if (found == m_open.rend()) {
        m_all.push_back({code == NO_ANSWER_CODE ? "" : shown(code), shown(session), {}, {}, {}, {}});
        return m_all.back();
    }
    const std::size_t place = *found;
    m_open.erase(std::next(found).base());
    return m_all[place];
}

}  // namespace logs
