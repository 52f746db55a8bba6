#include "http/access.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "fields.h"
#include "http/Query.h"
#include "http/handlers.h"
#include "http/problem.h"
#include "time_text.h"

namespace fiscorad::http {
namespace {

using nlohmann::json;

constexpr std::string_view COOKIE = "fiscorad";
constexpr std::string_view SCHEME = "bearer ";
/// A page on another site can send forms here, but no header of its own.
constexpr std::string_view OWN_HEADER = "x-fiscorad";
constexpr char NOBODY[] = "sem token";

/// The header's value; empty if it is not there or comes more than once.
std::string_view headerOf(const Request& request, const std::string& name) {
    const auto [first, last] = request.headers.equal_range(name);
    return first != last && std::next(first) == last ? trimmed(first->second) : std::string_view();
}

bool isLoopback(std::string_view address) {
    constexpr std::string_view MAPPED = "::ffff:";
    if (address.substr(0, MAPPED.size()) == MAPPED) address.remove_prefix(MAPPED.size());
    return address == "::1" || address.substr(0, 4) == "127.";
}

/// Whether the header Host may name this machine. A page on another site reaches it under a name of its own,
/// which it lets point here; that one has a dot.
bool mayNameThisMachine(std::string_view host) {
    if (host.empty()) return true;  // HTTP/1.0
    if (host.front() == '[') return host.substr(0, 5) == "[::1]";
    const std::string_view name = host.substr(0, host.find(':'));
    const bool address = name.find_first_not_of("0123456789.") == std::string_view::npos;
    return name.find('.') == std::string_view::npos || (address && isLoopback(name));
}

std::optional<std::string> tokenIn(const Request& request) {
    const std::string_view header = headerOf(request, "authorization");
    std::string scheme(header.substr(0, SCHEME.size()));
    for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (scheme != SCHEME) return std::nullopt;
    return std::string(trimmed(header.substr(SCHEME.size())));
}

std::optional<std::string> cookieIn(const Request& request) {
    for (const std::string_view cookie : fieldsOf(headerOf(request, "cookie"), ';')) {
        const std::string_view pair = trimmed(cookie);
        if (pair.substr(0, COOKIE.size()) == COOKIE && pair.substr(COOKIE.size(), 1) == "=")
            return std::string(pair.substr(COOKIE.size() + 1));
    }
    return std::nullopt;
}

bool onlyReads(const Request& request) { return request.method == "GET" || request.method == "HEAD"; }

Identity identityOf(const Token& token) { return {token.role, token.name, token.name}; }

Doorkeeper::Refusal refusal(const Problem& problem, const std::string& detail) {
    return {problemResponse(problem, detail), {}};
}

Doorkeeper::Refusal unknown(const std::string& detail) {
    Doorkeeper::Refusal refused = refusal(problems::NOT_SIGNED_IN, detail);
    refused.response.headers.emplace_back("WWW-Authenticate", "Bearer realm=\"fiscorad\"");
    return refused;
}

}  // namespace

std::variant<Identity, Doorkeeper::Refusal> Doorkeeper::admit(const Request& request, Access access) {
    if (access == Access::Public) return Identity{};
    auto who = identify(request);
    if (const auto* identity = std::get_if<Identity>(&who);
        identity != nullptr && access == Access::Administrator && identity->role != Role::Administrator)
        return refusal(problems::FORBIDDEN, "Isto é só para quem administra o serviço.");
    return who;
}

std::variant<Identity, Doorkeeper::Refusal> Doorkeeper::identify(const Request& request) {
    if (const auto secret = tokenIn(request)) {
        if (const auto token = m_service.findToken(hashOf(*secret))) return identityOf(*token);
        return wrongToken(request);
    }
    if (request.headers.count("authorization") != 0)
        return unknown("O cabeçalho Authorization deve ser \"Bearer\" e o token.");
    if (!m_service.hasTokens()) {
        if (!isLoopback(request.peer) || !mayNameThisMachine(headerOf(request, "host")))
            return refusal(problems::FORBIDDEN,
                           "Sem tokens, só este computador é atendido: fiscorad token add.");
        if (auto forged = forgery(request)) return std::move(*forged);
        return Identity{Role::Administrator, NOBODY, std::nullopt};
    }
    if (const auto cookie = cookieIn(request)) {
        const auto hash = m_sessions.find(*cookie);
        const auto token = hash ? m_service.findToken(*hash) : std::nullopt;
        if (token) {
            if (auto forged = forgery(request)) return std::move(*forged);
            if (!onlyReads(request) && request.headers.count(std::string(OWN_HEADER)) == 0)
                return refusal(problems::FORGED, "Falta o cabeçalho X-Fiscorad.");
            return identityOf(*token);
        }
    }
    return unknown("É preciso um token: Authorization: Bearer.");
}

/// Whether another site's page may have sent the request in the name of its reader.
std::optional<Doorkeeper::Refusal> Doorkeeper::forgery(const Request& request) const {
    if (onlyReads(request)) return std::nullopt;
    const std::string_view site = headerOf(request, "sec-fetch-site");
    const std::string_view origin = headerOf(request, "origin");
    const std::string_view scheme = m_cookies == Cookies::Secure ? "https://" : "http://";
    const bool sameSite = site.empty() || site == "same-origin" || site == "none";
    const bool sameOrigin = request.headers.count("origin") == 0 ||
                            origin == std::string(scheme).append(headerOf(request, "host"));
    if (sameSite && sameOrigin) return std::nullopt;
    return refusal(problems::FORGED, "O pedido vem da página de outro site.");
}

Doorkeeper::Refusal Doorkeeper::wrongToken(const Request& request) {
    Refusal refused = unknown("O token é desconhecido ou foi revogado.");
    refused.delay = m_patience.afterWrong(request.peer, Patience::Clock::now());
    return refused;
}

std::variant<Response, Doorkeeper::Refusal> Doorkeeper::signIn(const Request& request,
                                                               const std::string& secret) {
    if (auto forged = forgery(request)) return std::move(*forged);
    const auto token = m_service.findToken(hashOf(secret));
    if (!token) return wrongToken(request);
    if (token->role != Role::Administrator)
        return refusal(problems::FORBIDDEN, "Este token é de um caixa; a página é para quem administra.");
    m_service.recordAction(token->name, "entrada", request.peer);
    Response response = session(identityOf(*token));
    response.headers.emplace_back("Set-Cookie", cookieWith(m_sessions.open(token->hash), Sessions::LIFE));
    return response;
}

Response Doorkeeper::session(const Identity& who) {
    if (!who.till) return jsonResponse(200, {{"semToken", true}});
    return jsonResponse(200, {{"nome", who.person},
                              {"administra", who.role == Role::Administrator},
                              {"expira", timeText(std::chrono::system_clock::now() + Sessions::LIFE)}});
}

Response Doorkeeper::signOut(const Request& request) {
    if (const auto cookie = cookieIn(request)) m_sessions.close(*cookie);
    Response response;
    response.status = 204;
    response.headers.emplace_back("Set-Cookie", cookieWith("", std::chrono::seconds(0)));
    return response;
}

std::string Doorkeeper::cookieWith(const std::string& value, std::chrono::seconds life) const {
    return std::string(COOKIE) + "=" + value +
           "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(life.count()) +
           (m_cookies == Cookies::Secure ? "; Secure" : "");
}

}  // namespace fiscorad::http
