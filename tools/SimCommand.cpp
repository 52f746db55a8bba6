#include "SimCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>

#include "i18n.h"
#include "sim/Fault.h"
#include "sim/FrameTrace.h"
#include "sim/LineContract.h"
#include "sim/PtyLine.h"
#include "sim/device_guard.h"
#include "sim/search_stand_in.h"
#include "terminal_text.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

// Exit statuses of shells, env and timeout.
constexpr int CANNOT_EXECUTE = 126;
constexpr int NOT_FOUND = 127;
constexpr int KILLED_BY_SIGNAL = 128;

constexpr char PRELOAD_LIBRARY[] = "libfiscora-sim.so";

// Limits of a planned fault's numbers.
constexpr unsigned MAX_BAD_ANSWERS = 1000;
constexpr unsigned MAX_EXCHANGE = 999'999'999;

int fail(int status, const std::string& text) {
    std::cerr << "fiscora sim: " << withoutControls(text) << "\n";
    return status;
}

/// PATH, or what shells take in its place.
std::string searchPath() {
    const char* const path = std::getenv("PATH");
    return path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
}

/// Path of the program that a shell would run for `name`: the first one on the search path that can be
/// executed, else the first one. Empty if there is none.
fs::path findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return access(name.c_str(), F_OK) == 0 ? name : "";
    const std::string searched = searchPath();
    std::string_view rest = searched;
    fs::path inert;
    while (!name.empty()) {
        const std::string_view folder = rest.substr(0, rest.find(':'));
        fs::path candidate = fs::path(folder.empty() ? "." : folder) / name;
        std::error_code ignored;
        if (fs::is_regular_file(candidate, ignored)) {
            if (access(candidate.c_str(), X_OK) == 0) return candidate;
            if (inert.empty()) inert = candidate;
        }
        if (folder.size() == rest.size()) break;
        rest.remove_prefix(folder.size() + 1);
    }
    return inert;
}

/// Whether the program gains privileges when it starts. The guard would keep them from it, and it might fail
/// in a way that nobody understands.
bool raisesPrivileges(const fs::path& program) {
    struct stat file {};
    if (stat(program.c_str(), &file) != 0) return false;
    return ((file.st_mode & S_ISUID) != 0 && file.st_uid != geteuid()) ||
           ((file.st_mode & S_ISGID) != 0 && file.st_gid != getegid()) ||
           getxattr(program.c_str(), "security.capability", nullptr, 0) > 0;
}

/// Folder of the preloaded library and of the stand-in for `ls`: that of this program in a build tree, or
/// below the libraries' folder once installed. LD_PRELOAD is cut at blanks and colons, PATH at colons, so a
/// path that has one is replaced by a link in the line's folder.
std::string supportFolder(const sim::PtyLine& line) {
    const std::string standIn = std::string(sim::STAND_IN_FOLDER) + "/ls";
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
    explicit Environment(const sim::PtyLine& line) : m_line(line.path()) {
        const std::string folder = supportFolder(line);
        m_preload = folder + "/" + PRELOAD_LIBRARY;
        const char* const present = std::getenv("LD_PRELOAD");
        if (present != nullptr && *present != '\0') m_preload.append(":").append(present);
        m_path = folder + "/" + sim::STAND_IN_FOLDER + ":" + searchPath();
    }
    void enter() const {
        setenv("LD_PRELOAD", m_preload.c_str(), 1);
        setenv("PATH", m_path.c_str(), 1);
        setenv(sim::LINE_VARIABLE, m_line.c_str(), 1);
    }

  private:
    std::string m_line;
    std::string m_preload;
    std::string m_path;
};

/// Holds back the signals that concern `fiscora sim`, so that they are read one by one and none ends it
/// before it has cleaned up.
class Signals {
  public:
    Signals() {
        std::signal(SIGCHLD, SIG_DFL);  // the kernel keeps no exit status while it is ignored
        sigset_t caught{};
        sigemptyset(&caught);
        for (const int signal : {SIGCHLD, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE})
            sigaddset(&caught, signal);
        sigprocmask(SIG_BLOCK, &caught, &m_before);
        m_fd = tool::Descriptor(signalfd(-1, &caught, SFD_NONBLOCK | SFD_CLOEXEC));
        if (m_fd.get() < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    int fd() const { return m_fd.get(); }
    /// For the command, which starts with the signals that `fiscora sim` was started with.
    void restore() const { sigprocmask(SIG_SETMASK, &m_before, nullptr); }
    std::optional<signalfd_siginfo> next() const {
        signalfd_siginfo signal{};
        return read(m_fd.get(), &signal, sizeof signal) == sizeof signal ? std::optional(signal)
                                                                         : std::nullopt;
    }

  private:
    sigset_t m_before{};
    tool::Descriptor m_fd;
};

/// The running command.
class Child {
  public:
    /// Starts `program` with `words` as its arguments (the first one its name) on the simulated line.
    Child(const fs::path& program, const std::vector<std::string>& words, const sim::PtyLine& line,
          const Signals& signals) {
        const Environment environment(line);
        std::vector<char*> arguments;
        for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);

        m_pid = fork();
        if (m_pid < 0)
            throw std::system_error(errno, std::generic_category(), tr("cannot start the command"));
        if (m_pid > 0) return;
        signals.restore();
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        environment.enter();
        sim::guardDevices();
        execvp(program.c_str(), arguments.data());  // runs a script without "#!" as a shell would
        const int reason = errno;
        const bool lost = reason == ENOENT;  // the program itself has been found
        fail(0, program.string() + ": " + (lost ? tr("its interpreter is missing") : std::strerror(reason)));
        _exit(lost ? NOT_FOUND : CANNOT_EXECUTE);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }

    void pass(int signal) const { kill(m_pid, signal); }
    /// The exit status, once the command has ended.
    std::optional<int> ended() {
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) != m_pid) return std::nullopt;
        m_pid = -1;
        return WIFSIGNALED(status) ? KILLED_BY_SIGNAL + WTERMSIG(status) : WEXITSTATUS(status);
    }

  private:
    pid_t m_pid = -1;
};

/// Handles what has arrived; the command's exit status when it has ended.
std::optional<int> handleSignals(const Signals& signals, Child& child) {
    while (const auto signal = signals.next()) {
        const auto number = static_cast<int>(signal->ssi_signo);
        if (number == SIGCHLD) {
            if (const auto status = child.ended()) return status;
            continue;
        }
        // A key of the terminal reaches the command by itself.
        const bool fromKey = (number == SIGINT || number == SIGQUIT) && signal->ssi_code == SI_KERNEL;
        if (number != SIGPIPE && !fromKey) child.pass(number);
    }
    return std::nullopt;
}

/// Plays the device until the command has ended; returns its exit status.
int play(sim::DevicePort& port, sim::PtyLine& line, const Signals& signals, Child& child) {
    port.attach(line.fd());
    for (;;) {
        const auto [devicesEnd, timeoutMs] = port.interest();
        std::array<pollfd, 2> ends{devicesEnd, {signals.fd(), POLLIN, 0}};
        poll(ends.data(), ends.size(), timeoutMs);
        if (const auto status = handleSignals(signals, child)) return *status;
        if (port.step()) continue;
        line.renew();
        port.attach(line.fd());
    }
}

/// A number of digits alone from 1 to `most`; 0 for any other text.
unsigned countOf(const std::string& digits, unsigned most) {
    const bool number = digits.find_first_not_of("0123456789") == std::string::npos && digits.size() <= 9;
    const unsigned long value = number && !digits.empty() ? std::stoul(digits) : 0;
    return value <= most ? static_cast<unsigned>(value) : 0;
}

/// KIND[=COUNT][@N]; throws CLI::ValidationError for anything else.
sim::FaultPlan parseFault(const std::string& text) {
    const auto refuse = [&](const std::string& why) {
        return CLI::ValidationError("--fault", "\"" + text + "\": " + why);
    };
    const std::size_t at = std::min(text.find('@'), text.size());
    const std::size_t equals = std::min(text.find('='), at);
    const std::string kind = text.substr(0, equals);
    const sim::Fault* fault = sim::findFault(kind);
    if (fault == nullptr)
        throw refuse(filled(tr("there is no fault \"%s\"; see --list-faults"), kind.c_str()));
    sim::FaultPlan plan{fault, 0, fault->count};
    if (equals < at) {
        if (fault->count == 0) throw refuse(filled(tr("%s takes no count"), kind.c_str()));
        plan.count = countOf(text.substr(equals + 1, at - equals - 1), MAX_BAD_ANSWERS);
        if (plan.count == 0)
            throw refuse(filled(tr("the count must be a number from 1 to %u"), MAX_BAD_ANSWERS));
    }
    if (at < text.size()) {
        plan.exchange = countOf(text.substr(at + 1), MAX_EXCHANGE);
        if (plan.exchange == 0)
            throw refuse(tr("\"@\" must be followed by the number of an exchange, from 1"));
    }
    return plan;
}

/// For each kind of fault its name and status, what the application sees, and what to learn from it.
void listFaults() {
    constexpr std::size_t NAME_COLUMNS = 19;
    constexpr std::size_t STATUS_COLUMNS = 8;
    const auto print = [](const std::string& kind, const std::string& status, const std::string& text) {
        std::string head = kind + std::string(NAME_COLUMNS - kind.size(), ' ') + status;
        for (const auto& line : wrapped(text, TERMINAL_COLUMNS - NAME_COLUMNS - STATUS_COLUMNS)) {
            head.resize(NAME_COLUMNS + STATUS_COLUMNS, ' ');
            std::cout << head << line << "\n";
            head.clear();
        }
    };
    print(tr("KIND"), tr("STATUS"), tr("What the application sees, and what to learn from it"));
    for (const sim::Fault& fault : sim::faults()) {
        print(std::string(fault.name) + (fault.count > 0 ? std::string("[=") + tr("COUNT") + "]" : ""),
              std::to_string(fault.status), tr(fault.effect));
        print("", "", std::string("-> ") + tr(fault.advice));
    }
}

}  // namespace

SimCommand::SimCommand(CLI::App& application)
    : Subcommand(application, "sim",
                 tr("Run a command with a simulated fiscal device in place of the real one"),
                 tr("fiscora sim [OPTIONS] -- COMMAND [ARGUMENT...]")) {
    using sim::DeviceState;
    static const std::map<std::string, DeviceState> states{{"not-activated", DeviceState::NotActivated},
                                                           {"active", DeviceState::Active},
                                                           {"blocked", DeviceState::Blocked}};
    const auto codeIsValid = [](const std::string& code) {
        return sim::SimulatedDevice::isActivationCode(code) ? ""
                                                            : tr("expected 8 to 32 characters without \"|\"");
    };
    m_options
        ->add_option_function<std::string>(
            "--state", [this](const std::string& name) { m_device.state = states.at(name); },
            tr("Initial state of the device (default active)"))
        ->type_name(tr("STATE"))
        ->check(oneOf({"active", "blocked", "not-activated"}));
    m_options
        ->add_option("--activation-code", m_device.activationCode,
                     filled(tr("Activation code (default %s)"), m_device.activationCode.c_str()))
        ->type_name(tr("CODE"))
        ->check(CLI::Validator(codeIsValid, ""));
    m_options
        ->add_option("--baud", m_port.baud, tr("Speed of the line in bits per second (default: no limit)"))
        ->type_name("N")
        ->check(numberFrom(300, 10000000));
    m_options
        ->add_option_function<int>(
            "--latency", [this](int ms) { m_port.latency = std::chrono::milliseconds(ms); },
            tr("Time that the device takes to answer, in ms (default 0)"))
        ->type_name("MS")
        ->check(numberFrom(0, 3600000));
    m_options
        ->add_option_function<std::vector<std::string>>(
            "--fault",
            [this](const std::vector<std::string>& plans) {
                for (const std::string& plan : plans) m_port.faults.push_back(parseFault(plan));
            },
            tr("Make the device fail, in its N-th exchange or in every one. COUNT is the number of bad "
               "answers, for kinds that take one. May be repeated"))
        ->type_name(tr("KIND[=COUNT][@N]"))
        ->allow_extra_args(false);
    m_options->add_flag("--list-faults", m_listFaults,
                        tr("List the kinds of fault and what the application will see"));
    m_options->add_flag("--trace", m_trace,
                        tr("Print all frames to standard error, with activation codes as ***"));
    m_options->add_flag("--trace-secrets", m_traceSecrets, tr("Show activation codes in the trace too"));
    m_options->footer(tr(
        "COMMAND and the programs that it starts find the simulated device or none, never a real one. A "
        "program that cannot reach it (32-bit, statically linked, or with an LD_PRELOAD of its own) finds no "
        "device, and standard error says so. Only a program that clears its environment (env -i), on a "
        "kernel "
        "without Landlock (before Linux 5.19), would find a real device.\n"
        "COMMAND cannot write to /dev/ttyACM* or to devices plugged in later, gain privileges (sudo), mount "
        "file systems (containers), or write to files that it makes directly in /.\n"
        "Programs built with gcc's address sanitizer need ASAN_OPTIONS=verify_asan_link_order=0.\n"
        "The exit status is COMMAND's, or 128 plus the number of the signal that ended it."));
}

int SimCommand::run(const std::vector<std::string>& operands) {
    if (m_listFaults) {
        listFaults();
        return EXIT_SUCCESS;
    }
    if (operands.empty() || operands.front().empty()) throw CLI::ValidationError(tr("COMMAND is missing"));
    const fs::path program = findProgram(operands.front());
    if (program.empty()) return fail(NOT_FOUND, operands.front() + ": " + tr("command not found"));
    if (fs::is_directory(program) || access(program.c_str(), X_OK) != 0) {
        return fail(CANNOT_EXECUTE, program.string() + ": " + tr("not an executable file"));
    }
    if (raisesPrivileges(program)) {
        return fail(
            CANNOT_EXECUTE,
            program.string() + ": " +
                tr("gains privileges, which the simulation does not allow; run fiscora itself with those "
                   "privileges"));
    }

    sim::FrameTrace trace(std::cerr, m_traceSecrets);
    if (m_trace || m_traceSecrets) m_port.trace = &trace;
    sim::SimulatedDevice device(m_device);
    sim::DevicePort port(device, m_port);
    const Signals signals;
    sim::PtyLine line;
    Child child(program, operands, line, signals);
    return play(port, line, signals, child);
}

}  // namespace tool
