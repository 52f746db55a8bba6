#include "LogCommand.h"

#include <fnmatch.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>

#include "log/Exchanges.h"
#include "log/LogFiles.h"
#include "log/Picture.h"
#include "log/Report.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

/// YYYYMMDD, of that or YYYY-MM-DD.
std::string dayFrom(const std::string& text) {
    std::string dashed = text;
    if (text.size() == 8) dashed.insert(6, "-").insert(4, "-");
    const auto time = logs::parseTime(dashed + ".00:00:00");
    if (!time)
        throw CLI::ValidationError("--since: expected a day as YYYYMMDD or YYYY-MM-DD, not \"" + text + "\"");
    return logs::timeText(*time, "%Y%m%d");
}

std::vector<logs::LogFile> logsIn(const fs::path& directory, const std::string& since) {
    try {
        return logs::findLogs(directory, since);
    } catch (const fs::filesystem_error& error) {
        throw CLI::ValidationError("cannot read the log directory " + directory.string() + ": " +
                                   error.code().message() +
                                   "; expected one that holds logDrsYYYYMMDD.log (--dir)");
    }
}

/// `given`, or the log directory in it: the working directory of the application is easily taken for it.
fs::path logDirectory(const fs::path& given) {
    const fs::path inside = (given / "logsDrs").lexically_normal();
    std::error_code error;
    return logsIn(given, "").empty() && fs::is_directory(inside, error) ? inside : given;
}

/// Where the picture goes. What is wrong with the path shows before anything is read; a file that is there
/// already gives way to a whole picture only.
class PictureFile {
  public:
    explicit PictureFile(const std::string& path) : m_path(path) {
        std::error_code error;
        if (fs::is_symlink(path, error) && !fs::exists(path, error)) refuse("a link that leads nowhere");
        if (fs::exists(path, error)) {
            m_path = fs::canonical(path, error);  // a link stays, and what it leads to is replaced
            if (!fs::is_regular_file(m_path, error)) refuse("not a regular file");
            if (access(m_path.c_str(), W_OK) != 0) refuse(std::strerror(errno));
        }
        const std::string name = m_path.filename();
        if (name.empty()) refuse("not the name of a file");
        if (fnmatch("logDrs*", name.c_str(), 0) == 0) refuse("the name of a log");
        m_new = m_path.string() + "." + std::to_string(getpid()) + ".new";
        if (!create()) refuse(std::strerror(errno));
        std::remove(m_new.c_str());
    }

    /// Where it returns false, `errno` says why, and the file is as it was.
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
        throw CLI::ValidationError("--svg: cannot write " + m_path.string() + ": " + reason);
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
        std::cout << "Nenhuma chamada nos logs de " << directory.string() << '\n';
        return;
    }
    logs::printExchanges(std::cout, exchanges);
    std::cout << '\n';
    logs::printSummary(std::cout, exchanges);
}

}  // namespace

LogCommand::LogCommand(CLI::App& application)
    : Subcommand(application, "log", "Show the calls in the library's logs, and how long they took",
                 "fiscora log [--dir DIR] [--since DAY] [--svg FILE]") {
    m_options
        ->add_option(
            "--dir", m_directory,
            "Directory of the logs and archives, or the one that holds its logsDrs (default logsDrs)")
        ->type_name("DIR");
    m_options
        ->add_option_function<std::string>(
            "--since", [this](const std::string& text) { m_since = dayFrom(text); },
            "Leave out the logs of the days before, YYYYMMDD or YYYY-MM-DD")
        ->type_name("DAY");
    m_options->add_option("--svg", m_picturePath, "Draw the durations over time to FILE, in SVG")
        ->type_name("FILE");
    m_options->footer(
        "A duration is one second more or less than it was, for the log's times have whole seconds; - stands "
        "for what the log does not tell. Falhas are the calls with another status than OK, incompletas those "
        "whose end is not in the log.\n"
        "Exit status: 0 when all files were read (damaged lines are skipped and counted), 1 when one could "
        "not be read to its end, 2 when the command line was wrong.");
}

int LogCommand::run(const std::vector<std::string>& operands) {
    if (!operands.empty()) throw CLI::ExtrasError(m_options->get_name(), operands);
    const fs::path directory = logDirectory(m_directory);
    const auto files = logsIn(directory, m_since);
    std::optional<PictureFile> pictureFile;
    if (m_options->count("--svg") > 0) pictureFile.emplace(m_picturePath);

    logs::Exchanges exchanges;
    const auto complaints = logs::readLogs(files, [&](std::string_view line) { exchanges.take(line); });

    // What goes to a file comes first: a reader of the output that leaves early must not cost the picture.
    const bool drawn = !pictureFile || pictureFile->save(logs::picture(exchanges.all()));
    const std::string reason = drawn ? "" : std::strerror(errno);
    if (files.empty())
        std::cout << "Nenhum log em " << directory.string() << (m_since.empty() ? "" : " desde " + m_since)
                  << '\n';
    else
        print(exchanges.all(), directory);
    std::cout.flush();

    const auto complain = [](const std::string& text) { std::cerr << "fiscora log: " << text << '\n'; };
    for (const std::string& complaint : complaints) complain(complaint);
    if (!complaints.empty()) complain("arquivos não lidos até o fim: " + std::to_string(complaints.size()));
    if (exchanges.damagedLines() > 0)
        complain("linhas danificadas ou cortadas, não contadas acima: " +
                 std::to_string(exchanges.damagedLines()));
    if (!drawn) complain("cannot write " + m_picturePath + ": " + reason);
    return complaints.empty() && drawn ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
