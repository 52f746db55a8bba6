#pragma once

#include <microhttpd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "http/Workers.h"
#include "http/message.h"

namespace fiscorad::http {

class Exchange;

/// HTTP itself: requests come in whole, responses go out, and a client that is too slow or sends too much is
/// cut off. It knows nothing of documents.
///
/// It uses GNU libmicrohttpd, in which a waiting till costs no thread, because its connection is suspended,
/// and the memory of a connection is limited. cpp-httplib gives each connection a thread, lets five wait to
/// be accepted, and reads header lines without end.
class Daemon {
  public:
    struct Settings {
        std::string address;
        std::uint16_t port = 0;
        std::string certificate, key;           ///< see Server::Settings
        std::chrono::milliseconds patience{0};  ///< see Server::Settings
        std::function<std::size_t()> maxBodyBytes;
    };
    /// Answers a request. Called on a worker's thread; throws nothing.
    using Handle = std::function<void(Request, const Responder&)>;

    /// Listens. Throws std::runtime_error if it cannot.
    Daemon(Settings settings, Workers& workers, Handle handle);
    /// `workers` must have stopped. Requests without an answer get 503.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    std::uint16_t port() const { return m_port; }
    bool isSecure() const { return !m_settings.certificate.empty(); }
    /// Waits until all requests that have arrived are answered, at most `limit`.
    void drain(std::chrono::milliseconds limit);

  private:
    friend class Exchange;
    using Clock = Workers::Clock;
    struct Callbacks;

    /// A connection as long as it is open.
    struct Peer {
        int fd = -1;
        Clock::time_point deadline;
    };
    void setDeadline(MHD_Connection* connection, Clock::time_point deadline);
    Clock::time_point soon() const { return Clock::now() + m_settings.patience; }
    void closeTheLate();

    /// False if no more requests are handled.
    bool begin(const std::shared_ptr<Exchange>& exchange);
    void end(const std::shared_ptr<Exchange>& exchange);

    Settings m_settings;
    Workers& m_workers;
    Handle m_handle;
    std::uint16_t m_port = 0;
    std::atomic<std::size_t> m_largeBodyBytes{0};  ///< held by bodies beyond what each may always have

    std::mutex m_mutex;  ///< of what follows
    std::condition_variable m_ended;
    std::map<MHD_Connection*, Peer> m_peers;
    std::set<std::shared_ptr<Exchange>> m_exchanges;  ///< whose request has arrived
    bool m_closed = false;

    MHD_Daemon* m_daemon = nullptr;
};

}  // namespace fiscorad::http
