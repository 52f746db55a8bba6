#include "http/Server.h"

#include <atomic>
#include <utility>

#include "http/Daemon.h"
#include "http/Events.h"
#include "http/WaitingRoom.h"
#include "http/Workers.h"
#include "http/handlers.h"
#include "http/routes.h"

namespace fiscorad::http {
namespace {

/// More would only wait for each other in the journal.
constexpr std::size_t WORKERS = 4;
/// In a form, each byte of a document may be an escape of three.
constexpr std::size_t ESCAPED = 3;
constexpr std::size_t OTHER_FIELDS_BYTES = std::size_t{64} * 1024;

constexpr std::chrono::seconds LAST_ANSWERS{5};

}  // namespace

struct Server::Rooms {
    Rooms(Service& service, const CallHistory& calls, const Settings& settings)
        : maxDocumentBytes(settings.maxDocumentBytes),
          workers(WORKERS),
          waiting(service, workers),
          events(service, workers, settings.heartbeat),
          doorkeeper(service,
                     settings.certificate.empty() ? Doorkeeper::Cookies::Plain : Doorkeeper::Cookies::Secure),
          context{service,      workers,          waiting, events,           doorkeeper,
                  calls,        settings.metrics, stopped, maxDocumentBytes, settings.formWait,
                  settings.warn},
          daemon({settings.address, settings.port, settings.certificate, settings.key, settings.patience,
                  [this] { return ESCAPED * maxDocumentBytes + OTHER_FIELDS_BYTES; }},
                 workers, [this](Request request, const Responder& respond) {
                     route(context, std::move(request), respond);
                 }) {}
    ~Rooms() { workers.stop(); }

    void stop() {
        stopped = true;
        waiting.close();
        events.stop();
    }

    std::atomic<bool> stopped{false};
    std::atomic<std::size_t> maxDocumentBytes;
    Workers workers;
    WaitingRoom waiting;
    Events events;
    Doorkeeper doorkeeper;
    Context context;
    Daemon daemon;
};

Server::Server(Service& service, const CallHistory& calls, const Settings& settings)
    : m_rooms(std::make_unique<Rooms>(service, calls, settings)) {}

Server::~Server() {
    stop();
    m_rooms->daemon.drain(LAST_ANSWERS);
}

std::uint16_t Server::port() const { return m_rooms->daemon.port(); }

void Server::setMaxDocumentBytes(std::size_t bytes) { m_rooms->maxDocumentBytes = bytes; }

void Server::stop() { m_rooms->stop(); }

}  // namespace fiscorad::http
