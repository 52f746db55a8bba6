#include "http/Exchange.h"

#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include "http/Daemon.h"
#include "http/EventStream.h"
#include "http/Query.h"
#include "http/problem.h"

namespace fiscorad::http {
namespace {

/// A body up to this size is always taken; larger ones share LARGE_BODIES_BYTES.
constexpr std::size_t SMALL_BODY_BYTES = std::size_t{64} * 1024;
constexpr std::size_t LARGE_BODIES_BYTES = std::size_t{48} * 1024 * 1024;

constexpr std::size_t EVENT_BLOCK_BYTES = std::size_t{8} * 1024;

/// The head of a request in the HTTP library's memory, from its first byte to its last.
struct Head {
    decltype(Request::headers) headers;
    const char* end;      ///< of the piece taken last
    bool isWhole = true;  ///< whether nothing but line ends lies between the pieces
};

/// Up to here, the HTTP library ends each piece of a head at its first NUL: two keys would become one.
constexpr bool CUTS_AT_NUL = MHD_VERSION < 0x01000000;

void skipLineEnds(Head& head, const char* next, std::ptrdiff_t lines) {
    constexpr std::ptrdiff_t LINE_END = 2;
    if (CUTS_AT_NUL && next - head.end > lines * LINE_END) head.isWhole = false;
}

MHD_Result takeHeader(void* context, MHD_ValueKind /*kind*/, const char* name, std::size_t nameSize,
                      const char* value, std::size_t valueSize) noexcept {
    Head& head = *static_cast<Head*>(context);
    skipLineEnds(head, name, 1);
    if (value == nullptr) value = name + nameSize;
    head.end = value + valueSize;
    std::string key(name, nameSize);
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    head.headers.emplace(std::move(key), std::string(value, valueSize));
    return MHD_YES;
}

/// The connection's head, which begins with `method`.
Head headOf(MHD_Connection* connection, const char* method, const std::string& target, const char* version) {
    Head head{{}, version + std::strlen(version)};
    const auto requestLine = static_cast<std::ptrdiff_t>(std::strlen(method) + target.size() + 2);
    if (CUTS_AT_NUL && version - method != requestLine) head.isWhole = false;
    MHD_get_connection_values_n(connection, MHD_HEADER_KIND, takeHeader, &head);
    const auto size =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE)->header_size;
    skipLineEnds(head, method + size, 2);
    return head;
}

bool hasHeader(const Response& response, std::string_view name) {
    return std::any_of(response.headers.begin(), response.headers.end(),
                       [&](const auto& header) { return header.first == name; });
}

/// Whether everybody on the way reads the same length of the body: one Content-Length of digits, or one
/// Transfer-Encoding "chunked". Otherwise a request could be hidden in the body of another (RFC 9112, 11.2).
bool hasOneLength(const Request& request) {
    const auto [length, afterLengths] = request.headers.equal_range("content-length");
    const auto [encoding, afterEncodings] = request.headers.equal_range("transfer-encoding");
    const auto lengths = std::distance(length, afterLengths);
    const auto encodings = std::distance(encoding, afterEncodings);
    if (lengths + encodings > 1) return false;
    if (lengths == 1)
        return !length->second.empty() && length->second.find_first_not_of("0123456789") == std::string::npos;
    return encodings == 0 || strcasecmp(encoding->second.c_str(), "chunked") == 0;
}

std::string addressOf(MHD_Connection* connection) {
    const sockaddr* const address =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr;
    const socklen_t size = address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    std::array<char, NI_MAXHOST> name{};
    getnameinfo(address, size, name.data(), name.size(), nullptr, 0, NI_NUMERICHOST);
    return name.data();
}

/// What browsers are to keep to, as OWASP's list of secure headers has it.
constexpr std::array<std::pair<const char*, const char*>, 6> SECURITY_HEADERS{{
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
     "form-action 'self'; base-uri 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
}};
constexpr char ONLY_TLS[] = "max-age=31536000";

}  // namespace

Exchange::Exchange(Daemon& daemon, MHD_Connection* connection, std::string target)
    : m_daemon(daemon), m_connection(connection) {
    m_request.target = std::move(target);
    m_request.peer = addressOf(connection);
}

MHD_Result Exchange::takeHead(const char* method, const char* version) {
    m_hasHead = true;
    m_request.method = method;
    Head head = headOf(m_connection, method, m_request.target, version);
    m_request.headers = std::move(head.headers);
    if (!head.isWhole)
        return hangUp("O cabeçalho da requisição tem um byte zero ou uma linha partida (RFC 9112, 5).");
    if (!hasOneLength(m_request)) return hangUp("O tamanho do corpo não está claro (RFC 9112, 6.3).");
    const auto length = m_request.headers.find("content-length");
    const bool known = length != m_request.headers.end();
    // A client that sent Expect: 100-continue is refused now; others only after they have sent the body,
    // since until then they would not read the answer.
    if (known && m_request.headers.count("expect") != 0 &&
        std::strtoull(length->second.c_str(), nullptr, 10) > m_daemon.m_settings.maxBodyBytes())
        return answerNow(bodyTooLarge(m_daemon.m_settings.maxBodyBytes()).response());
    return MHD_YES;
}

/// Refuses a request of which it is not clear where it ends, and the next one begins.
MHD_Result Exchange::hangUp(const char* detail) {
    Response refusal = problemResponse(problems::MALFORMED, detail);
    refusal.headers.emplace_back("Connection", "close");
    return answerNow(std::move(refusal));
}

/// Before the body has come.
MHD_Result Exchange::answerNow(Response response) {
    m_handled = true;
    m_response = std::move(response);
    return send();
}

MHD_Result Exchange::takeBody(const char* bytes, std::size_t size) {
    const std::size_t most = m_daemon.m_settings.maxBodyBytes();
    m_received += size;
    if (m_received > 2 * most) return MHD_NO;
    if (m_refusal) return MHD_YES;
    if (m_received > most) {
        refuse(bodyTooLarge(most).response());
        return MHD_YES;
    }
    if (m_received > SMALL_BODY_BYTES) {
        const std::size_t more = m_received - SMALL_BODY_BYTES - m_largeBytes;
        m_largeBytes += more;
        if ((m_daemon.m_largeBodyBytes += more) > LARGE_BODIES_BYTES) {
            refuse(problemResponse(problems::OVERLOADED, "Reenvie a mesma chave em alguns segundos."));
            return MHD_YES;
        }
    }
    m_request.body.append(bytes, size);
    return MHD_YES;
}

MHD_Result Exchange::proceed() {
    if (m_handled) return send();
    m_handled = true;
    if (!m_daemon.begin(shared_from_this())) return MHD_NO;
    m_daemon.setDeadline(m_connection, Daemon::Clock::time_point::max());
    MHD_suspend_connection(m_connection);
    m_daemon.m_workers.post([self = shared_from_this()] { self->handle(); });
    return MHD_YES;
}

void Exchange::handle() {
    if (m_refusal) return respond(std::move(*m_refusal));
    m_daemon.m_handle(std::move(m_request),
                      [self = shared_from_this()](Response response) { self->respond(std::move(response)); });
    releaseBody();
}

void Exchange::respond(Response response) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_connection == nullptr || m_response) return;
    m_response = std::move(response);
    MHD_resume_connection(m_connection);
}

void Exchange::finish() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_daemon.setDeadline(m_connection, m_daemon.soon());
        m_connection = nullptr;
    }
    releaseBody();
    m_daemon.end(shared_from_this());
}

void Exchange::refuse(Response response) {
    m_refusal = std::move(response);
    std::string().swap(m_request.body);  // assignment would keep its memory
    releaseBody();
}

void Exchange::releaseBody() { m_daemon.m_largeBodyBytes -= m_largeBytes.exchange(0); }

MHD_Result Exchange::send() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_response) return MHD_YES;
    m_daemon.setDeadline(m_connection, m_daemon.soon());
    const std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)> response(makeResponse(),
                                                                                  MHD_destroy_response);
    if (!response) return MHD_NO;
    if (m_response->status != MHD_HTTP_NO_CONTENT)
        MHD_add_response_header(response.get(), "Content-Type", m_response->type.c_str());
    for (const auto& [name, value] : SECURITY_HEADERS) MHD_add_response_header(response.get(), name, value);
    if (m_daemon.isSecure()) MHD_add_response_header(response.get(), "Strict-Transport-Security", ONLY_TLS);
    if (!hasHeader(*m_response, "Cache-Control"))
        MHD_add_response_header(response.get(), "Cache-Control", "no-store");
    for (const auto& [name, value] : m_response->headers)
        MHD_add_response_header(response.get(), name.c_str(), value.c_str());
    return MHD_queue_response(m_connection, static_cast<unsigned>(m_response->status), response.get());
}

/// What is sent stays in this exchange, which lives until then.
MHD_Response* Exchange::makeResponse() {
    std::string& body = m_response->body;
    if (!m_response->events)
        return MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_PERSISTENT);
    const auto read = [](void* self, std::uint64_t /*position*/, char* bytes, std::size_t size) noexcept {
        return static_cast<Exchange*>(self)->readEvents(bytes, size);
    };
    return MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, EVENT_BLOCK_BYTES, read, this, nullptr);
}

/// While there is nothing to tell, the connection is suspended.
ssize_t Exchange::readEvents(char* bytes, std::size_t size) {
    MHD_Connection* const connection = m_connection;
    m_daemon.setDeadline(connection, m_daemon.soon());
    const auto sleep = [&] {
        m_daemon.setDeadline(connection, Daemon::Clock::time_point::max());
        MHD_suspend_connection(connection);
    };
    const auto copied =
        m_response->events->read(bytes, size, sleep, [connection] { MHD_resume_connection(connection); });
    return copied ? static_cast<ssize_t>(*copied) : MHD_CONTENT_READER_END_OF_STREAM;
}

}  // namespace fiscorad::http
