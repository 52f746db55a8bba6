#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "access/Token.h"
#include "rules/document.h"
#include "rules/rules.h"

namespace fiscorad {

class Store;

/// The journal cannot be opened, read or written. The text says why, in one line, for the log.
struct JournalError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What became of a submission.
struct Receipt {
    enum class Result {
        Accepted,   ///< on disk, in the queue
        Known,      ///< the same document was submitted before: `document` is that one
        KeyReused,  ///< the key was used with another body, for another kind of document or by another till;
                    ///< a key used before there were tokens belongs to every till
        QueueFull,
    };
    Result result = Result::Accepted;
    Document document;  ///< unset if the queue is full
};

/// Which documents a list holds, newest first.
struct Filter {
    std::optional<Kind> kind;
    std::optional<State> state;
    std::optional<Time> since;  ///< received at or after
    std::optional<Time> until;  ///< received before
    std::optional<std::string> till;
    std::string named;  ///< if not empty: what its key or its access key, with or without "CFe", begins with
    std::optional<std::int64_t>
        before;               ///< documents with a smaller id: those after the last page's last one
    std::size_t limit = 100;  ///< at least 1
};

/// Documents that came in from some moment on.
struct Intake {
    std::size_t refusedSales = 0;
    std::size_t cancellations = 0;           ///< booked
    std::vector<std::string> bookedAnswers;  ///< of each booked sale; empty if a person decided
};

/// The outcome of an attempt: its document's new state, with everything that must be committed along with it.
struct Outcome {
    State state = State::Uncertain;
    std::string answer;      ///< of the device, without the document field; empty: none
    rules::Booking booking;  ///< if `state` is Booked
    bool notBooked = false;  ///< the attempt is proved not booked: counts one more of them
    std::string evidence;    ///< one line for the attempt's history, without codes and documents
    /// What the journal explains from now on, if that changes.
    std::optional<rules::DeviceRecord> device;
};

/// A person's decision about a document.
struct Ruling {
    enum class Kind { Booked, SendAgain, Abandon };
    Kind kind = Kind::Abandon;
    std::string accessKey;  ///< if Booked: "CFe" and 44 digits
    std::string person;
    std::string reason;
};

/// One entry of a document's history, oldest first: what was seen and done.
struct HistoryEntry {
    Time at;
    std::optional<std::int64_t> attempt;
    State state;         ///< of the document from then on
    std::string text;    ///< evidence, or what was decided
    std::string person;  ///< who decided; empty for evidence
    std::string reason;
};

/// A device that showed a document which no row explains.
struct Alarm {
    std::int64_t id = 0;
    std::string serial;
    std::string explained;  ///< the last document that the journal explains, 44 digits or empty
    std::string shown;      ///< what the device showed, 44 digits or empty
    Time since;
    bool halts = false;  ///< nothing is sent to that device until a person confirms it
};

/// How many documents there are, and how long one has been without an outcome.
struct Tally {
    std::map<State, std::size_t> documents;
    std::optional<Time> oldestOpen;  ///< when the oldest one without a final state came
};

/// What an administrator did, other than a decision about a document, which stands in its history.
struct Action {
    Time at;
    std::string person;
    std::string what;     ///< such as "retirada"
    std::string subject;  ///< such as the document's key; may be empty
};

constexpr int SESSION_NUMBERS = 999999;  ///< 1 to this; then from 1 again

/// What is on disk: documents, attempts, their history, devices, decisions, session numbers, tokens. Every
/// change is one durable commit; it is on disk when the method returns, and undone if it throws JournalError.
/// A change that depends on a document's state is made only if the document is still in that state. Safe for
/// threads, and for several processes at once (the maintenance commands work while the service runs).
class Journal {
  public:
    /// Whether a journal that is not there, or an empty file, becomes a new one or is refused.
    enum class IfMissing { Create, Refuse };

    /// Opens the SQLite file `path`, which becomes readable by its user alone; brings an older schema up to
    /// date. Throws JournalError if it cannot be opened, is damaged or is from a newer version.
    explicit Journal(const std::string& path, IfMissing ifMissing = IfMissing::Create);
    ~Journal();

    /// Tells how long each commit takes, from any thread. Set before the journal is used.
    void onCommit(std::function<void(std::chrono::nanoseconds)> committed);

    // ---- for the tills ----

    /// Puts a document into the queue, of at most `queueLimit` documents.
    Receipt submit(const Submission& submission, std::size_t queueLimit);
    std::optional<Document> find(std::string_view key);
    std::optional<Document> find(std::int64_t id);
    std::vector<Document> list(const Filter& filter);
    /// What came in at `since` or later. Quick for a day, however long the journal is.
    Intake intake(Time since);
    /// How many documents the filter selects, whatever its `limit`.
    std::size_t count(const Filter& filter);
    Tally tally();
    /// What the till sent, byte for byte; empty for a document withdrawn before it arrived.
    std::string body(std::int64_t id);
    /// The signed document, byte for byte as the device sent it; none if it is not there.
    std::optional<std::string> signedDocument(std::int64_t id);
    std::size_t queueLength();
    /// Makes a commit that changes nothing, to see whether one is possible.
    void tryToWrite();

    /// What became of a withdrawal: `document` is as it is now. Withdrawn also if it was before.
    struct Withdrawal {
        bool withdrawn = false;
        Document document;
    };
    /// Withdraws a queued document, of any till for an administrator; records an unknown key as withdrawn.
    Withdrawal withdraw(std::string_view key, Kind kind, const Identity& who);

    // ---- for the dispatcher ----

    /// A session number that no call has used, 1 to 999999. It comes from a block that is on disk as used;
    /// the blocks go round, so a number comes again after 900,000 others at the earliest.
    int takeSession();
    /// The oldest document in the queue.
    std::optional<Document> oldestQueued();
    /// Documents in state Sent or Uncertain, oldest first.
    std::vector<Document> open();
    /// Documents in state Undecided whose last attempt was on that device, newest first, at most `limit`.
    std::vector<Document> undecided(std::string_view serial, std::size_t limit);
    /// The last attempt of a document.
    std::optional<Attempt> lastAttempt(std::int64_t document);
    /// Commits an attempt and the state Sent in one. None if the document is no longer queued.
    std::optional<Attempt> beginAttempt(const Attempt& attempt);
    /// Commits what became of the attempt's document if it is still in state `from` with that attempt as its
    /// last; false, and nothing changes, if it is not. An access key that another row holds makes it fail
    /// with JournalError.
    bool settle(const Attempt& attempt, State from, const Outcome& outcome);
    /// Whether a row holds that access key.
    bool isBooked(std::string_view accessKey);

    std::optional<rules::DeviceRecord> device(std::string_view serial);
    /// Writes what the journal explains of a device, if that changes.
    void record(const rules::DeviceRecord& device);
    /// Raises an alarm. False, and nothing is written, if it stands already, for that device and document.
    bool raise(const Alarm& alarm);
    /// Alarms that nobody has confirmed and that no later row explains, oldest first.
    std::vector<Alarm> alarms();

    // ---- for people ----

    std::vector<Attempt> attempts(std::int64_t document);
    std::vector<HistoryEntry> history(std::int64_t document);
    /// Carries out a decision about a document that is Undecided or Uncertain. None if it is in another
    /// state; throws std::invalid_argument if the access key is in another row.
    std::optional<Document> rule(std::string_view key, const Ruling& ruling);
    /// Removes what was sent and what came back of those documents that have both. Their keys, states and
    /// access keys stay, and a digest (SHA-256, in hexadecimal) of what was sent, so that a key which is sent
    /// again is still known.
    void removeTexts(const std::vector<std::int64_t>& documents);
    /// Returns up to `pages` unused pages to the file system. False if none is left.
    bool shrink(int pages);
    /// Takes what the device showed as explained from now on.
    void confirm(std::int64_t alarm, std::string_view person, std::string_view reason);

    // ---- who may do what ----

    /// False if a token of that name is in use.
    bool addToken(const Token& token);
    /// False if none of that name is in use.
    bool revokeToken(const std::string& name);
    /// All, those that were revoked included, oldest first.
    std::vector<Token> tokens();
    bool hasTokens();
    /// The token in use that has the hash.
    std::optional<Token> findToken(const std::string& hash);
    void recordAction(const std::string& person, const std::string& what, const std::string& subject);
    /// What administrators did, newest first.
    std::vector<Action> actions(std::size_t limit);

    /// A number that changes when another process has written to the journal.
    std::int64_t foreignChanges();
    /// Writes a consistent copy to the empty file `path`, while the journal goes on being used.
    void copyTo(const std::string& path);
    /// What the next block of session numbers begins with, counted from 0.
    int nextSession();
    /// Prepares a restored copy for use. The device and the tills may know more than it does, so its session
    /// numbers continue at `nextSession` of the replaced journal or, if that is not known, at a random
    /// 100,000 to 899,999 further on, and a person must decide about each document that had no outcome: it
    /// may have got one since.
    void goOnFromCopy(std::optional<int> nextSession);

  private:
    std::unique_ptr<Store> m_store;
    std::mutex m_sessions;
    int m_nextSession = 0;   ///< counted from 0, within the block that is on disk
    int m_sessionsLeft = 0;  ///< of that block
};

}  // namespace fiscorad
