#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Changes.h"
#include "access/Token.h"
#include "dispatcher/device_state.h"
#include "journal/Journal.h"
#include "rules/document.h"

namespace fiscorad {

class Dispatcher;

/// The service as tills use it: one interface to the journal, the dispatcher and the notifications of
/// changes. HTTP only translates to and from it. Safe for threads; every method may throw JournalError.
class Service {
  public:
    /// All three outlive the service. `queueLimit`: documents that may wait in the queue.
    Service(Journal& journal, Dispatcher& dispatcher, Changes& changes, std::size_t queueLimit);

    /// Whether new documents are taken: not after `stop`, nor while the journal cannot be written.
    bool takesDocuments();
    /// Takes no more documents and operations.
    void stop();

    Receipt submit(const Submission& submission);
    Journal::Withdrawal withdraw(std::string_view key, Kind kind, const Identity& who);
    std::optional<Document> find(std::string_view key);
    std::optional<std::string> signedDocument(std::int64_t id);
    std::vector<Document> list(const Filter& filter);

    Tally tally() { return m_journal.tally(); }
    Intake intake(Time since) { return m_journal.intake(since); }
    std::size_t count(const Filter& filter) { return m_journal.count(filter); }
    std::vector<Attempt> attempts(std::int64_t document) { return m_journal.attempts(document); }
    std::vector<HistoryEntry> history(std::int64_t document) { return m_journal.history(document); }

    /// A person's decision; see Journal::rule.
    std::optional<Document> decide(std::string_view key, const Ruling& ruling);
    /// Takes what each device showed as explained from now on.
    void confirmDevice(const std::string& person, const std::string& reason);

    DeviceState device() const;
    std::size_t queueLength();
    std::vector<Alarm> alarms();

    bool hasTokens() { return m_journal.hasTokens(); }
    std::optional<Token> findToken(const std::string& hash) { return m_journal.findToken(hash); }
    /// Keeps what an administrator did.
    void recordAction(const std::string& person, const std::string& what, const std::string& subject) {
        m_journal.recordAction(person, what, subject);
    }

    /// Runs the operation when the device is free. `done` is called once: here if it cannot run, else on the
    /// dispatcher's thread.
    void operate(OperationRequest request, std::function<void(const OperationResult&)> done);

    Changes& changes() { return m_changes; }

  private:
    Journal& m_journal;
    Dispatcher& m_dispatcher;
    Changes& m_changes;
    std::size_t m_queueLimit;
    std::atomic<bool> m_stopped{false};
    std::atomic<bool> m_journalFails{false};
};

}  // namespace fiscorad
