#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fiscorad {

/// Wall-clock time, for people; no rule depends on it.
using Time = std::chrono::system_clock::time_point;

/// A document's kind. The numbers are those of the journal.
enum class Kind { Sale = 0, Cancellation = 1 };

/// A document's state. The numbers are those of the journal.
enum class State {
    Queued = 0,     ///< accepted and on disk, not sent yet
    Sent = 1,       ///< its attempt is on disk; the call is running, or was when the process ended
    Uncertain = 2,  ///< the call ended without proof of what the device did
    Booked = 3,     ///< final: booked; the signed document is in the journal
    Refused = 4,    ///< final: the device refused it
    Withdrawn = 5,  ///< final: withdrawn by the till before it was sent
    Undecided = 6,  ///< no proof can be had: a person decides
    Abandoned = 7,  ///< final: a person decided that it will not be resolved
};

/// As tills and people read them: "venda", "na-fila" and so on.
std::string_view nameOf(Kind kind);
std::string_view nameOf(State state);
std::optional<State> stateNamed(std::string_view name);

/// The operation that books a document of that kind.
const char* commandOf(Kind kind);

constexpr bool isFinal(State state) {
    return state == State::Booked || state == State::Refused || state == State::Withdrawn ||
           state == State::Abandoned;
}
/// Whether the document's last attempt may still book: meanwhile its device is only asked questions.
constexpr bool isOpen(State state) { return state == State::Sent || state == State::Uncertain; }

/// What a till hands in.
struct Submission {
    std::string key;  ///< 1 to 128 characters of A-Z a-z 0-9 . _ -
    Kind kind = Kind::Sale;
    std::optional<std::string> till;
    std::string body;     ///< the XML, byte for byte; not empty, no NUL
    std::string saleKey;  ///< of a cancellation: the sale's access key, "CFe" and 44 digits; else empty
};

/// A document as the journal holds it, without its two texts (see Journal::body and Journal::signedDocument).
struct Document {
    std::int64_t id = 0;  ///< grows in order of arrival
    std::string key;
    Kind kind = Kind::Sale;
    State state = State::Queued;
    std::optional<std::string> till;
    std::string saleKey;
    std::optional<int> session;  ///< of its last attempt
    int attempts = 0;
    int notBooked = 0;         ///< attempts since a person last decided that are proved not booked
    std::string answer;        ///< as the device sent it, without the document field; empty if there is none
    std::string accessKey;     ///< "CFe" and 44 digits; empty unless booked
    bool hasDocument = false;  ///< whether the signed document is in the journal
    bool documentRemoved = false;  ///< it was, and its legal time is over
    Time receivedAt;
    std::optional<Time> concludedAt;  ///< when it reached a final state
};

/// Whether the document is that till's. One that came while there were no tokens is everybody's.
inline bool isFor(const Document& document, const std::optional<std::string>& till) {
    return !document.till || document.till == till;
}

/// One call to the device for a document. On disk before the call, and never changed.
struct Attempt {
    std::int64_t id = 0;
    std::int64_t document = 0;
    int session = 0;     ///< 1 to 999999
    std::string serial;  ///< the device's serial number, 9 digits
    std::string
        lastDocument;  ///< the last one that the device had reported: 44 digits, or empty on a new device
    std::string node;  ///< the host whose process made it
    Time madeAt;
};

}  // namespace fiscorad
