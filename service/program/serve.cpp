#include "program/serve.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "CallHistory.h"
#include "Changes.h"
#include "Metrics.h"
#include "Service.h"
#include "dispatcher/ActivationCode.h"
#include "dispatcher/Dispatcher.h"
#include "dispatcher/LibraryEquipment.h"
#include "fiscal/operations.h"
#include "http/Server.h"
#include "i18n.h"
#include "journal/Journal.h"
#include "journal/OwnerLock.h"
#include "program/Log.h"
#include "program/Supervision.h"
#include "program/tls.h"

namespace fiscorad {
namespace {

/// Of a process that a second signal has ended.
constexpr int ENDED_AT_ONCE = 3;

/// SIGTERM and SIGINT, in this thread and those that it starts.
class EndSignals {
  public:
    EndSignals() {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGTERM);
        sigaddset(&m_signals, SIGINT);
        pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    }

    /// Waits for the first one. The next one ends the process, whatever its threads are waiting for.
    void await() const {
        int signal = 0;
        sigwait(&m_signals, &signal);
        for (const int next : {SIGTERM, SIGINT}) std::signal(next, [](int) { _exit(ENDED_AT_ONCE); });
        pthread_sigmask(SIG_UNBLOCK, &m_signals, nullptr);
    }

  private:
    sigset_t m_signals{};
};

/// Runs the dispatcher; its end stops it and waits for a running call.
class DispatcherThread {
  public:
    explicit DispatcherThread(Dispatcher& dispatcher)
        : m_dispatcher(dispatcher), m_thread([&dispatcher] { dispatcher.run(); }) {}
    DispatcherThread(const DispatcherThread&) = delete;
    DispatcherThread& operator=(const DispatcherThread&) = delete;
    ~DispatcherThread() {
        m_dispatcher.stop();
        m_thread.join();
    }

  private:
    Dispatcher& m_dispatcher;
    std::thread m_thread;
};

Endpoint endpointOf(const std::string& listen) {
    const auto colon = listen.rfind(':');
    const std::string port = colon == std::string::npos ? "" : listen.substr(colon + 1);
    std::string address = listen.substr(0, colon);
    if (address.size() > 1 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    const bool digits =
        !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    if (address.empty() || !digits || std::stoi(port) > 65535)
        throw std::runtime_error(listen + ": " +
                                 tool::tr("not an address and a port, such as 127.0.0.1:8059"));
    return {address, static_cast<std::uint16_t>(std::stoi(port))};
}

std::string nodeName() {
    std::array<char, 256> name{};
    gethostname(name.data(), name.size() - 1);
    return name.data();
}

/// True for a host name too: the server then refuses it as not being an address.
bool staysOnThisMachine(const std::string& address) {
    in6_addr bytes{};
    const bool isAddress =
        inet_pton(AF_INET, address.c_str(), &bytes) == 1 || inet_pton(AF_INET6, address.c_str(), &bytes) == 1;
    return !isAddress || address == "::1" || address.rfind("127.", 0) == 0;
}

/// Throws std::runtime_error unless network traffic is encrypted, or the user has said that a proxy does it.
void requireSecrecy(const Settings& settings, const Endpoint& endpoint) {
    if (staysOnThisMachine(endpoint.address) || !settings.certificate.empty() || settings.plainHttp) return;
    throw std::runtime_error(
        settings.listen + ": " +
        tool::tr(
            "beyond this machine tokens and documents need TLS (--certificate and --key), or a proxy that does it "
            "(--plain-http)"));
}

/// The longest document that fits a request, with room for the code, the session number and the delimiters.
std::size_t maxDocumentBytes(const ActivationCode& code) {
    const auto& sale = *manipulaDados::findOperation(manipulaDados::CMD_ENVIAR_DADOS_VENDA);
    constexpr std::size_t SESSION_AND_DELIMITERS = 8;
    constexpr std::size_t TERMINATOR = 1;
    return sale.buffer.bytes - SESSION_AND_DELIMITERS - TERMINATOR - code.text().size();
}

}  // namespace

int serve(const Settings& settings) {
    const Endpoint endpoint = endpointOf(settings.listen);
    requireSecrecy(settings, endpoint);
    Identification identification;
    if (!settings.certificate.empty())
        identification = readIdentification(settings.certificate, settings.key);
    const EndSignals signals;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);  // there is nothing to read anew: the code file is looked at all the time
    Log log;
    ActivationCode code(settings.activationCodeFile);
    const OwnerLock owner(settings.journal);
    Journal journal(settings.journal);
    Metrics metrics;
    journal.onCommit([&](std::chrono::nanoseconds duration) { metrics.committed(duration); });
    // The library keeps its daily log, logsDrs, in the working folder.
    std::filesystem::current_path(std::filesystem::path(settings.journal).parent_path());

    Changes changes;
    LibraryEquipment equipment;
    Dispatcher::Settings dispatching;
    dispatching.node = nodeName();
    dispatching.warn = [&](const std::string& text) { log.warn(text); };
    CallHistory calls;
    dispatching.called = [&](const LastCall& call) {
        calls.add(call);
        metrics.called(call);
    };
    http::Server* tills = nullptr;
    dispatching.codeChanged = [&] { tills->setMaxDocumentBytes(maxDocumentBytes(code)); };
    Dispatcher dispatcher(journal, equipment, code, changes, dispatching);
    Service service(journal, dispatcher, changes, settings.queueLimit);
    const auto following = log.follow(service);
    http::Server::Settings serving;
    serving.address = endpoint.address;
    serving.port = endpoint.port;
    serving.maxDocumentBytes = maxDocumentBytes(code);
    serving.certificate = std::move(identification.certificate);
    serving.key = std::move(identification.key);
    serving.metrics = [&] { return metrics.text(service, settings.journal); };
    serving.warn = dispatching.warn;
    http::Server server(service, calls, serving);
    tills = &server;
    log.info(tool::filled(tool::tr("listening on %s port %d, journal %s"), endpoint.address.c_str(),
                          static_cast<int>(server.port()), settings.journal.c_str()));
    if (!service.hasTokens())
        log.info(
            tool::tr("there is no token (fiscorad token add): only requests from this machine are served"));

    Supervision supervision({[&] {
                                 return dispatcher.moves() && answers({endpoint.address, server.port()});
                             },
                             [&] { return Log::describe(service.device()); }, dispatching.warn});
    {
        const DispatcherThread running(dispatcher);
        supervision.ready();
        signals.await();
        supervision.stopping();
        service.stop();
        log.info(tool::tr(
            "stopping: no new documents are accepted; a running call is finished first, unless another signal arrives"));
        server.stop();
    }
    log.info(tool::tr("stopped"));
    return EXIT_SUCCESS;
}

}  // namespace fiscorad
