#include "program/Supervision.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "Descriptor.h"
#include "i18n.h"
#include "program/service_manager.h"

namespace fiscorad {
namespace {

/// Between two looks. Shorter if the watchdog wants that.
constexpr std::chrono::microseconds PAUSE = std::chrono::seconds(5);
constexpr timeval ANSWER_LIMIT{10, 0};

/// As status lines are one line of NAME=VALUE.
std::string oneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

}  // namespace

Supervision::~Supervision() {
    if (!m_thread.joinable()) return;
    {
        const std::lock_guard lock(m_mutex);
        m_ended = true;
    }
    m_news.notify_all();
    m_thread.join();
}

void Supervision::ready() {
    if (!service_manager::tell("READY=1")) return;
    m_watchdog = service_manager::watchdogInterval();
    m_thread = std::thread([this] { run(); });
}

void Supervision::stopping() { service_manager::tell("STOPPING=1"); }

void Supervision::run() {
    // Several times in each interval, so that one slow answer does no harm.
    const auto pause = std::min(PAUSE, m_watchdog.value_or(4 * PAUSE) / 4);
    std::unique_lock lock(m_mutex);
    while (!m_ended) {
        lock.unlock();
        tellStatus();
        if (m_watchdog) feedWatchdog();
        lock.lock();
        m_news.wait_for(lock, pause, [&] { return m_ended; });
    }
}

void Supervision::tellStatus() {
    const std::string status = oneLine(m_settings.status());
    if (status.empty() || status == m_told) return;
    service_manager::tell("STATUS=" + status);
    m_told = status;
}

void Supervision::feedWatchdog() {
    const bool works = m_settings.works();
    if (works) service_manager::tell("WATCHDOG=1");
    if (!works && m_worked) m_settings.warn(tool::tr("the service hangs: the watchdog may restart it"));
    m_worked = works;
}

bool answers(const Endpoint& endpoint) {
    const std::string address = endpoint.address == "0.0.0.0" ? "127.0.0.1"
                                : endpoint.address == "::"    ? "::1"
                                                              : endpoint.address;
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(endpoint.port).c_str(), &hints, &found) != 0)
        return false;
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> where(found, freeaddrinfo);

    const tool::Descriptor fd(socket(where->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    for (const int limit : {SO_RCVTIMEO, SO_SNDTIMEO})
        if (setsockopt(fd.get(), SOL_SOCKET, limit, &ANSWER_LIMIT, sizeof ANSWER_LIMIT) != 0) return false;
    constexpr std::string_view REQUEST = "GET /saude HTTP/1.0\r\n\r\n";
    if (connect(fd.get(), where->ai_addr, where->ai_addrlen) != 0 ||
        send(fd.get(), REQUEST.data(), REQUEST.size(), MSG_NOSIGNAL) < 0)
        return false;
    char first = 0;
    return recv(fd.get(), &first, 1, 0) >= 0 || errno == ECONNRESET;
}

}  // namespace fiscorad
