#include "sim/Child.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <system_error>

#include "i18n.h"
#include "sim/LineContract.h"
#include "sim/device_guard.h"
#include "sim/program.h"
#include "sim/search_stand_in.h"
#include "terminal_text.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

using tool::filled;
using tool::tr;

constexpr char PRELOAD_LIBRARY[] = "libfiscora-sim.so";

/// Folder of the preloaded library and of the stand-in for `ls`: that of this program in a build tree, or
/// below the libraries' folder once installed. LD_PRELOAD is cut at blanks and colons, PATH at colons, so a
/// path that has one is replaced by a link in the line's folder.
std::string supportFolder(const PtyLine& line) {
    const std::string standIn = std::string(STAND_IN_FOLDER) + "/ls";
    const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
    for (const char* folder : {".", FISCORA_PRELOAD_FOLDER}) {
        if (!fs::exists(here / folder / PRELOAD_LIBRARY) || !fs::exists(here / folder / standIn)) continue;
        const fs::path found = fs::canonical(here / folder);
        if (found.string().find_first_of(" :") == std::string::npos) return found;
        fs::create_symlink(found, line.folder() + "/support");
        return line.folder() + "/support";
    }
    throw std::runtime_error(filled(tr("%s or %s is missing; they belong next to this program or in %s"),
                                    PRELOAD_LIBRARY, standIn.c_str(), FISCORA_PRELOAD_FOLDER));
}

/// The environment in which programs meet the simulated device, or find none.
class Environment {
  public:
    explicit Environment(const PtyLine& line) : m_line(line.path()) {
        const std::string folder = supportFolder(line);
        m_preload = folder + "/" + PRELOAD_LIBRARY;
        const char* const present = std::getenv("LD_PRELOAD");
        if (present != nullptr && *present != '\0') m_preload.append(":").append(present);
        m_path = folder + "/" + STAND_IN_FOLDER + ":" + searchPath();
    }
    void enter() const {
        setenv("LD_PRELOAD", m_preload.c_str(), 1);
        setenv("PATH", m_path.c_str(), 1);
        setenv(LINE_VARIABLE, m_line.c_str(), 1);
    }

  private:
    std::string m_line;
    std::string m_preload;
    std::string m_path;
};

/// Takes the place of the forked process; returns only if that fails, with the exit status.
int execute(const fs::path& program, const std::vector<char*>& arguments) {
    execvp(program.c_str(), arguments.data());  // runs a script without "#!" as a shell would
    const int reason = errno;
    const bool lost = reason == ENOENT;  // the program itself has been found
    std::cerr << "fiscora sim: "
              << tool::withoutControls(program.string() + ": " +
                                       (lost ? tr("its interpreter is missing") : tool::systemError(reason)))
              << "\n";
    return lost ? NOT_FOUND : CANNOT_EXECUTE;
}

}  // namespace

Signals::Signals() {
    std::signal(SIGCHLD, SIG_DFL);  // the kernel keeps no exit status while it is ignored
    sigset_t caught{};
    sigemptyset(&caught);
    for (const int signal : {SIGCHLD, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE, SIGUSR1, SIGUSR2, SIGALRM})
        sigaddset(&caught, signal);
    sigprocmask(SIG_BLOCK, &caught, &m_before);
    m_fd = tool::Descriptor(signalfd(-1, &caught, SFD_NONBLOCK | SFD_CLOEXEC));
    if (m_fd.get() < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

void Signals::restore() const { sigprocmask(SIG_SETMASK, &m_before, nullptr); }

std::optional<signalfd_siginfo> Signals::next() const {
    signalfd_siginfo signal{};
    return read(m_fd.get(), &signal, sizeof signal) == sizeof signal ? std::optional(signal) : std::nullopt;
}

Child::Child(const fs::path& program, const std::vector<std::string>& words, const PtyLine& line,
             const Signals& signals) {
    const Environment environment(line);
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    m_pid = fork();
    if (m_pid < 0) throw std::system_error(errno, std::generic_category(), tr("cannot start the command"));
    if (m_pid > 0) return;
    signals.restore();
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    environment.enter();
    try {
        guardDevices();
    } catch (const std::exception& failure) {
        std::cerr << "fiscora sim: " << tool::withoutControls(failure.what()) << "\n";
        _exit(CANNOT_EXECUTE);
    }
    _exit(execute(program, arguments));
}

Child::~Child() {
    if (m_pid <= 0) return;
    pass(SIGTERM);
    waitpid(m_pid, nullptr, 0);
}

void Child::pass(int signal) const {
    kill(m_pid, signal);
    kill(m_pid, SIGCONT);
}

std::optional<int> Child::ended() {
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) != m_pid) return std::nullopt;
    m_pid = -1;
    return WIFSIGNALED(status) ? KILLED_BY_SIGNAL + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace sim
