#include "program/serve.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "Changes.h"
#include "Descriptor.h"
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

namespace fiscorad {
namespace {

/// Of a process that a second signal has ended.
constexpr int ENDED_AT_ONCE = 3;

/// SIGTERM and SIGINT as something to wait for, in this thread and those that it starts.
class EndSignals {
  public:
    EndSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        m_file = tool::Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    }

    int fd() const { return m_file.get(); }
    void take() const {
        signalfd_siginfo signal{};
        while (read(m_file.get(), &signal, sizeof signal) < 0 && errno == EINTR) {
        }
    }

  private:
    tool::Descriptor m_file;
};

/// The dispatcher's thread, whose end can be waited for together with signals.
class DispatcherThread {
  public:
    explicit DispatcherThread(Dispatcher& dispatcher)
        : m_ended(eventfd(0, EFD_CLOEXEC)), m_thread([this, &dispatcher] {
              dispatcher.run();
              eventfd_write(m_ended.get(), 1);
          }) {}
    DispatcherThread(const DispatcherThread&) = delete;
    DispatcherThread& operator=(const DispatcherThread&) = delete;
    ~DispatcherThread() { m_thread.join(); }

    int fd() const { return m_ended.get(); }

  private:
    tool::Descriptor m_ended;
    std::thread m_thread;
};

/// Waits until a signal has come (true) or the thread has ended (false).
bool waitForSignal(const EndSignals& signals, const DispatcherThread& thread) {
    std::array<pollfd, 2> files{{{signals.fd(), POLLIN, 0}, {thread.fd(), POLLIN, 0}}};
    while (poll(files.data(), files.size(), -1) < 0) {
    }
    if ((files[0].revents & POLLIN) == 0) return false;
    signals.take();
    return true;
}

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
    const EndSignals signals;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    Log log;
    ActivationCode code(settings.activationCodeFile);
    const OwnerLock owner(settings.journal);
    Journal journal(settings.journal);
    // The library keeps its daily log, logsDrs, in the working folder.
    std::filesystem::current_path(std::filesystem::path(settings.journal).parent_path());

    Changes changes;
    LibraryEquipment equipment;
    Dispatcher::Settings dispatching;
    dispatching.node = nodeName();
    dispatching.warn = [&](const std::string& text) { log.warn(text); };
    http::Server* tills = nullptr;
    dispatching.codeChanged = [&] { tills->setMaxDocumentBytes(maxDocumentBytes(code)); };
    Dispatcher dispatcher(journal, equipment, code, changes, dispatching);
    Service service(journal, dispatcher, changes, settings.queueLimit);
    const auto following = log.follow(service);
    http::Server::Settings serving;
    serving.address = endpoint.address;
    serving.port = endpoint.port;
    serving.maxDocumentBytes = maxDocumentBytes(code);
    serving.warn = dispatching.warn;
    http::Server server(service, serving);
    tills = &server;
    log.info(tool::filled(tool::tr("listening on %s port %d, journal %s"), endpoint.address.c_str(),
                          static_cast<int>(server.port()), settings.journal.c_str()));

    DispatcherThread thread(dispatcher);
    if (waitForSignal(signals, thread)) {
        log.info(tool::tr("ending: no new documents; a running call ends first"));
        service.stop();
        server.stop();
        dispatcher.stop();
        if (waitForSignal(signals, thread)) {
            log.warn(tool::tr("ended at once; what is open will be resolved at the next start"));
            _exit(ENDED_AT_ONCE);
        }
    }
    log.info(tool::tr("ended"));
    return EXIT_SUCCESS;
}

}  // namespace fiscorad
