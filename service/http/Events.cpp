#include "http/Events.h"

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

std::shared_ptr<EventStream> Events::open() {
    auto stream = std::make_shared<EventStream>();
    stream->push(std::make_shared<const std::string>(deviceEvent()));
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_streams.push_back(stream);
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

void Events::beat() {
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
    for (const auto& stream : m_streams)
        if (auto listener = stream.lock()) alive.push_back(std::move(listener));
    m_streams.assign(alive.begin(), alive.end());
    return alive;
}

void Events::send(std::string event) {
    const auto shared = std::make_shared<const std::string>(std::move(event));
    for (const auto& stream : streams()) stream->push(shared);
}

}  // namespace fiscorad::http
