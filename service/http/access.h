#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>

#include "Service.h"
#include "access/Patience.h"
#include "access/Sessions.h"
#include "access/Token.h"
#include "http/message.h"

namespace fiscorad::http {

/// Who may use a route.
enum class Access { Public, Till, Administrator };

/// Says who makes a request, by its token (Authorization: Bearer, RFC 6750) or by the page's session cookie.
/// As long as there is no token, anyone on this machine is an administrator, and nobody else has access.
class Doorkeeper {
  public:
    /// Whether the page's cookie goes over TLS only.
    enum class Cookies { Plain, Secure };

    /// `service` outlives it.
    Doorkeeper(Service& service, Cookies cookies) : m_service(service), m_cookies(cookies) {}

    struct Refusal {
        Response response;
        std::chrono::milliseconds delay{0};  ///< before it is sent
    };
    /// Who it is, if they may; a handler for Access::Public gets nobody. Reads the journal.
    std::variant<Identity, Refusal> admit(const Request& request, Access access);

    /// Opens a session for an administrator's token. The response tells who it is, and sets the cookie.
    std::variant<Response, Refusal> signIn(const Request& request, const std::string& token);
    /// Tells who is signed in.
    static Response session(const Identity& who);
    Response signOut(const Request& request);

  private:
    Refusal wrongToken(const Request& request);
    std::optional<Refusal> forgery(const Request& request) const;
    std::variant<Identity, Refusal> identify(const Request& request);
    std::string cookieWith(const std::string& value, std::chrono::seconds life) const;

    Service& m_service;
    Cookies m_cookies;
    Sessions m_sessions;
    Patience m_patience;
};

}  // namespace fiscorad::http
