#include "http/routes.h"

#include <array>
#include <optional>
#include <utility>

#include "fields.h"
#include "http/Query.h"
#include "http/problem.h"
#include "http/text.h"

namespace fiscorad::http {
namespace {

struct Route {
    std::string_view method;
    std::string_view path;  ///< a part in braces is the call's name
    Access access;
    Handler handler;
    Kind kind = Kind::Sale;
};

// Handlers for tills hold a till's token to its own documents, and to the operations that tills may call.
// clang-format off
constexpr std::array<Route, 33> ROUTES{{
    {"POST",   "/v1/vendas",                          Access::Till,   submit},
    {"GET",    "/v1/vendas",                          Access::Till,   list},
    {"GET",    "/v1/vendas/{chave}",                  Access::Till,   show},
    {"DELETE", "/v1/vendas/{chave}",                  Access::Till,   withdraw},
    {"GET",    "/v1/vendas/{chave}/documento",        Access::Till,   sendSignedDocument},
    {"GET",    "/v1/vendas/{chave}/tentativas",       Access::Administrator, showAttempts},
    {"POST",   "/v1/vendas/{chave}/decisao",          Access::Administrator, decide},
    {"POST",   "/v1/cancelamentos",                   Access::Till,   submit,             Kind::Cancellation},
    {"GET",    "/v1/cancelamentos",                   Access::Till,   list,               Kind::Cancellation},
    {"GET",    "/v1/cancelamentos/{chave}",           Access::Till,   show,               Kind::Cancellation},
    {"DELETE", "/v1/cancelamentos/{chave}",           Access::Till,   withdraw,           Kind::Cancellation},
    {"GET",    "/v1/cancelamentos/{chave}/documento", Access::Till,   sendSignedDocument, Kind::Cancellation},
    {"GET",    "/v1/cancelamentos/{chave}/tentativas", Access::Administrator, showAttempts, Kind::Cancellation},
    {"POST",   "/v1/cancelamentos/{chave}/decisao",   Access::Administrator, decide,      Kind::Cancellation},
    {"POST",   "/v1/operacoes/{nome}",                Access::Till,   operate},
    {"GET",    "/v1/equipamento",                     Access::Till,   showDevice},
    {"POST",   "/v1/equipamento/confirmacao",         Access::Administrator, confirmDevice},
    {"GET",    "/v1/equipamento/diagnostico",         Access::Administrator, diagnoseDevice},
    {"GET",    "/v1/resumo",                          Access::Administrator, summarize},
    {"GET",    "/v1/chamadas",                        Access::Administrator, showCalls},
    {"GET",    "/",                                   Access::Public, sendPage},
    {"GET",    "/fiscorad.css",                       Access::Public, sendStyle},
    {"GET",    "/fiscorad.js",                        Access::Public, sendScript},
    {"GET",    "/fiscorad.svg",                       Access::Public, sendIcon},
    {"GET",    "/v1/eventos",                         Access::Administrator, streamEvents},
    {"POST",   "/v1/sessao",                          Access::Public, signIn},
    {"GET",    "/v1/sessao",                          Access::Till,   showSession},
    {"DELETE", "/v1/sessao",                          Access::Till,   signOut},
    {"GET",    "/v1/openapi.yaml",                    Access::Public, sendDescription},
    {"GET",    "/metrics",                            Access::Till,   showMetrics},
    {"GET",    "/saude",                              Access::Public, showHealth},
    {"GET",    "/pronto",                             Access::Public, showReadiness},
    {"POST",   "/hub/v1/{funcao}",                    Access::Till,   submitForm},
}};
// clang-format on

/// The name in `path` if the route's path matches it; empty if that has none.
std::optional<std::string> nameIn(std::string_view path, const Route& route) {
    const auto parts = fieldsOf(path, '/');
    const auto wanted = fieldsOf(route.path, '/');
    if (parts.size() != wanted.size()) return std::nullopt;
    std::string name;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const bool isName = !wanted[i].empty() && wanted[i].front() == '{';
        if (!isName && parts[i] != wanted[i]) return std::nullopt;
        if (!isName) continue;
        auto text = unescaped(parts[i]);
        if (!text)
            throw Rejection(problems::MALFORMED, "Há um \"%\" sem dois dígitos hexadecimais no caminho.");
        name = std::move(*text);
    }
    return name;
}

/// HEAD is a GET whose body is not sent.
std::string_view methodOf(const Request& request) {
    return request.method == "HEAD" ? std::string_view("GET") : std::string_view(request.method);
}

Response methodResponse(const std::string& allowed) {
    Response response = problemResponse(problems::METHOD, "Métodos permitidos: " + allowed + ".");
    response.headers.emplace_back("Allow", allowed);
    return response;
}

void dispatch(Context& context, Request request, const Responder& respond) {
    std::string allowed;
    for (const Route& route : ROUTES) {
        auto name = nameIn(pathOf(request), route);
        if (!name) continue;
        if (route.method == methodOf(request)) {
            auto admission = context.doorkeeper.admit(request, route.access);
            if (auto* refusal = std::get_if<Doorkeeper::Refusal>(&admission))
                return refuse(context, respond, std::move(*refusal));
            Call call{std::move(request), route.kind, std::move(*name), respond,
                      std::move(std::get<Identity>(admission))};
            return route.handler(context, call);
        }
        allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
        if (route.method == "GET") allowed += ", HEAD";
    }
    if (!allowed.empty()) return respond(methodResponse(allowed));
    throw Rejection(problems::NOT_FOUND, "O caminho não existe.");
}

}  // namespace

Response jsonResponse(int status, const nlohmann::json& body) {
    Response response;
    response.status = status;
    response.body = body.dump();
    return response;
}

void refuse(Context& context, const Responder& respond, Doorkeeper::Refusal refusal) {
    if (refusal.delay.count() == 0) return respond(std::move(refusal.response));
    context.workers.at(Workers::Clock::now() + refusal.delay,
                       [respond, response = std::move(refusal.response)] { respond(response); });
}

void answerOr(const Warn& warn, const Responder& respond, const std::function<void()>& answer) {
    try {
        answer();
    } catch (const Rejection& rejection) {
        respond(rejection.response());
    } catch (const JournalError& error) {
        warn(error.what());
        respond(problemResponse(problems::NOT_READY,
                                "O registro não pode ser lido ou gravado. Reenvie a mesma chave."));
    } catch (const std::exception& failure) {
        warn(std::string("cannot answer a request: ") + failure.what());
        respond(problemResponse(problems::INTERNAL, "O serviço falhou; o motivo está no log dele."));
    }
}

void route(Context& context, Request request, const Responder& respond) {
    answerOr(context.warn, respond, [&] { dispatch(context, std::move(request), respond); });
}

}  // namespace fiscorad::http
