#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rules/document.h"

/// The rules that decide a document's outcome. Pure functions: no input or output, no clock, no journal.
/// model/fiscorad.pml states the same rules, for exhaustive checking; change both together.
namespace fiscorad::rules {

/// Monotonic, and only meaningful within this process.
using Clock = std::chrono::steady_clock;

/// What came of one call to the device.
struct Reply {
    int status = 0;    ///< a FiscoraStatus
    int session = 0;   ///< the number under which the call was made
    std::string body;  ///< the answer as the device sent it
};

/// The fields of an answer. Missing ones are empty.
class Fields {
  public:
    explicit Fields(std::string_view answer);
    std::string_view operator[](std::size_t index) const;
    std::string_view code() const { return (*this)[1]; }  ///< EEEEE
    /// The last three digits of EEEEE; empty unless EEEEE is five digits.
    std::string_view result() const;
    bool isSession(int number) const;  ///< whether field 0 is that number

  private:
    std::vector<std::string_view> m_fields;
};

/// An answer that is the call's own: status 0, the call's session number (or that which it asked about) in
/// field 0, five digits in field 1, and not the words of a busy device (098, 099).
bool isOwnAnswer(const Reply& reply, std::optional<int> askedSession = std::nullopt);
/// Whether the device says that the activation code is wrong: devices count wrong ones, and lock.
bool refusesCode(const Reply& reply);

/// What a device says of itself (ConsultarStatusOperacional).
struct Reading {
    std::string serial;        ///< 9 digits
    std::string lastDocument;  ///< 44 digits; empty on a device that has issued none
};
/// None if the answer is not the call's own, is no success, or does not name both.
std::optional<Reading> readingIn(const Reply& reply);

/// A document that a device has booked, taken from its answer.
struct Booking {
    std::string accessKey;  ///< "CFe" and 44 digits
    std::string document;   ///< the signed XML, decoded
    std::string answer;     ///< the answer with an empty document field
};

/// An attempt, and what was sent in it.
struct Trial {
    Attempt attempt;
    Kind kind = Kind::Sale;
    std::string body;
    std::string saleKey;
    bool ownNode = true;  ///< whether this node, which knows that no call of it is still running, made it
};

/// What one answer proves about an attempt. An answer counts only if it is proved to belong to its attempt.
struct Proof {
    enum class Kind { None, Booked, Refused, NothingSent };
    Kind kind = Kind::None;
    Booking booking;     ///< if Booked
    std::string answer;  ///< if Refused
};

/// From the call of the attempt itself. NothingSent: the library refused the arguments (status 8).
Proof proofInCall(const Trial& trial, const Reply& reply);
/// From a question: ConsultarNumeroSessao for the attempt's session, or ConsultarUltimaSessaoFiscal. Only a
/// booking can be recognised as ours: a stored refusal may belong to another program that used the same
/// number, while the device is still working on our request (see afterStoredAnswer).
Proof proofInStoredAnswer(const Trial& trial, const Reply& reply);

/// What the journal knows of a device.
struct DeviceRecord {
    std::string serial;
    std::string lastDocument;  ///< the last one that the journal explains, 44 digits or empty
    std::string
        lastCancellation;  ///< booked after it; the device may or may not count it. 44 digits or empty
};

/// How a device's last document relates to the journal.
enum class Standing {
    Explained,       ///< it is the journal's
    PerhapsAttempt,  ///< it is the next number, and exactly one attempt is open: that one may have booked it
    Unexplained,     ///< another program used the device, or the journal is older than the device
};
Standing standingOf(const Reading& reading, const DeviceRecord& record, int openAttempts);
/// The record after a reading that it explains, or after a booking.
DeviceRecord afterReading(DeviceRecord record, const Reading& reading);
DeviceRecord afterBooking(DeviceRecord record, Kind kind, std::string_view accessKey);

/// What has been learned about an attempt without an outcome. A process that starts knows nothing and begins
/// anew, its wait for the operation's timeout included.
struct Inquiry {
    Clock::time_point openSince;  ///< when its call began, or when this process took it over
    std::vector<Clock::time_point> answersThatDoNotProve;  ///< at most two, at least 2 s apart
    /// Whether each of these said that the session is unknown (11003), or was a refusal of the operation.
    bool noneBooked = true;
    std::string refusal;            ///< the stored one, as the device sent it; empty if there was none
    std::chrono::seconds pause{1};  ///< before the next round of questions
};

/// `inquiry` after an answer to ConsultarNumeroSessao that proves nothing. Answers before the operation's own
/// timeout has passed do not count, since the device may still be at work; a refusal is kept all the same,
/// since the device may forget it.
Inquiry afterStoredAnswer(Inquiry inquiry, const Trial& trial, const Reply& reply, Clock::time_point asked);
/// The pause for the next round: 1 s, doubled each time, up to 30 s.
std::chrono::seconds longer(std::chrono::seconds pause);

/// Whether nothing is missing for a conclusion but a reading.
bool awaitsReading(const Inquiry& inquiry);

/// What a reading, made after all that `inquiry` holds, decides.
enum class Conclusion { Open, NotBooked, Refused, Undecided };
Conclusion conclude(const Trial& trial, const Inquiry& inquiry, const Reading& reading);

/// The state after an attempt is proved not booked, for the `times`-th time: the third time a person
/// decides, since a document may crash its device.
State afterNotBooked(int times);

}  // namespace fiscorad::rules
