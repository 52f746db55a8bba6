#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Changes.h"
#include "journal/Journal.h"
#include "rules/document.h"

namespace manipulaDados {
struct Operation;
}

namespace fiscorad {

/// The last call that was made.
struct LastCall {
    std::string operation;
    int session = 0;
    int status = 0;
    std::string code;  ///< EEEEE; empty if there was no answer
    Time began;
    std::chrono::milliseconds duration{0};
};

/// How the device stands.
struct DeviceState {
    enum class Condition {
        Unknown,      ///< not asked yet
        Answering,    ///< it answered last time
        Busy,         ///< a call is running
        Resolving,    ///< a document without an outcome is being asked about
        Absent,       ///< no device, no answer, or another program owns it
        CodeRefused,  ///< it refused the activation code: nothing is sent until the code file changes
        Divergent,  ///< it shows a document that the journal does not explain: nothing is sent until a person
                    ///< confirms
    };
    Condition condition = Condition::Unknown;
    std::string serial;        ///< empty while unknown
    std::string lastDocument;  ///< 44 digits
    std::optional<LastCall> lastCall;
    std::string resolving;  ///< key of the document being resolved
};

/// An operation that is not a document, and what came of it.
struct OperationRequest {
    const manipulaDados::Operation* operation = nullptr;
    /// By the names of the operation's parameters, without numeroSessao and codigoDeAtivacao. Checked: each
    /// is there, and a number where the parameter is one.
    std::map<std::string, std::string> arguments;
};
struct OperationResult {
    enum class Result { Done, DocumentOpen, NoDevice, Stopping };
    Result result = Result::Done;
    int status = 0;   ///< a FiscoraStatus, if Done
    int session = 0;  ///< under which it was called
    std::string answer;
};

class Dispatcher;

/// What the tills are served with: the journal, the dispatcher and who waits for them, behind one door. HTTP
/// only translates to and from this. Safe for threads; JournalError may come out of each method.
class Service {
  public:
    /// All three outlive the service. `queueLimit`: documents that may wait in the queue.
    Service(Journal& journal, Dispatcher& dispatcher, Changes& changes, std::size_t queueLimit);

    /// Whether new documents are taken: not after `stop`, nor while the journal cannot be written.
    bool takesDocuments() const;
    /// Takes no more documents and operations.
    void stop();

    Receipt submit(const Submission& submission);
    Journal::Withdrawal withdraw(std::string_view key, Kind kind, const std::optional<std::string>& till);
    std::optional<Document> find(std::string_view key);
    std::optional<std::string> signedDocument(std::int64_t id);
    std::vector<Document> list(const Filter& filter);

    DeviceState device() const;
    std::size_t queueLength();
    std::vector<Alarm> alarms();

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
