#include "http/Events.h"

#include <algorithm>
#include <utility>

#include "http/representation.h"

namespace fiscorad::http {
namespace {

std::string eventText(const char* name, const nlohmann::json& data) {
    return std::string("event: ") + name + "\ndata: " + data.dump() + "\n\n";
}

}  // namespace

Events::Events(Service& service, Workers& workers, std::chrono::milliseconds heartbeat)
    : m_service(service), m_workers(workers), m_heartbeat(heartbeat) {
    m_subscription = service.changes().watchAll([this](const Document& document) { tellDocument(document); },
                                                [this] {
                                                    if (!m_deviceToTell.exchange(true))
                                                        m_workers.post([this] { tellDevice(); });
                                                });
    m_workers.at(Workers::Clock::now() + m_heartbeat, [this] { beat(); });
}

std::shared_ptr<EventStream> Events::open(std::function<bool()> mayListen) {
    auto stream = std::make_shared<EventStream>();
    stream->push(std::make_shared<const std::string>(deviceEvent()));
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_listeners.push_back({stream, std::move(mayListen)});
    if (m_stopped) stream->end();
    return stream;
}

void Events::stop() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
    }
    for (const auto& stream : streams()) stream->end();
}

void Events::tellDocument(const Document& document) {
    if (!streams().empty()) send(eventText("documento", representationOf(document)));
}

void Events::tellDevice() {
    m_deviceToTell = false;
    if (streams().empty()) return;
    try {
        send(deviceEvent());
    } catch (const JournalError&) {
        // The next change tells it; who asks for the device gets the error.
    }
}

/// Those whose session has ended, or whose token was revoked.
void Events::endUninvited() {
    std::vector<Listener> listeners;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        listeners = m_listeners;
    }
    for (const Listener& listener : listeners) {
        const auto stream = listener.stream.lock();
        if (stream && !listener.mayListen()) stream->end();
    }
}

void Events::beat() {
    endUninvited();
    send(":\n\n");
    m_workers.at(Workers::Clock::now() + m_heartbeat, [this] { beat(); });
}

std::string Events::deviceEvent() {
    return eventText("equipamento",
                     representationOf(m_service.device(), m_service.queueLength(), m_service.alarms()));
}

std::vector<std::shared_ptr<EventStream>> Events::streams() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::shared_ptr<EventStream>> alive;
    for (const Listener& listener : m_listeners)
        if (auto stream = listener.stream.lock()) alive.push_back(std::move(stream));
    m_listeners.erase(std::remove_if(m_listeners.begin(), m_listeners.end(),
                                     [](const Listener& listener) { return listener.stream.expired(); }),
                      m_listeners.end());
    return alive;
}

void Events::send(std::string event) {
    const auto shared = std::make_shared<const std::string>(std::move(event));
    for (const auto& stream : streams()) stream->push(shared);
}

}  // namespace fiscorad::http
