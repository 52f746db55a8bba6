#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace fiscorad::http {

class EventStream;

/// A request whose head and body have arrived.
struct Request {
    std::string method;
    std::string target;                               ///< path and query as they came, escapes and all
    std::multimap<std::string, std::string> headers;  ///< names in lower case
    std::string body;
    std::string peer;  ///< the other end's IP address
};

struct Response {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  ///< others than Content-Type
    std::shared_ptr<EventStream> events;                       ///< if set, sent in place of `body`
};

/// Answers one request, from any thread; the first response counts.
using Responder = std::function<void(Response)>;

}  // namespace fiscorad::http
