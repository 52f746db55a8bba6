#include "http/Daemon.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "Descriptor.h"
#include "http/Exchange.h"
#include "http/problem.h"
#include "i18n.h"

namespace fiscorad::http {
namespace {

constexpr int BACKLOG = 1024;
constexpr rlim_t CONNECTIONS = 4096;
constexpr rlim_t OTHER_DESCRIPTORS = 128;

/// For a request's head and for what is read and written at a time; a longer head is refused.
constexpr std::size_t CONNECTION_BYTES = std::size_t{32} * 1024;

/// Of GnuTLS. Older versions have known weaknesses.
constexpr char TLS_VERSIONS[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

constexpr std::chrono::seconds LAST_ANSWERS{1};

/// As many connections as this process may have descriptors for. The usual limit is lower than that, so
/// that old programs do not fail; it is raised here.
unsigned connectionLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t wanted = CONNECTIONS + OTHER_DESCRIPTORS;
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    return static_cast<unsigned>(
        std::min(CONNECTIONS, limit.rlim_cur - std::min(limit.rlim_cur, OTHER_DESCRIPTORS)));
}

[[noreturn]] void cannotListen(const std::string& address, std::uint16_t port, const std::string& reason) {
    throw std::runtime_error(tool::filled(tool::tr("cannot listen on %s, port %d: %s"), address.c_str(),
                                          static_cast<int>(port), reason.c_str()));
}

tool::Descriptor listenOn(const std::string& address, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        cannotListen(address, port, tool::tr("not an IP address"));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> where(found, freeaddrinfo);

    tool::Descriptor fd(socket(where->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;  // or a service that starts again would find its own old connections in the way
    if (fd.get() < 0 || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd.get(), where->ai_addr, where->ai_addrlen) != 0 || listen(fd.get(), BACKLOG) != 0)
        cannotListen(address, port, tool::systemError(errno));
    return fd;
}

std::uint16_t portOf(int fd) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    const auto port = address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                                    : reinterpret_cast<sockaddr_in&>(address).sin_port;
    return ntohs(port);
}

}  // namespace

/// What the HTTP library calls, on its thread. An exchange is its context of a request.
struct Daemon::Callbacks {
    static std::shared_ptr<Exchange>& exchangeIn(void* context) {
        return *static_cast<std::shared_ptr<Exchange>*>(context);
    }

    static void* begin(void* self, const char* target, MHD_Connection* connection) noexcept {
        auto& daemon = *static_cast<Daemon*>(self);
        auto exchange = std::make_shared<Exchange>(daemon, connection, target);
        return std::make_unique<std::shared_ptr<Exchange>>(std::move(exchange)).release();
    }

    static MHD_Result step(void* /*self*/, MHD_Connection* /*connection*/, const char* /*url*/,
                           const char* method, const char* version, const char* bytes, std::size_t* size,
                           void** context) noexcept {
        const std::shared_ptr<Exchange> exchange = exchangeIn(*context);
        if (!exchange->hasHead()) return exchange->takeHead(method, version);
        if (*size == 0) return exchange->proceed();
        return exchange->takeBody(bytes, std::exchange(*size, 0));
    }

    static void end(void* /*self*/, MHD_Connection* /*connection*/, void** context,
                    MHD_RequestTerminationCode /*code*/) noexcept {
        const std::unique_ptr<std::shared_ptr<Exchange>> exchange(
            static_cast<std::shared_ptr<Exchange>*>(std::exchange(*context, nullptr)));
        if (exchange) (*exchange)->finish();
    }

    static void connection(void* self, MHD_Connection* connection, void** /*context*/,
                           MHD_ConnectionNotificationCode code) noexcept {
        auto& daemon = *static_cast<Daemon*>(self);
        const int fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        const std::lock_guard<std::mutex> lock(daemon.m_mutex);
        if (code == MHD_CONNECTION_NOTIFY_STARTED)
            daemon.m_peers[connection] = {fd, daemon.soon()};
        else
            daemon.m_peers.erase(connection);
    }
};

Daemon::Daemon(Settings settings, Workers& workers, Handle handle)
    : m_settings(std::move(settings)), m_workers(workers), m_handle(std::move(handle)) {
    tool::Descriptor listener = listenOn(m_settings.address, m_settings.port);
    m_port = portOf(listener.get());
    const auto secret = [](std::string& pem) { return static_cast<void*>(pem.data()); };
    std::array<MHD_OptionItem, 4> tls{{{MHD_OPTION_HTTPS_MEM_CERT, 0, secret(m_settings.certificate)},
                                       {MHD_OPTION_HTTPS_MEM_KEY, 0, secret(m_settings.key)},
                                       {MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(TLS_VERSIONS)},
                                       {MHD_OPTION_END, 0, nullptr}}};
    if (!isSecure()) tls.front().option = MHD_OPTION_END;
    // With epoll, the library misses the end of a connection that comes together with its last bytes.
    const unsigned flags =
        MHD_USE_POLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | (isSecure() ? unsigned{MHD_USE_TLS} : 0U);
    m_daemon = MHD_start_daemon(
        flags, 0, nullptr, nullptr, Callbacks::step, this, MHD_OPTION_LISTEN_SOCKET, listener.get(),
        MHD_OPTION_CONNECTION_LIMIT, connectionLimit(), MHD_OPTION_CONNECTION_MEMORY_LIMIT, CONNECTION_BYTES,
        MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_URI_LOG_CALLBACK, Callbacks::begin, this,
        MHD_OPTION_NOTIFY_COMPLETED, Callbacks::end, this, MHD_OPTION_NOTIFY_CONNECTION,
        Callbacks::connection, this, MHD_OPTION_ARRAY, tls.data(), MHD_OPTION_END);
    if (m_daemon == nullptr)
        cannotListen(m_settings.address, m_settings.port, "the HTTP library could not start");
    listener.release();  // the library closes it
    closeTheLate();
}

Daemon::~Daemon() {
    std::vector<std::shared_ptr<Exchange>> unanswered;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        unanswered.assign(m_exchanges.begin(), m_exchanges.end());
    }
    for (const auto& exchange : unanswered)
        exchange->respond(problemResponse(problems::NOT_READY, "O serviço parou antes da resposta."));
    unanswered.clear();
    drain(LAST_ANSWERS);
    MHD_stop_daemon(m_daemon);
}

void Daemon::drain(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ended.wait_for(lock, limit, [this] { return m_exchanges.empty(); });
}

void Daemon::setDeadline(MHD_Connection* connection, Clock::time_point deadline) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (const auto peer = m_peers.find(connection); peer != m_peers.end()) peer->second.deadline = deadline;
}

/// The HTTP library's own timeout begins anew with each byte, and so would never end a slow sender.
void Daemon::closeTheLate() {
    const auto now = Clock::now();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& [connection, peer] : m_peers)
            if (peer.deadline < now) shutdown(peer.fd, SHUT_RDWR);
    }
    const auto pause = std::clamp<Clock::duration>(m_settings.patience / 4, std::chrono::milliseconds(10),
                                                   std::chrono::seconds(1));
    m_workers.at(now + pause, [this] { closeTheLate(); });
}

bool Daemon::begin(const std::shared_ptr<Exchange>& exchange) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_closed) m_exchanges.insert(exchange);
    return !m_closed;
}

void Daemon::end(const std::shared_ptr<Exchange>& exchange) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_exchanges.erase(exchange);
    if (m_exchanges.empty()) m_ended.notify_all();
}

}  // namespace fiscorad::http
