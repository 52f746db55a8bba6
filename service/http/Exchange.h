#pragma once

#include <microhttpd.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "http/message.h"

namespace fiscorad::http {

class Daemon;

/// One request and its response. While it is handled its connection is suspended, so it costs no thread.
class Exchange : public std::enable_shared_from_this<Exchange> {
  public:
    Exchange(Daemon& daemon, MHD_Connection* connection, std::string target);

    // On the network's thread, called by the HTTP library:

    /// The head has arrived.
    MHD_Result takeHead(const char* method, const char* version);
    /// A piece of the body has arrived. MHD_NO closes the connection.
    MHD_Result takeBody(const char* bytes, std::size_t size);
    /// The request is complete, or its response is there.
    MHD_Result proceed();
    /// The response has left, or the connection is gone.
    void finish();

    bool hasHead() const { return m_hasHead; }

    /// From any thread; the first response counts.
    void respond(Response response);

  private:
    MHD_Result hangUp(const char* detail);
    MHD_Result answerNow(Response response);
    void refuse(Response response);
    void handle();
    void releaseBody();
    MHD_Result send();
    MHD_Response* makeResponse();
    ssize_t readEvents(char* bytes, std::size_t size);

    Daemon& m_daemon;
    Request m_request;
    std::size_t m_received = 0;                ///< bytes of the body
    std::atomic<std::size_t> m_largeBytes{0};  ///< of them, counted in Daemon::m_largeBodyBytes
    std::optional<Response> m_refusal;         ///< known before the body has ended
    bool m_hasHead = false;
    bool m_handled = false;

    std::mutex m_mutex;            ///< of what follows
    MHD_Connection* m_connection;  ///< null when it is over
    std::optional<Response> m_response;
};

}  // namespace fiscorad::http
