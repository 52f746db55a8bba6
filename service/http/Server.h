#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "CallHistory.h"
#include "Service.h"

namespace fiscorad::http {

/// Serves the tills. From the constructor to the destructor, in threads of its own.
class Server {
  public:
    struct Settings {
        std::string address = "127.0.0.1";  ///< IPv4 or IPv6
        std::uint16_t port = 0;             ///< 0: a free one
        std::size_t maxDocumentBytes = 0;
        /// Certificate chain and private key as PEM; empty: plain HTTP. TLS 1.2 and later.
        std::string certificate, key;
        /// How long the form API waits for a document's outcome.
        std::chrono::milliseconds formWait = std::chrono::seconds(120);
        /// Between two comments in a stream of events.
        std::chrono::milliseconds heartbeat = std::chrono::seconds(15);
        /// Time for a whole request to arrive, counted from the connection or the previous answer, and for a
        /// whole answer to leave; after that the connection is closed.
        std::chrono::milliseconds patience = std::chrono::seconds(60);
        std::function<std::string()> metrics = [] { return std::string(); };  ///< in Prometheus' text format
        std::function<void(const std::string&)> warn = [](const std::string&) {};  ///< one line for the log
    };

    /// Listens. `service` and `calls` outlive the server. Throws std::runtime_error with a text for the log
    /// if it cannot, such as because the port is taken.
    Server(Service& service, const CallHistory& calls, const Settings& settings);
    /// Stops, and gives the answers that are under way a few seconds to leave.
    ~Server();

    std::uint16_t port() const;
    /// The longest document that the library accepts, which depends on the activation code's length.
    void setMaxDocumentBytes(std::size_t bytes);
    /// From now on new documents get 503, and requests that wait for a document get it as it is. Goes on
    /// listening.
    void stop();

  private:
    struct Rooms;
    std::unique_ptr<Rooms> m_rooms;
};

}  // namespace fiscorad::http
