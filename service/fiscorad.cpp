#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>

#include "Subcommand.h"
#include "i18n.h"
#include "program/commands.h"
#include "program/serve.h"
#include "terminal_text.h"

namespace {

using fiscorad::Settings;
using tool::tr;

constexpr int USAGE_STATUS = 2;
constexpr char CONFIGURATION[] = "/etc/fiscorad/fiscorad.conf";

void addOptions(CLI::App& application, Settings& settings) {
    application.set_config("--config", std::filesystem::exists(CONFIGURATION) ? CONFIGURATION : "",
                           tr("Configuration file, with the options below as NAME = VALUE"));
    application.get_option("--config")->type_name(tr("FILE"));
    application.allow_config_extras(CLI::config_extras_mode::error);
    application.add_option("--listen", settings.listen, tr("Where tills connect (default 127.0.0.1:8059)"))
        ->type_name(tr("ADDRESS:PORT"));
    application
        .add_option("--journal", settings.journal, tr("The journal (default /var/lib/fiscorad/journal.db)"))
        ->type_name(tr("FILE"));
    application
        .add_option("--activation-code-file", settings.activationCodeFile,
                    tr("File with the device's activation code, readable by its user alone (default "
                       "/etc/fiscorad/activation-code)"))
        ->type_name(tr("FILE"));
    application
        .add_option(
            "--queue-limit", settings.queueLimit,
            tr("Documents that may wait in the queue; while it is full, new ones are refused (default 1000)"))
        ->type_name("N")
        ->check(tool::numberFrom(1, 1000000));
    auto* const certificate =
        application
            .add_option("--certificate", settings.certificate,
                        tr("Certificate with its chain, in PEM: the service speaks TLS 1.2 and later"))
            ->type_name(tr("FILE"));
    auto* const key = application
                          .add_option("--key", settings.key,
                                      tr("The certificate's private key, in PEM, readable by its user alone"))
                          ->type_name(tr("FILE"))
                          ->needs(certificate);
    certificate->needs(key);
    application
        .add_flag("--plain-http", settings.plainHttp,
                  tr("Listen beyond this machine without TLS, since a proxy does it"))
        ->excludes(certificate);
}

/// The service changes its working folder.
void makeAbsolute(const char* option, std::string& path) {
    if (path.empty()) throw CLI::ValidationError(tool::filled(tr("%s needs a value"), option));
    path = std::filesystem::absolute(path).string();
}

/// Nothing in the configuration file may decide in a person's place.
void keepOutOfConfiguration(CLI::App& options) {
    for (CLI::Option* option : options.get_options()) option->configurable(false);
}

int run(int argc, char** argv) {
    const std::string usage = tr("fiscorad [OPTIONS] [SUBCOMMAND ...]");
    CLI::App application(
        tr("Lets any number of tills share a fiscal device, and books each sale exactly once."), "fiscorad");
    application.formatter(std::make_shared<tool::HelpFormatter>(usage));
    application.set_help_flag("-h,--help", tr("Show this help"));
    application.set_version_flag("--version", "fiscorad " FISCORA_VERSION, tr("Show the version"));
    Settings settings;
    addOptions(application, settings);

    std::vector<std::unique_ptr<fiscorad::Command>> commands;
    commands.push_back(std::make_unique<fiscorad::CheckCommand>(application, settings));
    commands.push_back(std::make_unique<fiscorad::BackupCommand>(application, settings));
    commands.push_back(std::make_unique<fiscorad::RestoreCommand>(application, settings));
    commands.push_back(std::make_unique<fiscorad::ExportCommand>(application, settings));
    commands.push_back(std::make_unique<fiscorad::PruneCommand>(application, settings));
    commands.push_back(std::make_unique<fiscorad::DecideCommand>(application, settings));
    commands.push_back(std::make_unique<fiscorad::ConfirmCommand>(application, settings));
    commands.push_back(std::make_unique<fiscorad::TokenCommand>(application, settings));
    for (CLI::App* options : application.get_subcommands({})) {
        options->group(tr("Subcommands"))->fallthrough();
        keepOutOfConfiguration(*options);
    }
    const auto chosen = [&]() -> fiscorad::Command* {
        for (const auto& command : commands)
            if (command->options().parsed()) return command.get();
        return nullptr;
    };
    try {
        application.parse(argc, argv);
        makeAbsolute("--journal", settings.journal);
        // Whichever link leads to it: a journal has one lock, beside it.
        settings.journal = std::filesystem::weakly_canonical(settings.journal).string();
        makeAbsolute("--activation-code-file", settings.activationCodeFile);
        if (!settings.certificate.empty()) {
            makeAbsolute("--certificate", settings.certificate);
            makeAbsolute("--key", settings.key);
        }
        fiscorad::Command* const command = chosen();
        return command == nullptr ? fiscorad::serve(settings) : command->run({});
    } catch (const CLI::Success& help) {
        return application.exit(help);
    } catch (const CLI::ParseError& error) {
        const fiscorad::Command* const command = chosen();
        const std::string name =
            command == nullptr ? "fiscorad" : "fiscorad " + command->options().get_name();
        const CLI::App& options = command == nullptr ? application : command->options();
        std::cerr << name << ": " << tool::withoutControls(tool::reasonOf(error, application, options))
                  << " ("
                  << tool::filled(tr("usage: %s"), (command == nullptr ? usage : command->usage()).c_str())
                  << ")\n";
        return USAGE_STATUS;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // No file that is opened later may take the place of a standard stream.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) == -1) open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    tool::chooseLanguage();
    try {
        const int status = run(argc, argv);
        if (std::cout.flush()) return status;
        std::cerr << "fiscorad: " << tr("cannot write to standard output") << "\n";
    } catch (const std::exception& error) {
        std::cerr << "fiscorad: " << tool::withoutControls(error.what()) << "\n";
    }
    return EXIT_FAILURE;
}
