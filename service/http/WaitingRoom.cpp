#include "http/WaitingRoom.h"

#include <optional>
#include <utility>
#include <vector>

namespace fiscorad::http {
namespace {

/// Whether waiting longer is of no use.
bool isSettled(State state) { return isFinal(state) || state == State::Undecided; }

}  // namespace

/// One request that waits.
struct WaitingRoom::Guest {
    Guest(Document document, Answer answer) : m_document(std::move(document)), m_answer(std::move(answer)) {}

    /// Takes note of the document; true if that ended the waiting.
    bool see(const Document& document) {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_document = document;
        }
        return isSettled(document.state) && dismiss();
    }

    /// Answers, unless that was done; true if it was not.
    bool dismiss() {
        Answer answer;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            answer = std::exchange(m_answer, nullptr);
        }
        if (!answer) return false;
        answer(m_document);
        return true;
    }

  private:
    std::mutex m_mutex;
    Document m_document;
    Answer m_answer;
};

WaitingRoom::~WaitingRoom() { close(); }

void WaitingRoom::wait(const Document& document, std::chrono::milliseconds limit, Answer answer) {
    const auto guest = std::make_shared<Guest>(document, std::move(answer));
    if (limit.count() <= 0 || isSettled(document.state) || !enter(guest)) {
        guest->dismiss();
        return;
    }
    listen(guest, document.id);
    m_workers.at(Workers::Clock::now() + limit, [this, known = std::weak_ptr<Guest>(guest)] {
        if (const auto waiting = known.lock()) leave(waiting);
    });
    // Read only now that changes are heard of, so that none is missed.
    if (const auto now = m_service.find(document.key); now && guest->see(*now)) leave(guest);
}

void WaitingRoom::close() {
    std::vector<std::shared_ptr<Guest>> guests;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        for (const auto& [guest, listening] : m_guests) guests.push_back(guest);
    }
    for (const auto& guest : guests) guest->dismiss();
}

/// False if the room is closed.
bool WaitingRoom::enter(const std::shared_ptr<Guest>& guest) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_closed) m_guests[guest];
    return !m_closed;
}

void WaitingRoom::listen(const std::shared_ptr<Guest>& guest, std::int64_t document) {
    auto listening = m_service.changes().watch(document, [this, guest](const Document& now) {
        if (guest->see(now)) m_workers.post([this, guest] { leave(guest); });
    });
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto entry = m_guests.find(guest);
    if (entry != m_guests.end()) entry->second = std::move(listening);
}

void WaitingRoom::leave(const std::shared_ptr<Guest>& guest) {
    guest->dismiss();
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto entry = m_guests.extract(guest);  // ends the listening without the lock
    lock.unlock();
}

}  // namespace fiscorad::http
