#include "service/ServiceProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "Descriptor.h"
#include "service/ServiceClient.h"

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds PATIENCE{10};

int statusOf(int waited) { return WIFEXITED(waited) ? WEXITSTATUS(waited) : 128 + WTERMSIG(waited); }

int waitFor(pid_t pid) {
    int waited = 0;
    while (waitpid(pid, &waited, 0) < 0 && errno == EINTR) continue;
    return statusOf(waited);
}

}  // namespace

ServiceProcess::ServiceProcess(Place place) : m_place(std::move(place)) {
    const fs::path file = m_place.folder / CODE_FILE;
    std::ofstream(file) << m_place.activationCode << "\n";
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
}

ServiceProcess::~ServiceProcess() { kill(); }

void ServiceProcess::start() {
    m_pid = spawn({m_place.program, "--listen", "127.0.0.1:" + std::to_string(m_place.port), "--journal",
                   m_place.journal, "--activation-code-file", m_place.folder / CODE_FILE},
                  m_place.folder / "service.log");
}

void ServiceProcess::kill() {
    if (m_pid < 0) return;
    ::kill(m_pid, SIGKILL);
    waitFor(std::exchange(m_pid, -1));
}

int ServiceProcess::terminate() {
    ::kill(m_pid, SIGTERM);
    return waitFor(std::exchange(m_pid, -1));
}

std::optional<int> ServiceProcess::ended() {
    int waited = 0;
    if (m_pid < 0 || waitpid(m_pid, &waited, WNOHANG) != m_pid) return std::nullopt;
    m_pid = -1;
    return statusOf(waited);
}

bool ServiceProcess::isReady() const {
    const ServiceClient client(m_place.port);
    for (const auto end = std::chrono::steady_clock::now() + PATIENCE;
         std::chrono::steady_clock::now() < end;) {
        if (const auto answer = client.get("/saude"); answer && answer->status == 200) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

int ServiceProcess::run(const std::string& command, const fs::path& output) const {
    return waitFor(spawn({m_place.program, command, "--journal", m_place.journal}, output));
}

pid_t ServiceProcess::spawn(const std::vector<std::string>& words, const fs::path& output) const {
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const tool::Descriptor file(
        open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid > 0) return pid;
    // Only calls that are safe between fork and exec in a program of many threads.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent || chdir(m_place.folder.c_str()) != 0) _exit(126);
    dup2(file.get(), STDOUT_FILENO);
    dup2(file.get(), STDERR_FILENO);
    execv(arguments.front(), arguments.data());
    _exit(127);
}

int ServiceProcess::freePort(int from) {
    for (int port = from; port < from + 1000; ++port) {
        const tool::Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const int reuse = 1;
        setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
        if (bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return port;
    }
    throw std::runtime_error("no free port");
}
