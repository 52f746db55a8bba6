#include "Service.h"

#include "dispatcher/Dispatcher.h"

namespace fiscorad {

Service::Service(Journal& journal, Dispatcher& dispatcher, Changes& changes, std::size_t queueLimit)
    : m_journal(journal), m_dispatcher(dispatcher), m_changes(changes), m_queueLimit(queueLimit) {}

bool Service::takesDocuments() {
    if (m_stopped) return false;
    if (!m_journalFails) return true;
    try {
        m_journal.tryToWrite();
        m_journalFails = false;
    } catch (const JournalError&) {
        return false;
    }
    return true;
}

void Service::stop() { m_stopped = true; }

Receipt Service::submit(const Submission& submission) {
    try {
        Receipt receipt = m_journal.submit(submission, m_queueLimit);
        m_journalFails = false;
        if (receipt.result == Receipt::Result::Accepted) {
            m_changes.publish(receipt.document);
            m_dispatcher.wake();
        }
        return receipt;
    } catch (const JournalError&) {
        m_journalFails = true;  // until a document can be written again
        throw;
    }
}

Journal::Withdrawal Service::withdraw(std::string_view key, Kind kind, const Identity& who) {
    Journal::Withdrawal withdrawal = m_journal.withdraw(key, kind, who);
    if (withdrawal.withdrawn) m_changes.publish(withdrawal.document);
    return withdrawal;
}

std::optional<Document> Service::find(std::string_view key) { return m_journal.find(key); }

std::optional<std::string> Service::signedDocument(std::int64_t id) { return m_journal.signedDocument(id); }

std::vector<Document> Service::list(const Filter& filter) { return m_journal.list(filter); }

std::optional<Document> Service::decide(std::string_view key, const Ruling& ruling) {
    auto document = m_journal.rule(key, ruling);
    if (document) {
        m_changes.publish(*document);
        m_dispatcher.wake();
    }
    return document;
}

void Service::confirmDevice(const std::string& person, const std::string& reason) {
    for (const Alarm& alarm : m_journal.alarms()) m_journal.confirm(alarm.id, person, reason);
    m_dispatcher.wake();
    m_changes.publishDevice();
}

DeviceState Service::device() const { return m_dispatcher.device(); }

std::size_t Service::queueLength() { return m_journal.queueLength(); }

std::vector<Alarm> Service::alarms() { return m_journal.alarms(); }

void Service::operate(OperationRequest request, std::function<void(const OperationResult&)> done) {
    if (m_stopped) return done({OperationResult::Result::Stopping, 0, 0, ""});
    m_dispatcher.operate(std::move(request), std::move(done));
}

}  // namespace fiscorad
