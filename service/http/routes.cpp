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
    Handler handler;
    Kind kind = Kind::Sale;
};

// clang-format off
constexpr std::array<Route, 17> ROUTES{{
    {"POST",   "/v1/vendas",                          submit},
    {"GET",    "/v1/vendas",                          list},
    {"GET",    "/v1/vendas/{chave}",                  show},
    {"DELETE", "/v1/vendas/{chave}",                  withdraw},
    {"GET",    "/v1/vendas/{chave}/documento",        sendSignedDocument},
    {"POST",   "/v1/cancelamentos",                   submit,             Kind::Cancellation},
    {"GET",    "/v1/cancelamentos",                   list,               Kind::Cancellation},
    {"GET",    "/v1/cancelamentos/{chave}",           show,               Kind::Cancellation},
    {"DELETE", "/v1/cancelamentos/{chave}",           withdraw,           Kind::Cancellation},
    {"GET",    "/v1/cancelamentos/{chave}/documento", sendSignedDocument, Kind::Cancellation},
    {"POST",   "/v1/operacoes/{nome}",                operate},
    {"GET",    "/v1/equipamento",                     showDevice},
    {"GET",    "/v1/eventos",                         streamEvents},
    {"GET",    "/v1/openapi.yaml",                    sendDescription},
    {"GET",    "/saude",                              showHealth},
    {"GET",    "/pronto",                             showReadiness},
    {"POST",   "/hub/v1/{funcao}",                    submitForm},
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
            Call call{std::move(request), route.kind, std::move(*name), respond};
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
        respond(problemResponse(problems::INTERNAL, "O serviço falhou; o motivo está no diário do sistema."));
    }
}

void route(Context& context, Request request, const Responder& respond) {
    answerOr(context.warn, respond, [&] { dispatch(context, std::move(request), respond); });
}

}  // namespace fiscorad::http
