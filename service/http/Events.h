#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Service.h"
#include "http/EventStream.h"
#include "http/Workers.h"

namespace fiscorad::http {

/// Tells all who listen what changes, as server-sent events: "documento" and "equipamento" with their
/// representation, and a comment now and then, by which both ends notice that the other is gone.
class Events {
  public:
    /// Both outlive it, but `workers` must have stopped before it goes.
    Events(Service& service, Workers& workers, std::chrono::milliseconds heartbeat);

    /// A listener's stream; the first event is the device's state now. With each comment `mayListen` is
    /// asked again, and the stream ends if it says no. Reads the journal.
    std::shared_ptr<EventStream> open(std::function<bool()> mayListen);
    /// Ends all streams.
    void stop();

  private:
    void tellDocument(const Document& document);
    void tellDevice();
    void beat();
    std::string deviceEvent();
    std::vector<std::shared_ptr<EventStream>> streams();
    void endUninvited();
    void send(std::string event);

    Service& m_service;
    Workers& m_workers;
    std::chrono::milliseconds m_heartbeat;
    std::mutex m_mutex;
    bool m_stopped = false;
    struct Listener {
        std::weak_ptr<EventStream> stream;
        std::function<bool()> mayListen;
    };
    std::vector<Listener> m_listeners;
    std::atomic<bool> m_deviceToTell{false};
    Changes::Subscription m_subscription;  ///< last, so that it ends first
};

}  // namespace fiscorad::http
