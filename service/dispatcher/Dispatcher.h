#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Changes.h"
#include "dispatcher/ActivationCode.h"
#include "dispatcher/Equipment.h"
#include "dispatcher/device_state.h"
#include "journal/Journal.h"
#include "rules/rules.h"

namespace fiscorad {

/// The only one that calls the device: one thread, one call after the other. It keeps nothing in memory that
/// an outcome depends on, so it can end at any moment; what is open is then resolved by the next process.
class Dispatcher {
  public:
    using Clock = rules::Clock;
    using Done = std::function<void(const OperationResult&)>;

    struct Settings {
        std::string node;  ///< of this host
        std::function<Clock::time_point()> now = [] { return Clock::now(); };
        std::function<void(const std::string&)> warn = [](const std::string&) {};  ///< one line for the log
        std::function<void()> codeChanged = [] {};  ///< another activation code is in use now
        std::function<void(const LastCall&)> called = [](const LastCall&) {};  ///< after each call
    };

    /// All of them outlive the dispatcher.
    Dispatcher(Journal& journal, Equipment& equipment, ActivationCode& code, Changes& changes,
               Settings settings);

    /// Works until `stop`; a running call ends first.
    void run();

    // From any thread:
    void stop();
    /// There is something new in the queue.
    void wake();
    /// `done` is called on the thread of `run`, or here if that has ended.
    void operate(OperationRequest request, Done done);
    DeviceState device() const;
    /// Whether the thread of `run` does what it should: false if a step has taken longer than its call can
    /// take, so that only a restart will help.
    bool moves() const;

    /// One step, with one call to the device at most. Returns how long to pause before the next one, unless
    /// something new comes.
    std::chrono::milliseconds step();

  private:
    using Argument = manipulaDados::Argument;
    struct Call {
        rules::Reply reply;
        bool sameConnection = false;  ///< whether the terminal was the same before and after it
    };
    /// An attempt without an outcome, and what has been learned about it.
    struct Open {
        rules::Trial trial;
        rules::Inquiry inquiry;
        enum class Question { Status, Session, LastFiscal } next = Question::Status;
    };

    /// Whether an alarm stops all sending.
    enum class Halts { No, Yes };

    std::chrono::milliseconds dispatch();
    bool findsConnection();
    void expect(Clock::duration duration);

    Call call(const char* command, int session, const std::vector<Argument>& arguments);
    Call call(const manipulaDados::Operation& operation, int session, const std::vector<Argument>& all);
    Call ask(const char* command, const std::vector<Argument>& more = {});
    void unanswered();
    void answered();
    bool read();
    bool hasFreshReading() const;
    bool stands();

    std::chrono::milliseconds send(const Document& document);
    std::chrono::milliseconds resolve(const std::vector<Document>& open);
    void takeOver(const Document& document);
    std::chrono::milliseconds judgeByReading(const Document& document, const std::vector<Document>& open);
    void askForSession(const Document& document);
    void askForLastFiscal(const Document& document);
    void askAboutUndecided();

    void settle(const Attempt& attempt, State from, const Outcome& outcome);
    bool settleByProof(const rules::Trial& trial, State from, const rules::Proof& proof,
                       const std::string& evidence);
    void leaveToAPerson(const Document& document, const std::string& why);
    void alarm(const rules::DeviceRecord& record, Halts halts);

    bool hasOperation() const;
    void operate();
    OperationResult perform(const OperationRequest& request);
    /// Those of `which` alone.
    void failOperations(
        OperationResult::Result result, const std::function<bool(const OperationRequest&)>& which =
                                            [](const OperationRequest&) { return true; });

    void publishForeignChanges();
    void become(DeviceState::Condition condition, const std::string& resolving = "");

    Journal& m_journal;
    Equipment& m_equipment;
    ActivationCode& m_code;
    Changes& m_changes;
    Settings m_settings;

    bool m_codeRefused = false;
    std::optional<std::uint64_t> m_connection;
    std::string m_serial;                     ///< that m_connection has shown; empty if none yet
    std::optional<rules::Reading> m_reading;  ///< made on m_connection, with no call after it
    Clock::time_point m_readAt;
    bool m_halted = false;   ///< m_reading does not stand to the journal: nothing is sent
    bool m_greeted = false;  ///< m_connection has been read, and its undecided documents asked about
    std::vector<Document> m_undecided;  ///< to be asked about on m_connection
    Clock::time_point m_nextCall;       ///< not before this
    std::chrono::seconds m_pause{1};    ///< before the next call if one goes without an answer of its own
    std::optional<Open> m_open;
    bool m_operatedLast = false;  ///< the next turn is a document's
    std::int64_t m_foreignChanges = 0;
    std::set<std::int64_t> m_unsettled;  ///< documents that a person may decide about

    std::atomic<Clock::time_point> m_due;  ///< by then the thread has moved on

    mutable std::mutex m_mutex;  ///< of what follows
    std::condition_variable m_news;
    bool m_stopped = false;
    bool m_ended = false;
    bool m_awake = false;
    std::deque<std::pair<OperationRequest, Done>> m_operations;
    DeviceState m_state;
};

}  // namespace fiscorad
