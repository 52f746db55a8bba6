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
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>

#include "sim/Fault.h"
#include "sim/FrameTrace.h"
#include "sim/LineContract.h"
#include "sim/PtyLine.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

// Exit statuses of shells, env and timeout.
constexpr int CANNOT_EXECUTE = 126;
constexpr int NOT_FOUND = 127;
constexpr int KILLED_BY_SIGNAL = 128;

// Limits of a planned fault's numbers.
constexpr unsigned MAX_BAD_ANSWERS = 1000;
constexpr unsigned MAX_EXCHANGE = 999'999'999;

int fail(int status, const std::string& text) {
    std::cerr << "fiscora sim: " << text << "\n";
    return status;
}

/// Path of the program that a shell would run for `name`: the first one on the search path, one that can be
/// executed before one that cannot. Empty where there is none.
fs::path findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return access(name.c_str(), F_OK) == 0 ? name : "";
    const char* searched = std::getenv("PATH");
    std::string_view rest = searched != nullptr ? searched : "/usr/local/bin:/usr/bin:/bin";
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

/// Whether the loader would drop the preloaded library, and with it the simulation.
bool raisesPrivileges(const fs::path& program) {
    struct stat file {};
    if (stat(program.c_str(), &file) != 0) return false;
    return ((file.st_mode & S_ISUID) != 0 && file.st_uid != geteuid()) ||
           ((file.st_mode & S_ISGID) != 0 && file.st_gid != getegid()) ||
           getxattr(program.c_str(), "security.capability", nullptr, 0) > 0;
}

/// The preloaded library, beside this program in a build tree or below the libraries' folder where it is
/// installed.
fs::path findPreloadLibrary() {
    const fs::path here = fs::read_symlink("/proc/self/exe").parent_path();
    for (const char* folder : {".", FISCORA_PRELOAD_FOLDER}) {
        const fs::path candidate = here / folder / "libfiscora-sim.so";
        if (fs::exists(candidate)) return fs::canonical(candidate);
    }
    throw std::runtime_error(
        "libfiscora-sim.so is missing: it belongs beside this program or in " FISCORA_PRELOAD_FOLDER);
}

/// The loader cuts LD_PRELOAD at blanks and colons, so a path that has one is replaced by a link in the
/// line's folder.
std::string preloadList(const sim::PtyLine& line) {
    std::string library = findPreloadLibrary();
    if (library.find_first_of(" :") != std::string::npos) {
        const std::string link = line.folder() + "/libfiscora-sim.so";
        fs::create_symlink(library, link);
        library = link;
    }
    const char* present = std::getenv("LD_PRELOAD");
    return present != nullptr && *present != '\0' ? library + ":" + present : library;
}

/// Holds back the signals that concern `fiscora sim`, so that they are read one by one and none ends it
/// before it has cleaned up.
class Signals {
  public:
    Signals() {
        std::signal(SIGCHLD, SIG_DFL);  // where it is ignored, no exit status could be had
        sigset_t caught{};
        sigemptyset(&caught);
        for (const int signal : {SIGCHLD, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE})
            sigaddset(&caught, signal);
        sigprocmask(SIG_BLOCK, &caught, &m_before);
        m_fd = sim::Descriptor(signalfd(-1, &caught, SFD_NONBLOCK | SFD_CLOEXEC));
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
    sim::Descriptor m_fd;
};

/// The running command.
class Child {
  public:
    /// Starts `program` with `words` as its arguments (the first one its name) on the simulated line.
    Child(const fs::path& program, const std::vector<std::string>& words, const sim::PtyLine& line,
          const Signals& signals) {
        const std::string preload = preloadList(line);
        const std::string path = line.path();
        std::vector<char*> arguments;
        for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);

        m_pid = fork();
        if (m_pid < 0) throw std::system_error(errno, std::generic_category(), "cannot start the command");
        if (m_pid > 0) return;
        signals.restore();
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // a line that nobody plays would end in another's pty
        setenv("LD_PRELOAD", preload.c_str(), 1);
        setenv(sim::LINE_VARIABLE, path.c_str(), 1);
        execvp(program.c_str(), arguments.data());  // runs a script without "#!" as a shell would
        const int reason = errno;
        const bool lost = reason == ENOENT;  // the program itself has been found
        fail(0, program.string() + ": " + (lost ? "its interpreter is missing" : std::strerror(reason)));
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
    if (fault == nullptr) throw refuse("there is no fault \"" + kind + "\", see --list-faults");
    sim::FaultPlan plan{fault, 0, fault->count};
    if (equals < at) {
        if (fault->count == 0) throw refuse(kind + " takes no count");
        plan.count = countOf(text.substr(equals + 1, at - equals - 1), MAX_BAD_ANSWERS);
        if (plan.count == 0)
            throw refuse("the count is a number from 1 to " + std::to_string(MAX_BAD_ANSWERS));
    }
    if (at < text.size()) {
        plan.exchange = countOf(text.substr(at + 1), MAX_EXCHANGE);
        if (plan.exchange == 0) throw refuse("behind \"@\" stands the number of an exchange, from 1");
    }
    return plan;
}

/// For each kind a line that starts with its name and status, and one for the programmer.
void listFaults() {
    const auto print = [](std::string_view kind, std::string_view status, std::string_view text) {
        std::cout << std::left << std::setw(19) << kind << std::setw(8) << status << text << "\n";
    };
    print("KIND", "STATUS", "WHAT THE APPLICATION SEES, and what to learn from it");
    for (const sim::Fault& fault : sim::faults()) {
        print(std::string(fault.name) + (fault.count > 0 ? "[=COUNT]" : ""), std::to_string(fault.status),
              fault.effect);
        print("", "", fault.advice);
    }
}

}  // namespace

SimCommand::SimCommand(CLI::App& application)
    : Subcommand(application, "sim",
                 "Run a command with a simulated fiscal device in the place of the real one",
                 "fiscora sim [OPTIONS] -- COMMAND [ARGUMENT...]") {
    using sim::DeviceState;
    static const std::map<std::string, DeviceState> states{{"not-activated", DeviceState::NotActivated},
                                                           {"active", DeviceState::Active},
                                                           {"blocked", DeviceState::Blocked}};
    const auto codeIsValid = [](const std::string& code) {
        return sim::SimulatedDevice::isActivationCode(code) ? ""
                                                            : "expected 8 to 32 characters without \"|\"";
    };
    m_options
        ->add_option_function<std::string>(
            "--state", [this](const std::string& name) { m_device.state = states.at(name); },
            "State at the start (default active)")
        ->type_name("STATE")
        ->check(oneOf({"active", "blocked", "not-activated"}));
    m_options
        ->add_option("--activation-code", m_device.activationCode,
                     "Activation code (default " + m_device.activationCode + ")")
        ->type_name("CODE")
        ->check(CLI::Validator(codeIsValid, ""));
    m_options->add_option("--baud", m_port.baud, "Speed of the line in bits a second (default: no limit)")
        ->type_name("N")
        ->check(numberFrom(300, 10000000));
    m_options
        ->add_option_function<int>(
            "--latency", [this](int ms) { m_port.latency = std::chrono::milliseconds(ms); },
            "Time that the device takes for each answer, in ms (default 0)")
        ->type_name("MS")
        ->check(numberFrom(0, 3600000));
    m_options
        ->add_option_function<std::vector<std::string>>(
            "--fault",
            [this](const std::vector<std::string>& plans) {
                for (const std::string& plan : plans) m_port.faults.push_back(parseFault(plan));
            },
            "Let the device fail, on its N-th exchange or on every one; may be repeated. COUNT is of bad "
            "answers")
        ->type_name("KIND[=COUNT][@N]")
        ->allow_extra_args(false);
    m_options->add_flag("--list-faults", m_listFaults,
                        "List the kinds of fault and what the application will see");
    m_options->add_flag("--trace", m_trace, "Print all frames to standard error, activation codes as ***");
    m_options->add_flag("--trace-secrets", m_traceSecrets, "Show activation codes in the trace as well");
    m_options->footer(
        "COMMAND and the programs that it starts find the simulated device; a real one is out of their "
        "reach.\n"
        "Programs that raise their privileges (sudo), clear their environment (env -i) or are linked "
        "statically leave the simulation, and would find a real device.\n"
        "Programs built with gcc's address sanitizer want ASAN_OPTIONS=verify_asan_link_order=0.\n"
        "The exit status is COMMAND's, 128 and the signal's number where a signal ended it.");
}

int SimCommand::run(const std::vector<std::string>& operands) {
    if (m_listFaults) {
        listFaults();
        return EXIT_SUCCESS;
    }
    if (operands.empty() || operands.front().empty()) throw CLI::RequiredError("COMMAND");
    const fs::path program = findProgram(operands.front());
    if (program.empty()) return fail(NOT_FOUND, operands.front() + ": command not found");
    if (fs::is_directory(program) || access(program.c_str(), X_OK) != 0) {
        return fail(CANNOT_EXECUTE, program.string() + ": not an executable file");
    }
    if (raisesPrivileges(program)) {
        return fail(CANNOT_EXECUTE, program.string() +
                                        " raises its privileges and would leave the simulation; run "
                                        "fiscora itself with those privileges");
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
