#include "rules/rules.h"

#include <algorithm>

#include "encoding/Base64.h"
#include "fields.h"
#include "fiscal/operations.h"
#include "fiscora.h"
#include "rules/AccessKey.h"
#include "rules/content.h"

namespace fiscorad::rules {
namespace {

using manipulaDados::AnswerLayout;
using manipulaDados::Operation;

constexpr std::string_view DONE = "000";
constexpr std::string_view WRONG_CODE = "001";
constexpr std::string_view UNKNOWN_SESSION = "11003";
constexpr std::string_view QUERY_PREFIX = "11";  ///< EEEEE of ConsultarNumeroSessao itself
constexpr std::chrono::seconds BETWEEN_ANSWERS{2};
constexpr std::chrono::seconds LONGEST_PAUSE{30};
constexpr int NOT_BOOKED_AT_MOST = 3;
constexpr std::size_t ANSWERS_NEEDED = 2;
constexpr std::size_t SERIAL_DIGITS = 9;

bool isDigits(std::string_view text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

const Operation& operationOf(Kind kind) { return *manipulaDados::findOperation(commandOf(kind)); }

std::size_t fieldNamed(const AnswerLayout& layout, std::string_view name) {
    const auto names = fieldsOf(layout.fields);
    return static_cast<std::size_t>(std::find(names.begin(), names.end(), name) - names.begin());
}

/// Whether the answer is one that the attempt's operation gives.
bool isOfOperation(const Trial& trial, const Fields& fields) {
    return !fields.result().empty() && fields.code().substr(0, 2) == operationOf(trial.kind).codePrefix;
}

std::string withoutField(std::string_view answer, std::size_t index) {
    std::string result;
    const auto fields = fieldsOf(answer);
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) result += '|';
        if (i != index) result += fields[i];
    }
    return result;
}

/// The booking that the answer proves: of the attempt's device, later than its last document, with the
/// content that was sent. That no other row holds its access key is for the journal to say.
std::optional<Booking> bookingIn(const Trial& trial, const Fields& fields, std::string_view answer) {
    const AnswerLayout& layout = operationOf(trial.kind).answer;
    const auto key = AccessKey::parse(fields[fieldNamed(layout, "chaveConsulta")]);
    if (!key || key->serial() != trial.attempt.serial) return std::nullopt;
    const auto last = AccessKey::parse(trial.attempt.lastDocument);
    if (last && key->numbersAfter(*last) < 1) return std::nullopt;
    std::string document = Base64::decode(std::string(fields[layout.documentField]));
    if (document.find(key->text()) == std::string::npos) return std::nullopt;
    if (!hasContentOf(document, trial.body, trial.saleKey)) return std::nullopt;
    return Booking{key->text(), std::move(document), withoutField(answer, layout.documentField)};
}

/// What an answer of the attempt's own operation proves.
Proof proofIn(const Trial& trial, const Fields& fields, std::string_view answer) {
    if (!isOfOperation(trial, fields)) return {};
    if (fields.result() != DONE) return {Proof::Kind::Refused, {}, std::string(answer)};
    auto booking = bookingIn(trial, fields, answer);
    if (!booking) return {};
    return {Proof::Kind::Booked, std::move(*booking), {}};
}

std::chrono::milliseconds timeoutOf(Kind kind) {
    return std::chrono::milliseconds(operationOf(kind).timeoutMs);
}

}  // namespace

Fields::Fields(std::string_view answer) : m_fields(fieldsOf(answer)) {}

std::string_view Fields::operator[](std::size_t index) const {
    return index < m_fields.size() ? m_fields[index] : std::string_view();
}

std::string_view Fields::result() const {
    return code().size() == 5 && isDigits(code()) ? code().substr(2) : std::string_view();
}

bool Fields::isSession(int number) const {
    const std::string_view field = (*this)[0];
    return isDigits(field) && field.size() <= 6 && std::stoi(std::string(field)) == number;
}

bool isOwnAnswer(const Reply& reply, std::optional<int> askedSession) {
    if (reply.status != FISCORA_STATUS_OK) return false;
    const Fields fields(reply.body);
    const bool mine = fields.isSession(reply.session) || (askedSession && fields.isSession(*askedSession));
    const std::string_view result = fields.result();
    return mine && !result.empty() && result != "098" && result != "099";
}

bool refusesCode(const Reply& reply) {
    if (!isOwnAnswer(reply)) return false;
    const Fields fields(reply.body);
    const std::string_view prefix = fields.code().substr(0, 2);
    // 04: AtivarSAT sets the code. 08: ConsultarSAT needs none.
    return fields.result() == WRONG_CODE && prefix != "04" && prefix != "08";
}

std::optional<Reading> readingIn(const Reply& reply) {
    const Operation& query = *manipulaDados::findOperation(manipulaDados::CMD_CONSULTA_STATUS_OP);
    const Fields fields(reply.body);
    if (!isOwnAnswer(reply) || !query.succeededWith(fields.code())) return std::nullopt;

    std::string serial(fields[fieldNamed(query.answer, "NSERIE")]);
    if (!isDigits(serial) || serial.size() > SERIAL_DIGITS) return std::nullopt;
    serial.insert(0, SERIAL_DIGITS - serial.size(), '0');

    const std::string_view last = fields[fieldNamed(query.answer, "ULTIMO_CF_E_SAT")];
    if (last.find_first_not_of('0') == std::string_view::npos) return Reading{std::move(serial), ""};
    const auto key = AccessKey::parse(last);
    if (!key) return std::nullopt;
    return Reading{std::move(serial), key->digits()};
}

Proof proofInCall(const Trial& trial, const Reply& reply) {
    if (reply.status == FISCORA_STATUS_BAD_REQUEST) return {Proof::Kind::NothingSent, {}, {}};
    if (!isOwnAnswer(reply)) return {};
    return proofIn(trial, Fields(reply.body), reply.body);
}

Proof proofInStoredAnswer(const Trial& trial, const Reply& reply) {
    if (!isOwnAnswer(reply, trial.attempt.session)) return {};
    Proof proof = proofIn(trial, Fields(reply.body), reply.body);
    return proof.kind == Proof::Kind::Booked ? proof : Proof();
}

Standing standingOf(const Reading& reading, const DeviceRecord& record, int openAttempts) {
    const std::string& shown = reading.lastDocument;
    if (shown == record.lastDocument || (!shown.empty() && shown == record.lastCancellation))
        return Standing::Explained;
    const auto now = AccessKey::parse(shown);
    if (!now || openAttempts != 1) return Standing::Unexplained;
    const auto isNextAfter = [&](const std::string& digits) {
        const auto before = AccessKey::parse(digits);
        return before ? now->numbersAfter(*before) == 1 : now->number() == 1;
    };
    const bool next = isNextAfter(record.lastDocument) ||
                      (!record.lastCancellation.empty() && isNextAfter(record.lastCancellation));
    return next ? Standing::PerhapsAttempt : Standing::Unexplained;
}

DeviceRecord afterReading(DeviceRecord record, const Reading& reading) {
    if (reading.lastDocument != record.lastDocument) {
        record.lastDocument = reading.lastDocument;
        record.lastCancellation.clear();
    }
    return record;
}

DeviceRecord afterBooking(DeviceRecord record, Kind kind, std::string_view accessKey) {
    const std::string digits = AccessKey::parse(accessKey).value().digits();
    if (kind == Kind::Cancellation) {
        record.lastCancellation = digits;
    } else {
        record.lastDocument = digits;
        record.lastCancellation.clear();
    }
    return record;
}

Inquiry afterStoredAnswer(Inquiry inquiry, const Trial& trial, const Reply& reply, Clock::time_point asked) {
    if (!isOwnAnswer(reply, trial.attempt.session)) return inquiry;
    const Fields fields(reply.body);
    const bool unknown = fields.code() == UNKNOWN_SESSION;
    if (!unknown && fields.code().substr(0, 2) == QUERY_PREFIX) return inquiry;  // the question was refused
    const bool refusal = isOfOperation(trial, fields) && fields.result() != DONE;
    if (refusal) inquiry.refusal = reply.body;

    auto& answers = inquiry.answersThatDoNotProve;
    if (asked - inquiry.openSince < timeoutOf(trial.kind)) return inquiry;
    if (!answers.empty() && asked - answers.back() < BETWEEN_ANSWERS) return inquiry;
    if (answers.size() == ANSWERS_NEEDED) return inquiry;
    answers.push_back(asked);
    inquiry.noneBooked = inquiry.noneBooked && (unknown || refusal);
    return inquiry;
}

std::chrono::seconds longer(std::chrono::seconds pause) { return std::min(2 * pause, LONGEST_PAUSE); }

bool awaitsReading(const Inquiry& inquiry) { return inquiry.answersThatDoNotProve.size() == ANSWERS_NEEDED; }

Conclusion conclude(const Trial& trial, const Inquiry& inquiry, const Reading& reading) {
    if (reading.serial != trial.attempt.serial) return Conclusion::Undecided;  // another device in its place
    if (!awaitsReading(inquiry)) return Conclusion::Open;
    // A device that restarts can forget its sessions and keep its books, another program's refusal may stand
    // under the same number, and a cancellation may not count as the last document; so nothing is proved by a
    // stored answer alone.
    const bool notBooked = inquiry.noneBooked && trial.kind == Kind::Sale && trial.ownNode &&
                           reading.lastDocument == trial.attempt.lastDocument;
    if (!notBooked) return Conclusion::Undecided;
    return inquiry.refusal.empty() ? Conclusion::NotBooked : Conclusion::Refused;
}

State afterNotBooked(int times) { return times >= NOT_BOOKED_AT_MOST ? State::Undecided : State::Queued; }

}  // namespace fiscorad::rules
