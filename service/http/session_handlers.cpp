#include <nlohmann/json.hpp>
#include <utility>

#include "http/handlers.h"
#include "http/problem.h"

namespace fiscorad::http {

void signIn(Context& context, Call& call) {
    const auto body = nlohmann::json::parse(call.request.body, nullptr, false);
    const auto token = body.is_object() ? body.find("token") : body.end();
    if (!body.is_object() || token == body.end() || !token->is_string())
        throw Rejection(problems::BODY, "O corpo deve ser {\"token\": \"...\"}.");
    auto answer = context.doorkeeper.signIn(call.request, token->get<std::string>());
    if (auto* refusal = std::get_if<Doorkeeper::Refusal>(&answer))
        return refuse(context, call.respond, std::move(*refusal));
    call.respond(std::move(std::get<Response>(answer)));
}

void showSession(Context& /*context*/, Call& call) { call.respond(Doorkeeper::session(call.who)); }

void signOut(Context& context, Call& call) { call.respond(context.doorkeeper.signOut(call.request)); }

}  // namespace fiscorad::http
