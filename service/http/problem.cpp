#include "http/problem.h"

#include "terminal_text.h"

namespace fiscorad::http {

Response problemResponse(const Problem& problem, const std::string& detail, nlohmann::json members) {
    nlohmann::json body = std::move(members);
    body["type"] = std::string("/problemas/") + problem.name;
    body["title"] = problem.title;
    body["status"] = problem.status;
    body["detail"] = tool::toUtf8(detail);
    Response response{problem.status, "application/problem+json", body.dump(), {}, nullptr};
    if (problem.retryAfter > 0)
        response.headers.emplace_back("Retry-After", std::to_string(problem.retryAfter));
    return response;
}

}  // namespace fiscorad::http
