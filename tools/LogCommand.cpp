#include "LogCommand.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>

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

/// `given`, or the log directory in it: the working directory of the application is easily taken for it.
fs::path logDirectory(const fs::path& given) {
    const fs::path inside = (given / LOG_DIRECTORY).lexically_normal();
    std::error_code error;
    return logsIn(given, "").empty() && fs::is_directory(inside, error) ? inside : given;
}

/// Where the picture goes. A wrong path is refused before anything is read, and an earlier file is replaced
/// only by a complete picture.
class PictureFile {
  public:
    explicit PictureFile(const std::string& path) : m_path(path) {
        std::error_code error;
        if (fs::is_symlink(path, error) && !fs::exists(path, error)) refuse(tr("it is a dangling link"));
        if (fs::exists(path, error)) {
            m_path = fs::canonical(path, error);  // a link stays, its target is replaced
            if (!fs::is_regular_file(m_path, error)) refuse(tr("not a regular file"));
            if (access(m_path.c_str(), W_OK) != 0) refuse(tool::systemError(errno));
        }
        const std::string name = m_path.filename();
        if (name.empty()) refuse(tr("not a file name"));
        if (name.rfind(LOG_PREFIX, 0) == 0) refuse(tr("it is the name of a log"));
        m_new = m_path.string() + "." + std::to_string(getpid()) + ".new";
        if (!create()) refuse(tool::systemError(errno));
        std::remove(m_new.c_str());
    }

    /// If it returns false, `errno` says why, and an earlier file is unchanged.
    bool save(const pugi::xml_document& picture) const {
        auto file = create();
        if (!file) return false;
        pugi::xml_writer_file writer(file.get());
        picture.save(writer, " ");
        const bool written = std::ferror(file.get()) == 0;
        const bool closed = std::fclose(file.release()) == 0;
        if (written && closed && keepPermissions() && std::rename(m_new.c_str(), m_path.c_str()) == 0)
            return true;
        const int reason = errno;
        std::remove(m_new.c_str());
        errno = reason;
        return false;
    }

  private:
    using File = std::unique_ptr<FILE, int (*)(FILE*)>;

    [[noreturn]] void refuse(const std::string& reason) const {
        throw CLI::ValidationError(filled(tr("--svg: cannot write %s: %s"), m_path.c_str(), reason.c_str()));
    }

    File create() const { return {std::fopen(m_new.c_str(), "wxe"), std::fclose}; }

    bool keepPermissions() const {
        std::error_code error;
        const auto present = fs::status(m_path, error);
        if (fs::exists(present)) fs::permissions(m_new, present.permissions(), error);
        return !fs::exists(present) || !error;
    }

    fs::path m_path;
    fs::path m_new;  ///< beside it
};

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

/// Shows the calls of today's log as they end, until Ctrl-C.
int follow(const fs::path& directory) {
    constexpr std::size_t SHOWN_AT_START = 10;
    constexpr timespec PAUSE{0, 200'000'000};
    // Blocked signals wait for sigtimedwait, so none can end us in the middle of a line.
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
    log.read();
    auto ended = exchanges.takeEnded();
    ended.erase(ended.begin(),
                ended.end() - static_cast<std::ptrdiff_t>(std::min(ended.size(), SHOWN_AT_START)));
    while (true) {
        for (const logs::Exchange& exchange : ended) table.print(exchange);
        if (!std::cout.flush() || sigtimedwait(&ending, nullptr, &PAUSE) > 0) return EXIT_SUCCESS;
        log.read();
        ended = exchanges.takeEnded();
    }
}

}  // namespace

LogCommand::LogCommand(CLI::App& application)
    : Subcommand(application, "log", tr("Show the calls in the library's logs, and how long they took"),
                 "fiscora log [--dir DIR] [--since DAY] [--svg FILE] [--json] | --follow") {
    m_options
        ->add_option("--dir", m_directory,
                     tr("Folder of the logs, or the folder that contains logsDrs (default: logsDrs)"))
        ->type_name("DIR");
    m_options
        ->add_option_function<std::string>(
            "--since", [this](const std::string& text) { m_since = dayFrom(text); },
            tr("Leave out days before DAY, YYYYMMDD or YYYY-MM-DD"))
        ->type_name("DAY");
    m_options->add_option("--svg", m_picturePath, tr("Draw the durations over time in FILE, as SVG"))
        ->type_name("FILE");
    m_options->add_flag("--json", m_json, tr("Print the result as one JSON object"));
    m_options->add_flag("--follow", m_follow, tr("Show today's calls as they end, until Ctrl-C"));
    m_options->footer(tr(
        "A call is \"refused\" if the device answered with a code other than success, \"failed\" if its "
        "status is not OK, and has \"no end\" if its end is not in the log. A duration may be off by one "
        "second, because the log records whole seconds only; - means that the log does not say.\n"
        "Exit status: 0 if all files were read (damaged lines are skipped and counted), 1 if one could not "
        "be read completely or the picture could not be saved, 2 for a wrong command line."));
}

int LogCommand::run(const std::vector<std::string>& operands) {
    refuseExtras(operands);
    if (m_follow && (m_json || m_options->count("--svg") > 0 || !m_since.empty()))
        throw CLI::ValidationError(tr("--follow cannot be combined with --since, --svg or --json"));
    const fs::path directory = logDirectory(m_directory);
    if (m_follow) return follow(directory);
    const auto files = logsIn(directory, m_since);
    std::optional<PictureFile> pictureFile;
    if (m_options->count("--svg") > 0) pictureFile.emplace(m_picturePath);

    logs::Exchanges exchanges;
    logs::Complaints complaints;
    complaints.files = logs::readLogs(files, [&](std::string_view line) { exchanges.take(line); });
    complaints.damagedLines = exchanges.damagedLines();

    // The file comes first: a reader of the output that leaves early must not cost the picture.
    const bool drawn = !pictureFile || pictureFile->save(logs::picture(exchanges.all()));
    const std::string reason = drawn ? "" : systemError(errno);
    if (m_json)
        logs::printJson(std::cout, exchanges.all(), complaints);
    else if (files.empty())
        std::cout << withoutControls(withoutLogs(directory, m_since)) << '\n';
    else
        print(exchanges.all(), directory);
    std::cout.flush();

    const auto complain = [](const std::string& text) {
        std::cerr << "fiscora log: " << withoutControls(text) << '\n';
    };
    for (const std::string& complaint : complaints.files) complain(complaint);
    if (const auto count = complaints.files.size(); count > 0)
        complain(filled(tr("%zu file was not read completely", "%zu files were not read completely", count),
                        count));
    if (const auto count = complaints.damagedLines; count > 0)
        complain(filled(tr("%zu damaged or truncated line is not counted above",
                           "%zu damaged or truncated lines are not counted above", count),
                        count));
    if (!drawn) complain(filled(tr("cannot write %s: %s"), m_picturePath.c_str(), reason.c_str()));
    return complaints.files.empty() && drawn ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
