// The commands check, backup, restore, export and prune.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Interruption.h"
#include "OutputFile.h"
#include "dispatcher/ActivationCode.h"
#include "i18n.h"
#include "journal/backup.h"
#include "journal/check.h"
#include "program/commands.h"
#include "rules/AccessKey.h"
#include "terminal_text.h"
#include "time_text.h"

namespace fiscorad {
namespace {

namespace fs = std::filesystem;
using tool::tr;

/// Documents read from the journal at once.
constexpr std::size_t PAGE = 500;
/// Documents removed, and pages of the file given back, in one transaction, during which no till's document
/// can be written; and the pause after it.
constexpr std::size_t BATCH = 50;
constexpr int PAGES = 64;
constexpr std::chrono::milliseconds BREATH{20};

/// The activation code that the journal must not hold; empty, and this user is told, if it cannot be read.
std::string codeToLookFor(const std::string& path) {
    try {
        return ActivationCode(path).text();
    } catch (const ActivationCodeError& unreadable) {
        std::cerr << "fiscorad check: "
                  << tool::filled(tr("not searched for the activation code: %s"), unreadable.what()) << "\n";
        return "";
    }
}

bool holds(const fs::path& path, const std::string& content) {
    std::error_code error;
    if (fs::file_size(path, error) != content.size() || error) return false;
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {}) == content;
}

/// Throws std::runtime_error, with one line for the user, if it cannot.
void makeFolder(const fs::path& folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) throw std::runtime_error(folder.string() + ": " + tool::systemError(error.value()));
}

/// Makes `content` the file `path`; false if it is there already. Throws as makeFolder does.
bool write(const fs::path& path, const std::string& content) {
    if (holds(path, content)) return false;
    makeFolder(path.parent_path());
    tool::Interruption interruption;
    tool::OutputFile file(path.string(), interruption);
    const std::string problem = file.save(content);
    if (!problem.empty()) throw std::runtime_error(problem);
    return true;
}

/// Removes what exports that were cut off have left in the folders: documents that they had not finished.
void removeUnfinished(const fs::path& folder) {
    const std::regex unfinished("CFe[0-9]{44}\\.xml\\.([0-9]{1,9})\\.part");
    std::error_code unreadable;
    for (fs::recursive_directory_iterator entry(folder, fs::directory_options::skip_permission_denied,
                                                unreadable);
         !unreadable && entry != fs::recursive_directory_iterator(); entry.increment(unreadable)) {
        std::smatch process;
        const std::string name = entry->path().filename().string();
        if (!std::regex_match(name, process, unfinished)) continue;
        const bool ended = kill(std::stoi(process[1]), 0) != 0 && errno == ESRCH;
        if (std::error_code kept; ended) fs::remove(entry->path(), kept);
    }
}

/// How far a command is, on a terminal; nothing elsewhere.
class Bar {
  public:
    explicit Bar(std::size_t total) : m_total(total), m_shown(isatty(STDERR_FILENO) != 0) {}
    Bar(const Bar&) = delete;
    Bar& operator=(const Bar&) = delete;
    ~Bar() { wipe(); }

    /// Makes room for a message; the bar comes again with the next step.
    void wipe() {
        if (m_shown) std::cerr << "\r\033[K" << std::flush;
        m_filled = NOTHING;
    }

    void advance() {
        constexpr std::size_t WIDTH = 40;
        ++m_done;
        const std::size_t filled = m_total == 0 ? WIDTH : std::min(m_done, m_total) * WIDTH / m_total;
        if (!m_shown || (filled == m_filled && m_done != m_total)) return;
        m_filled = filled;
        std::cerr << "\r[" << std::string(filled, '#') << std::string(WIDTH - filled, ' ') << "] " << m_done
                  << "/" << m_total << std::flush;
    }

  private:
    static constexpr std::size_t NOTHING = static_cast<std::size_t>(-1);

    std::size_t m_total;
    bool m_shown;
    std::size_t m_done = 0;
    std::size_t m_filled = NOTHING;
};

/// Where the signed document with that access key is exported to.
fs::path pathIn(const fs::path& folder, const AccessKey& key) {
    return folder / key.year() / key.month() / (key.text() + ".xml");
}

/// The beginning of a day, or the moment; throws CLI::ValidationError if it is neither.
Time momentOf(const std::string& day) {
    const auto span = parseTime(day);
    if (!span)
        throw CLI::ValidationError(tool::filled(tr("%s is not a date such as 2026-11-23"), day.c_str()));
    return span->begin;
}

}  // namespace

CheckCommand::CheckCommand(CLI::App& application, const Settings& settings)
    : Command(application, settings, "check", tr("Read the whole journal and verify it"), "fiscorad check") {}

int CheckCommand::run(const std::vector<std::string>& operands) {
    tool::refuseExtras(operands);

    const auto problems = problemsIn(settings().journal, codeToLookFor(settings().activationCodeFile));
    for (const std::string& problem : problems) std::cout << tool::withoutControls(problem) << "\n";
    if (!problems.empty()) return EXIT_FAILURE;
    Journal journal = openJournal();
    const std::size_t documents = journal.count({});
    std::cout << tool::filled(tr("%zu document: nothing wrong", "%zu documents: nothing wrong", documents),
                              documents)
              << "\n";
    return EXIT_SUCCESS;
}

BackupCommand::BackupCommand(CLI::App& application, const Settings& settings)
    : Command(application, settings, "backup", tr("Write a consistent copy of the journal"),
              tr("fiscorad backup FILE")) {
    m_options->add_option("file", m_file, tr("The copy; it must not exist"))
        ->required()
        ->option_text(tr("FILE"));
}

int BackupCommand::run(const std::vector<std::string>& operands) {
    tool::refuseExtras(operands);
    backUp(settings().journal, m_file);
    std::cout << tool::filled(tr("Written: %s"), m_file.c_str()) << "\n";
    return EXIT_SUCCESS;
}

RestoreCommand::RestoreCommand(CLI::App& application, const Settings& settings)
    : Command(application, settings, "restore",
              tr("Put a copy in place of the journal, while the service is stopped"),
              tr("fiscorad restore FILE")) {
    m_options->add_option("file", m_file, tr("A copy that fiscorad backup has written"))
        ->required()
        ->option_text(tr("FILE"));
    m_options->footer(tr(
        "Documents that were queued in the copy wait for fiscorad decide, since they may have been sent after "
        "it was made. Documents that came after the copy are not protected against being sent twice. If the "
        "device has issued some, nothing is sent until someone runs fiscorad confirm."));
}

int RestoreCommand::run(const std::vector<std::string>& operands) {
    tool::refuseExtras(operands);
    if (!goesOn(tool::filled(tr("Replace %s by %s?"), settings().journal.c_str(), m_file.c_str())))
        return EXIT_FAILURE;
    const std::string kept = restore(m_file, settings().journal);
    std::cout << tool::filled(tr("Restored: %s"), settings().journal.c_str()) << "\n";
    if (!kept.empty()) std::cout << tool::filled(tr("The previous journal: %s"), kept.c_str()) << "\n";
    return EXIT_SUCCESS;
}

ExportCommand::ExportCommand(CLI::App& application, const Settings& settings)
    : Command(application, settings, "export", tr("Write each signed document to a file of its own"),
              tr("fiscorad export --dir DIR [--since DAY]")) {
    m_options->add_option("--dir", m_folder, tr("Folder for the documents, in folders by year and month"))
        ->required()
        ->type_name(tr("DIR"));
    m_options->add_option("--since", m_since, tr("Only those received on this day or later"))
        ->type_name(tr("DAY"));
    m_options->footer(tr("Existing files are kept, so the export can be interrupted and run again."));
}

int ExportCommand::run(const std::vector<std::string>& operands) {
    tool::refuseExtras(operands);
    Filter filter;
    filter.state = State::Booked;
    filter.limit = PAGE;
    if (!m_since.empty()) filter.since = momentOf(m_since);
    Journal journal = openJournal();
    umask(S_IRWXG | S_IRWXO);  // customers' tax numbers are in them
    makeFolder(m_folder);
    removeUnfinished(m_folder);
    std::size_t written = 0;
    std::size_t failed = 0;
    {
        Bar bar(journal.count(filter));
        for (auto page = journal.list(filter); !page.empty(); page = journal.list(filter)) {
            for (const Document& document : page) {
                bar.advance();
                if (!document.hasDocument) continue;  // removed, or booked by a person's decision
                const auto key = AccessKey::parse(document.accessKey).value();
                const fs::path path = pathIn(m_folder, key);
                try {
                    if (write(path, journal.signedDocument(document.id).value())) ++written;
                } catch (const std::runtime_error& problem) {
                    ++failed;
                    bar.wipe();
                    std::cerr << "fiscorad export: " << key.text() << ": "
                              << tool::withoutControls(problem.what()) << "\n";
                }
            }
            filter.before = page.back().id;
        }
    }
    std::cout << tool::filled(tr("%zu document written", "%zu documents written", written), written) << "\n";
    return failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

PruneCommand::PruneCommand(CLI::App& application, const Settings& settings)
    : Command(application, settings, "prune", tr("Remove exported documents that no longer have to be kept"),
              tr("fiscorad prune --before DAY --dir DIR --legal-time-over --reason TEXT")) {
    m_options->add_option("--before", m_before, tr("Only those received before this day"))
        ->required()
        ->type_name(tr("DAY"));
    m_options
        ->add_option("--dir", m_folder, tr("Folder they were exported to; documents missing there are kept"))
        ->required()
        ->type_name(tr("DIR"));
    m_options->add_flag("--legal-time-over", m_legalTimeOver, tr("The law no longer requires keeping them"))
        ->required();
    m_options->add_option("--reason", m_reason, tr("Why; kept in the journal with your name"))
        ->required()
        ->type_name(tr("TEXT"));
    m_options->footer(tr(
        "Keys, states and access keys stay, so that no sale can be booked again. It can be interrupted and run "
        "again."));
}

int PruneCommand::run(const std::vector<std::string>& operands) {
    tool::refuseExtras(operands);
    Filter filter;
    filter.state = State::Booked;
    filter.until = momentOf(m_before);
    filter.limit = BATCH;
    Journal journal = openJournal();
    if (!goesOn(tool::filled(
            tr("Remove the documents received before %s from the journal? Only the files in %s will remain."),
            m_before.c_str(), m_folder.c_str())))
        return EXIT_FAILURE;
    journal.recordAction(person(), "remoção de documentos",
                         "anteriores a " + m_before + ", exportados em " + m_folder + ": " + m_reason);
    std::size_t removed = 0;
    std::size_t failed = 0;
    {
        Bar bar(journal.count(filter));
        for (auto page = journal.list(filter); !page.empty(); page = journal.list(filter)) {
            std::vector<std::int64_t> exported;
            for (const Document& document : page) {
                bar.advance();
                if (!document.hasDocument) continue;
                if (holds(pathIn(m_folder, AccessKey::parse(document.accessKey).value()),
                          journal.signedDocument(document.id).value())) {
                    exported.push_back(document.id);
                    continue;
                }
                ++failed;
                bar.wipe();
                std::cerr << "fiscorad prune: "
                          << tool::filled(tr("%s is kept: %s does not match the journal"),
                                          document.accessKey.c_str(), m_folder.c_str())
                          << "\n";
            }
            journal.removeTexts(exported);
            removed += exported.size();
            std::this_thread::sleep_for(BREATH);
            filter.before = page.back().id;
        }
        while (journal.shrink(PAGES)) std::this_thread::sleep_for(BREATH);
    }
    std::cout << tool::filled(tr("%zu document removed", "%zu documents removed", removed), removed) << "\n";
    return failed == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace fiscorad
