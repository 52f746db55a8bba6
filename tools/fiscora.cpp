#include <fcntl.h>
#include <fiscora.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>

#include "CallCommand.h"
#include "DoctorCommand.h"
#include "LogCommand.h"
#include "SimCommand.h"
#include "i18n.h"
#include "sim/search_stand_in.h"
#include "terminal_text.h"

namespace {

constexpr int USAGE_STATUS = 2;

/// Opens standard streams that are closed, so that no other file can take their place: what is printed would
/// go to the device. They still cannot be read or written.
void reserveStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) == -1) open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

int refuse(const std::string& name, const std::string& reason, const std::string& usage) {
    std::cerr << name << ": " << tool::withoutControls(reason) << " ("
              << tool::filled(tool::tr("usage: %s"), usage.c_str()) << ")\n";
    return USAGE_STATUS;
}

/// Makes a write to a file that may not grow an error like others. Not by ignoring the signal: the programs
/// that `fiscora sim` runs would inherit that.
void surviveFileLimit() {
    if (std::signal(SIGXFSZ, [](int) {}) == SIG_IGN) std::signal(SIGXFSZ, SIG_IGN);
}

int runTool(int argc, char** argv) {
    const std::string usage = tool::tr("fiscora [OPTIONS] SUBCOMMAND ...");
    CLI::App application(tool::tr("Tools for the fiscal device library libfiscora."), "fiscora");
    application.formatter(std::make_shared<tool::HelpFormatter>(usage));
    application.set_help_flag("-h,--help", tool::tr("Show this help"));
    application.set_version_flag("--version",
                                 std::string("fiscora " FISCORA_VERSION ", driver ") + getVersion(),
                                 tool::tr("Show the versions of the tool and of the driver"));
    application.require_subcommand(1);
    std::vector<std::unique_ptr<tool::Subcommand>> subcommands;
    subcommands.push_back(std::make_unique<tool::SimCommand>(application));
    subcommands.push_back(std::make_unique<tool::CallCommand>(application));
    subcommands.push_back(std::make_unique<tool::DoctorCommand>(application));
    subcommands.push_back(std::make_unique<tool::LogCommand>(application));
    for (CLI::App* options : application.get_subcommands({})) options->group(tool::tr("Subcommands"));
    const auto chosen = [&]() -> tool::Subcommand* {
        for (const auto& subcommand : subcommands) {
            if (subcommand->options().parsed()) return subcommand.get();
        }
        return nullptr;
    };

    // The words after "--" belong to the subcommand untouched: CLI11 would take some of them apart.
    char** const end = argv + argc;
    char** const marker = std::find(argv, end, std::string("--"));
    const std::vector<std::string> operands(marker == end ? end : marker + 1, end);
    try {
        application.parse(static_cast<int>(marker - argv), argv);
        return chosen()->run(operands);
    } catch (const CLI::Success& help) {
        return application.exit(help);
    } catch (const CLI::ParseError& error) {
        const tool::Subcommand* subcommand = chosen();
        if (subcommand == nullptr)
            return refuse("fiscora", tool::reasonOf(error, application, application), usage);
        return refuse("fiscora " + subcommand->options().get_name(),
                      tool::reasonOf(error, application, subcommand->options()), subcommand->usage());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (sim::isSearchStandIn()) return sim::standInForSearch(argv);
    reserveStandardStreams();
    tool::chooseLanguage();
    surviveFileLimit();
    try {
        const int status = runTool(argc, argv);
        if (std::cout.flush()) return status;
        std::cerr << "fiscora: " << tool::tr("cannot write to standard output") << "\n";
    } catch (const std::exception& error) {
        std::cerr << "fiscora: " << tool::withoutControls(error.what()) << "\n";
    }
    return EXIT_FAILURE;
}
