#include "log/LogFiles.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <tuple>

#include "diagnostics/log_names.h"
#include "i18n.h"
#include "log/Lines.h"

namespace logs {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view PREFIX = LOG_PREFIX;
constexpr std::size_t DAY_DIGITS = 8;
/// What follows the day, by LogFile::Kind.
const std::string SUFFIXES[] = {ARCHIVE_SUFFIX, std::string(LOG_SUFFIX) + ARCHIVE_SUFFIX, LOG_SUFFIX};

constexpr std::size_t CHUNK_BYTES = 65536;

/// The bytes of one log, from the beginning on.
class Content {
  public:
    explicit Content(const LogFile& file) : m_file(file), m_archive(archive_read_new(), archive_read_free) {
        if (!m_archive) throw std::bad_alloc();
    }

    /// The next `bytes` bytes: fewer before the end or before damage, none at the end. Throws
    /// std::runtime_error with the reason if the file cannot be opened, and at the damage.
    std::string next(std::size_t bytes) {
        if (!m_isOpen) open();
        std::string result;
        while (result.size() < bytes && hasBlock()) {
            const std::string_view part = m_block.substr(0, bytes - result.size());
            result += part;
            m_block.remove_prefix(part.size());
        }
        if (result.empty() && m_result != ARCHIVE_EOF) fail();
        return result;
    }

  private:
    void open() {
        std::error_code error;
        if (!fs::is_regular_file(m_file.path, error))
            throw std::runtime_error(error ? tool::systemError(error.value())
                                           : tool::tr("not a regular file"));
        const bool isLog = m_file.kind == LogFile::LOG;
        if (isLog) {
            // The one entry of a "raw" archive is the file itself.
            archive_read_support_format_raw(m_archive.get());
            archive_read_support_format_empty(m_archive.get());
        } else {
            archive_read_support_filter_gzip(m_archive.get());
            archive_read_support_format_tar(m_archive.get());
        }
        m_stream.reset(std::fopen(m_file.path.c_str(), "rbe"));
        if (!m_stream) throw std::runtime_error(tool::systemError(errno));
        if (archive_read_open_FILE(m_archive.get(), m_stream.get()) != ARCHIVE_OK) fail();
        if (isLog)
            nextEntry();
        else
            findEntry(LOG_PREFIX + m_file.day + LOG_SUFFIX);
        m_isOpen = true;
    }

    void findEntry(const std::string& name) {
        while (archive_entry* const entry = nextEntry()) {
            const char* const path = archive_entry_pathname(entry);
            if (path != nullptr && fs::path(path).filename() == name) return;
        }
        throw std::runtime_error(tool::filled(tool::tr("contains no %s"), name.c_str()));
    }

    archive_entry* nextEntry() {
        archive_entry* entry = nullptr;
        m_result = archive_read_next_header(m_archive.get(), &entry);
        if (m_result == ARCHIVE_EOF) return nullptr;
        if (!isGood()) fail();
        return entry;
    }

    /// Whether there are bytes at hand; gets a new block if the last one is used up.
    bool hasBlock() {
        while (m_block.empty() && isGood()) {
            const void* data = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            m_result = archive_read_data_block(m_archive.get(), &data, &size, &offset);
            if (isGood()) m_block = {static_cast<const char*>(data), size};
        }
        return !m_block.empty();
    }

    bool isGood() const { return m_result == ARCHIVE_OK || m_result == ARCHIVE_WARN; }

    [[noreturn]] void fail() {
        const char* const reason = archive_error_string(m_archive.get());
        throw std::runtime_error(reason != nullptr ? reason : tool::tr("damaged"));
    }

    const LogFile& m_file;
    std::unique_ptr<FILE, int (*)(FILE*)> m_stream{nullptr, std::fclose};  ///< outlives m_archive
    std::unique_ptr<archive, int (*)(archive*)> m_archive;
    bool m_isOpen = false;
    int m_result = ARCHIVE_OK;  ///< of the last step
    std::string_view m_block;   ///< what is left of the block at hand
};

std::string nextIfReadable(Content& content, std::size_t bytes) {
    try {
        return content.next(bytes);
    } catch (const std::runtime_error&) {
        return "";
    }
}

/// Whether `later` begins with `earlier`. Throws if `earlier` is damaged and `later` begins with the part
/// before the damage.
bool beginsWith(const LogFile& later, const LogFile& earlier) {
    Content whole(later), beginning(earlier);
    for (std::string chunk; !(chunk = beginning.next(CHUNK_BYTES)).empty();)
        if (nextIfReadable(whole, chunk.size()) != chunk) return false;
    return true;
}

void readFile(const LogFile& file, const std::function<void(std::string_view)>& take) {
    Content content(file);
    Lines lines(take);
    try {
        for (std::string chunk; !(chunk = content.next(CHUNK_BYTES)).empty();) lines.add(chunk);
    } catch (const std::runtime_error&) {
        lines.end();
        throw;
    }
    lines.end();
}

}  // namespace

std::vector<LogFile> findLogs(const fs::path& directory, const std::string& since) {
    std::vector<LogFile> files;
    for (const auto& entry : fs::directory_iterator(directory)) {
        const std::string name = entry.path().filename();
        if (name.compare(0, PREFIX.size(), PREFIX) != 0 || name.size() < PREFIX.size() + DAY_DIGITS) continue;
        const std::string day = name.substr(PREFIX.size(), DAY_DIGITS);
        if (day.find_first_not_of("0123456789") != std::string::npos || day < since) continue;
        const auto* const suffix =
            std::find(std::begin(SUFFIXES), std::end(SUFFIXES), name.substr(PREFIX.size() + DAY_DIGITS));
        if (suffix == std::end(SUFFIXES)) continue;
        files.push_back({day, static_cast<LogFile::Kind>(suffix - std::begin(SUFFIXES)), entry.path()});
    }
    std::sort(files.begin(), files.end(), [](const LogFile& a, const LogFile& b) {
        return std::tie(a.day, a.kind) < std::tie(b.day, b.kind);
    });
    return files;
}

std::vector<std::string> readLogs(const std::vector<LogFile>& files,
                                  const std::function<void(std::string_view)>& take) {
    std::vector<std::string> complaints;
    for (auto file = files.begin(); file != files.end(); ++file) {
        const auto sameDay = [&](const LogFile& other) { return other.day == file->day; };
        const auto dayEnd = std::find_if_not(file, files.end(), sameDay);
        const auto repeats = [&](const LogFile& later) { return beginsWith(later, *file); };
        try {
            if (std::none_of(file + 1, dayEnd, repeats)) readFile(*file, take);
        } catch (const std::runtime_error& error) {
            complaints.push_back(file->path.string() + ": " + error.what());
        }
    }
    return complaints;
}

}  // namespace logs
