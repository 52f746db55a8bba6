#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "Service.h"
#include "http/Workers.h"

namespace fiscorad::http {

/// Where requests wait for the outcome of their document, without a thread of their own.
class WaitingRoom {
  public:
    /// Gets the document as it is when the waiting ends. Called once, perhaps on the thread that made the
    /// change, so it must be quick and may not read the journal.
    using Answer = std::function<void(const Document&)>;

    /// Both outlive it, but `workers` must have stopped before it goes.
    WaitingRoom(Service& service, Workers& workers) : m_service(service), m_workers(workers) {}
    ~WaitingRoom();

    /// Calls `answer` when the document has an outcome or a person must decide, at the latest after `limit`,
    /// or when the room closes. Reads the journal.
    void wait(const Document& document, std::chrono::milliseconds limit, Answer answer);
    /// Ends all waiting, now and from now on.
    void close();

  private:
    struct Guest;
    bool enter(const std::shared_ptr<Guest>& guest);
    void listen(const std::shared_ptr<Guest>& guest, std::int64_t document);
    void leave(const std::shared_ptr<Guest>& guest);

    Service& m_service;
    Workers& m_workers;
    std::mutex m_mutex;
    bool m_closed = false;
    /// Each guest with its subscription. A guest does not own it, since a subscription must not end on the
    /// thread that is calling its listener.
    std::map<std::shared_ptr<Guest>, Changes::Subscription> m_guests;
};

}  // namespace fiscorad::http
