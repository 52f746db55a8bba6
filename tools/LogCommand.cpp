#include "LogCommand.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>

#include "Interruption.h"
#include "OutputFile.h"
#include "diagnostics/log_names.h"
#include "i18n.h"
#include "local_time.h"
#include "log/Exchanges.h"
#include "log/LiveLog.h"
#include "log/LogFiles.h"
#include "log/Picture.h"
#include "log/Report.h"
#include "terminal_text.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

/// YYYYMMDD, from that or YYYY-MM-DD.
std::string dayFrom(const std::string& text) {
    std::string dashed = text;
    if (text.size() == 8) dashed.insert(6, "-").insert(4, "-");
    const auto time = logs::parseTime(dashed + ".00:00:00");
    if (!time)
        throw CLI::ValidationError(
            filled(tr("--since: expected a day, YYYYMMDD or YYYY-MM-DD, not \"%s\""), text.c_str()));
    return logs::timeText(*time, "%Y%m%d");
}

std::vector<logs::LogFile> logsIn(const fs::path& directory, const std::string& since) {
    try {
        return logs::findLogs(directory, since);
    } catch (const fs::filesystem_error& error) {
        throw CLI::ValidationError(
            filled(tr("cannot read the log folder %s: %s; expected one with logDrsYYYYMMDD.log (--dir)"),
                   directory.c_str(), systemError(error.code().value()).c_str()));
    }
}

/// `given`, or the log directory in it: people tend to name the application's working directory.
fs::path logDirectory(const fs::path& given) {
    const fs::path inside = (given / LOG_DIRECTORY).lexically_normal();
    std::error_code error;
    return logsIn(given, "").empty() && fs::is_directory(inside, error) ? inside : given;
}

/// A picture in place of a log would destroy it.
void refuseLog(const fs::path& path) {
    std::error_code error;
    if (fs::weakly_canonical(path, error).filename().string().rfind(LOG_PREFIX, 0) == 0)
        throw CLI::ValidationError(
            filled(tr("cannot write %s: %s"), path.c_str(), tr("it is the name of a log")));
}

void print(const std::vector<logs::Exchange>& exchanges, const fs::path& directory) {
    if (exchanges.empty()) {
        std::cout << withoutControls(filled(tr("No calls in the logs of %s"), directory.c_str())) << '\n';
        return;
    }
    logs::ExchangeTable table(std::cout, exchanges);
    table.printHeading();
    for (const logs::Exchange& exchange : exchanges) table.print(exchange);
    std::cout << '\n';
    logs::printSummary(std::cout, exchanges);
}

std::string textOf(const pugi::xml_document& picture) {
    std::ostringstream text;
    picture.save(text, " ");
    return text.str();
}

void complain(const std::string& text) { std::cerr << "fiscora log: " << withoutControls(text) << '\n'; }

void complainAbout(const logs::Complaints& complaints) {
    for (const std::string& complaint : complaints.files) complain(complaint);
    if (const auto count = complaints.files.size(); count > 0)
        complain(filled(tr("%zu file was not read completely", "%zu files were not read completely", count),
                        count));
    if (const auto count = complaints.damagedLines; count > 0)
        complain(filled(tr("%zu damaged or truncated line is not counted above",
                           "%zu damaged or truncated lines are not counted above", count),
                        count));
}

std::string withoutLogs(const fs::path& directory, const std::string& since) {
    return since.empty() ? filled(tr("No logs in %s"), directory.c_str())
                         : filled(tr("No logs in %s since %s"), directory.c_str(), since.c_str());
}

/// NO_COLOR is the convention of no-color.org.
logs::ExchangeTable::Colours coloursOfOutput() {
    const char* const unwanted = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    const bool coloured = isatty(STDOUT_FILENO) != 0 && (unwanted == nullptr || *unwanted == '\0') &&
                          terminal != nullptr && std::string_view(terminal) != "dumb";
    return coloured ? logs::ExchangeTable::Colours::On : logs::ExchangeTable::Colours::Off;
}

/// Shows the calls of today's log as they end, until Ctrl-C or until a log cannot be read.
int follow(const fs::path& directory) {
    constexpr std::size_t SHOWN_AT_START = 10;
    constexpr timespec PAUSE{0, 200'000'000};
    // Signals stay blocked until sigtimedwait, so none ends the program in the middle of a line.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, nullptr);

    logs::Exchanges exchanges;
    logs::LiveLog log(directory, localTimeText("%Y%m%d"),
                      [&](std::string_view line) { exchanges.take(line); });
    logs::ExchangeTable table(std::cout, {}, coloursOfOutput());
    table.printHeading();
    logs::Complaints complaints{log.read()};
    auto ended = exchanges.takeEnded();
    ended.erase(ended.begin(),
                ended.end() - static_cast<std::ptrdiff_t>(std::min(ended.size(), SHOWN_AT_START)));
    while (true) {
        for (const logs::Exchange& exchange : ended) table.print(exchange);
        if (!std::cout.flush()) return EXIT_SUCCESS;
        complainAbout(complaints);
        if (!complaints.files.empty()) return EXIT_FAILURE;
        if (sigtimedwait(&ending, nullptr, &PAUSE) > 0) return EXIT_SUCCESS;
        complaints.files = log.read();
        ended = exchanges.takeEnded();
    }
}

}  // namespace

LogCommand::LogCommand(CLI::App& application)
    : Subcommand(application, "log", tr("Show the calls in the library's logs, and how long they took"),
                 tr("fiscora log [--dir DIR] [--since DAY] [--svg FILE] [--json] | --follow")) {
    m_options
        ->add_option("--dir", m_directory,
                     tr("Folder of the logs, or the folder that contains logsDrs (default: logsDrs)"))
        ->type_name(tr("DIR"));
    m_options
        ->add_option_function<std::string>(
            "--since", [this](const std::string& text) { m_since = dayFrom(text); },
            tr("Leave out days before DAY, YYYYMMDD or YYYY-MM-DD"))
        ->type_name(tr("DAY"));
    m_options->add_option("--svg", m_picturePath, tr("Draw the durations over time in FILE, as SVG"))
        ->type_name(tr("FILE"));
    m_options->add_flag("--json", m_json, tr("Print the result as one JSON object"));
    m_options->add_flag("--follow", m_follow, tr("Show today's calls as they end, until Ctrl-C"));
    m_options->footer(tr(
        "A call is \"refused\" if the device answered with a code other than success, \"failed\" if its "
        "status is not OK or the answer was to another call, and has \"no end\" if its end is not in the log. "
        "If a long answer has left no room for its status, it has \"no status\", and is counted under \"No "
        "end\". A duration may be off by one "
        "second, because the log records whole seconds only; - means that the log does not say.\n"
        "Exit status: 0 if all files were read (damaged lines are skipped and counted), 1 if one could not "
        "be read completely or the picture could not be saved, 2 for a wrong command line."));
}

int LogCommand::run(const std::vector<std::string>& operands) {
    refuseExtras(operands);
    const bool draws = m_options->count("--svg") > 0;
    if (m_follow && (m_json || draws || !m_since.empty()))
        throw CLI::ValidationError(tr("--follow cannot be combined with --since, --svg or --json"));
    if (m_directory.empty()) throw CLI::ValidationError(tr("--dir: the name of the folder is empty"));
    const fs::path directory = logDirectory(m_directory);
    if (m_follow) return follow(directory);
    const auto files = logsIn(directory, m_since);
    Interruption interruption;
    std::optional<OutputFile> pictureFile;
    if (draws) {
        refuseLog(m_picturePath);
        pictureFile.emplace(m_picturePath, interruption);
    }

    logs::Exchanges exchanges;
    logs::Complaints complaints;
    complaints.files = logs::readLogs(files, [&](std::string_view line) { exchanges.take(line); });
    complaints.damagedLines = exchanges.damagedLines();

    // The file comes first: a reader of the output that leaves early must not cost the picture.
    const std::string loss = pictureFile ? pictureFile->save(textOf(logs::picture(exchanges.all()))) : "";
    if (m_json)
        logs::printJson(std::cout, exchanges.all(), complaints);
    else if (files.empty())
        std::cout << withoutControls(withoutLogs(directory, m_since)) << '\n';
    else
        print(exchanges.all(), directory);
    std::cout.flush();

    complainAbout(complaints);
    if (!loss.empty()) complain(loss);
    return complaints.files.empty() && loss.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
