#include "SimCommand.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>

#include "i18n.h"
#include "sim/Child.h"
#include "sim/Fault.h"
#include "sim/FrameTrace.h"
#include "sim/Ledger.h"
#include "sim/PtyLine.h"
#include "sim/program.h"
#include "terminal_text.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

// Limits of a planned fault's numbers.
constexpr unsigned MAX_NUMBER = 1000;  // of bad answers or seconds
constexpr unsigned MAX_EXCHANGE = 999'999'999;

int fail(int status, const std::string& text) {
    std::cerr << "fiscora sim: " << withoutControls(text) << "\n";
    return status;
}

/// Handles what has arrived; the command's exit status when it has ended.
std::optional<int> handleSignals(const sim::Signals& signals, sim::Child& child) {
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

/// Keeps the line away for `time`. The command's exit status if it ends meanwhile.
std::optional<int> stayAway(std::chrono::milliseconds time, sim::PtyLine& line, const sim::Signals& signals,
                            sim::Child& child) {
    using Clock = std::chrono::steady_clock;
    line.hangUp();
    for (const auto back = Clock::now() + time; Clock::now() < back;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(back - Clock::now());
        pollfd end{signals.fd(), POLLIN, 0};
        poll(&end, 1, static_cast<int>(left.count()));
        if (const auto status = handleSignals(signals, child)) return status;
    }
    return std::nullopt;
}

/// Plays the device until the command has ended; returns its exit status.
int play(sim::DevicePort& port, sim::PtyLine& line, const sim::Signals& signals, sim::Child& child) {
    port.attach(line.fd());
    for (;;) {
        const auto [devicesEnd, timeoutMs] = port.interest();
        std::array<pollfd, 2> ends{devicesEnd, {signals.fd(), POLLIN, 0}};
        poll(ends.data(), ends.size(), timeoutMs);
        if (const auto status = handleSignals(signals, child)) return *status;
        if (port.step()) continue;
        if (port.gone().count() > 0) {
            if (const auto status = stayAway(port.gone(), line, signals, child)) return *status;
        }
        line.renew();
        port.attach(line.fd());
    }
}

/// A number of digits alone from 1 to `most`; 0 for any other text.
unsigned numberIn(const std::string& digits, unsigned most) {
    const bool number = digits.find_first_not_of("0123456789") == std::string::npos && digits.size() <= 9;
    const unsigned long value = number && !digits.empty() ? std::stoul(digits) : 0;
    return value <= most ? static_cast<unsigned>(value) : 0;
}

/// KIND[=NUMBER][@N|~PERCENT]; throws CLI::ValidationError for anything else.
sim::FaultPlan parseFault(const std::string& text) {
    const auto refuse = [&](const std::string& why) {
        return CLI::ValidationError("--fault", "\"" + text + "\": " + why);
    };
    const std::size_t when = std::min(text.find_first_of("@~"), text.size());
    const std::size_t equals = std::min(text.find('='), when);
    const std::string kind = text.substr(0, equals);
    const sim::Fault* fault = sim::findFault(kind);
    if (fault == nullptr)
        throw refuse(filled(tr("there is no fault \"%s\"; see --list-faults"), kind.c_str()));
    sim::FaultPlan plan{fault, fault->number};
    if (equals < when) {
        if (fault->measure == nullptr) throw refuse(filled(tr("%s takes no number"), kind.c_str()));
        plan.number = numberIn(text.substr(equals + 1, when - equals - 1), MAX_NUMBER);
        if (plan.number == 0)
            throw refuse(filled(tr("\"=\" must be followed by a number from 1 to %u"), MAX_NUMBER));
    }
    if (when == text.size()) return plan;
    const std::string rest = text.substr(when + 1);
    if (text[when] == '@') {
        plan.exchange = numberIn(rest, MAX_EXCHANGE);
        if (plan.exchange == 0)
            throw refuse(tr("\"@\" must be followed by the number of an exchange, from 1"));
    } else {
        plan.percent = numberIn(rest, 100);
        if (plan.percent == 0) throw refuse(tr("\"~\" must be followed by a number from 1 to 100"));
    }
    return plan;
}

/// Those of all `texts`; throws like parseFault.
std::vector<sim::FaultPlan> parseFaults(const std::vector<std::string>& texts) {
    std::vector<sim::FaultPlan> plans;
    unsigned percent = 0;
    for (const std::string& text : texts) {
        plans.push_back(parseFault(text));
        percent += plans.back().percent;
    }
    if (percent > 100) throw CLI::ValidationError("--fault", tr("the percentages exceed 100 in all"));
    return plans;
}

/// For each kind of fault its name and status, what the application sees, and what to learn from it.
void listFaults() {
    constexpr std::size_t NAME_COLUMNS = 19;
    constexpr std::size_t STATUS_COLUMNS = 8;
    const auto print = [](const std::string& kind, const std::string& status, const std::string& text) {
        std::string head = leftAligned(kind, NAME_COLUMNS) + status;
        for (const auto& line : wrapped(text, TERMINAL_COLUMNS - NAME_COLUMNS - STATUS_COLUMNS)) {
            std::cout << leftAligned(head, NAME_COLUMNS + STATUS_COLUMNS) << line << "\n";
            head.clear();
        }
    };
    print(tr("KIND"), tr("STATUS"), tr("What the application sees, and what to learn from it"));
    for (const sim::Fault& fault : sim::faults()) {
        print(std::string(fault.name) +
                  (fault.measure != nullptr ? std::string("[=") + tr(fault.measure) + "]" : ""),
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
    const auto numberIsValid = [](const std::string& number) {
        return sim::SimulatedDevice::isSerialNumber(number) ? "" : tr("expected nine digits");
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
        ->add_option("--serial", m_device.serialNumber,
                     filled(tr("Serial number (default %s)"), m_device.serialNumber.c_str()))
        ->type_name(tr("NUMBER"))
        ->check(CLI::Validator(numberIsValid, ""));
    m_options
        ->add_option("--memory", m_device.memory, tr("How many sessions the device remembers (default 32)"))
        ->type_name("N")
        ->check(numberFrom(0, 100000));
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
            "--fault", [this](const std::vector<std::string>& plans) { m_port.faults = parseFaults(plans); },
            tr("Make the device fail: in its N-th exchange, in PERCENT of them at random, or in every one. "
               "NUMBER is that of bad answers or seconds, for kinds that take one. May be repeated; an "
               "exchange meets one fault at most"))
        ->type_name(tr("KIND[=NUMBER][@N|~PERCENT]"))
        ->allow_extra_args(false);
    m_options
        ->add_option("--seed", m_port.seed,
                     tr("Seed for random faults: the same N gives the same faults (default 1)"))
        ->type_name("N")
        ->check(numberFrom(0, 999999999));
    m_options
        ->add_option("--ledger", m_ledger,
                     tr("Append a line to FILE for each document that the device books, before it answers: "
                        "time, operation, session, access key and SHA-256 of the document that was sent, "
                        "separated by tabs"))
        ->type_name(tr("FILE"));
    m_options->add_flag("--list-faults", m_listFaults,
                        tr("List the kinds of fault and what the application will see"));
    m_options->add_flag("--trace", m_trace,
                        tr("Print all frames to standard error, with activation codes as ***"));
    m_options->add_flag("--trace-secrets", m_traceSecrets, tr("Show activation codes in the trace too"));
    m_options->footer(tr(
        "COMMAND and the programs that it starts find the simulated device or none. A program that cannot reach "
        "it (32-bit, statically linked, or with an LD_PRELOAD of its own) finds none, and standard error says "
        "so. If its PATH is replaced as well (by a login shell or env -i), it finds none without that message; "
        "on a kernel without Landlock (before Linux 5.19), it would find a real device.\n"
        "COMMAND cannot open /dev/ttyACM* or devices plugged in later, gain privileges (sudo), mount file "
        "systems (containers), or open files that it makes in / or in new folders there.\n"
        "Programs built with gcc's address sanitizer need ASAN_OPTIONS=verify_asan_link_order=0.\n"
        "The exit status is COMMAND's, or 128 plus the number of the signal that ended it."));
}

int SimCommand::run(const std::vector<std::string>& operands) {
    if (m_listFaults) {
        listFaults();
        return EXIT_SUCCESS;
    }
    if (operands.empty() || operands.front().empty()) throw CLI::ValidationError(tr("COMMAND is missing"));
    const fs::path program = sim::findProgram(operands.front());
    if (program.empty()) return fail(sim::NOT_FOUND, operands.front() + ": " + tr("command not found"));
    if (fs::is_directory(program) || access(program.c_str(), X_OK) != 0) {
        return fail(sim::CANNOT_EXECUTE, program.string() + ": " + tr("not an executable file"));
    }
    if (sim::raisesPrivileges(program)) {
        return fail(
            sim::CANNOT_EXECUTE,
            program.string() + ": " +
                tr("gains privileges, which the simulation does not allow; run fiscora itself with those "
                   "privileges"));
    }

    sim::FrameTrace trace(
        std::cerr, m_traceSecrets ? sim::FrameTrace::Secrets::Shown : sim::FrameTrace::Secrets::Hidden);
    if (m_trace || m_traceSecrets) m_port.trace = &trace;
    std::optional<sim::Ledger> ledger;
    if (m_options->count("--ledger") > 0) {
        ledger.emplace(m_ledger);
        m_device.booked = [&ledger](const sim::BookedDocument& document) { return ledger->add(document); };
    }
    sim::SimulatedDevice device(m_device);
    sim::DevicePort port(device, m_port);
    const sim::Signals signals;
    sim::PtyLine line;
    sim::Child child(program, operands, line, signals);
    return play(port, line, signals, child);
}

}  // namespace tool
