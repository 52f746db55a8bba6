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
        throw CLI::ValidationError("--since: esperado um dia, AAAAMMDD ou AAAA-MM-DD, e não \"" + text +
                                   "\"");
    return logs::timeText(*time, "%Y%m%d");
}

std::vector<logs::LogFile> logsIn(const fs::path& directory, const std::string& since) {
    try {
        return logs::findLogs(directory, since);
    } catch (const fs::filesystem_error& error) {
        throw CLI::ValidationError("a pasta de logs " + directory.string() +
                                   " não pode ser lida: " + error.code().message() +
                                   "; esperada uma que tenha logDrsAAAAMMDD.log (--dir)");
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
        if (fs::is_symlink(path, error) && !fs::exists(path, error)) refuse("é um link que não leva a nada");
        if (fs::exists(path, error)) {
            m_path = fs::canonical(path, error);  // a link stays, and what it leads to is replaced
            if (!fs::is_regular_file(m_path, error)) refuse("não é um arquivo comum");
            if (access(m_path.c_str(), W_OK) != 0) refuse(std::strerror(errno));
        }
        const std::string name = m_path.filename();
        if (name.empty()) refuse("não é o nome de um arquivo");
        if (fnmatch("logDrs*", name.c_str(), 0) == 0) refuse("é o nome de um log");
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
        throw CLI::ValidationError("--svg: não é possível gravar " + m_path.string() + ": " + reason);
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
    : Subcommand(application, "log", "Mostra as chamadas nos logs da biblioteca, e quanto duraram",
                 "fiscora log [--dir DIR] [--since DAY] [--svg FILE]") {
    m_options->set_help_flag("-h,--help", "Mostra esta ajuda");
    m_options
        ->add_option("--dir", m_directory,
                     "Pasta dos logs, ou a que contém a logsDrs deles (sem ela: logsDrs)")
        ->type_name("DIR");
    m_options
        ->add_option_function<std::string>(
            "--since", [this](const std::string& text) { m_since = dayFrom(text); },
            "Deixa de fora os dias anteriores, AAAAMMDD ou AAAA-MM-DD")
        ->type_name("DAY");
    m_options->add_option("--svg", m_picturePath, "Desenha as durações ao longo do tempo em FILE, em SVG")
        ->type_name("FILE");
    m_options->footer(
        "Uma duração pode ter um segundo a mais ou a menos, pois o log só tem segundos inteiros; - está no lugar "
        "do que o log não diz. Falhas são as chamadas com outro status que OK, incompletas aquelas cujo fim não "
        "está no log.\n"
        "Status de saída: 0 se todos os arquivos foram lidos (linhas danificadas são puladas e contadas), 1 se "
        "um não foi lido até o fim ou a figura não foi gravada, 2 para uma linha de comando errada.");
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
    if (!drawn) complain("não é possível gravar " + m_picturePath + ": " + reason);
    return complaints.empty() && drawn ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
