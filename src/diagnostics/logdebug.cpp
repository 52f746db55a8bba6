#include "diagnostics/logdebug.h"

#include <dirent.h>
#include <err.h>
#include <fts.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <vector>

#include "diagnostics/log_names.h"
#include "file_probe.h"
#include "local_time.h"
#include "version.h"

namespace {

constexpr mode_t DIRECTORY_MODE = 0775;

/// Position of LOG_SUFFIX in a day's path, after logsDrs/logDrsYYYYMMDD.
constexpr std::size_t SUFFIX_POSITION = 22;

/// If a day begins with this many files or more, the oldest goes.
constexpr std::size_t MAX_FILES = 8;

constexpr useconds_t LOCK_POLL_US = 1'000;
constexpr int MAX_LOCK_POLLS = 5'000;

/// Holds the log's directory against other processes, from the look at the date to the written line: else
/// one could write to a log that another has just archived, and then archive that line over the whole day. A
/// process that stands still must not hold the others for ever, so these go on without the lock after 5 s.
class DirectoryLock {
  public:
    explicit DirectoryLock(const std::string& path) : m_directory(opendir(path.c_str()), closedir) {
        if (!m_directory) return;
        const int fd = dirfd(m_directory.get());
        for (int polls = 0; flock(fd, LOCK_EX | LOCK_NB) != 0; ++polls) {
            if ((errno != EWOULDBLOCK && errno != EINTR) || polls == MAX_LOCK_POLLS) return;
            usleep(LOCK_POLL_US);
        }
    }

  private:
    std::unique_ptr<DIR, int (*)(DIR*)> m_directory;
};

}  // namespace

LogDebug* LogDebug::m_log = nullptr;

LogDebug* LogDebug::obtemReferencia() {
    // Never destroyed: it serves to the end of the process, whatever has ended before.
    if (m_log == nullptr) m_log = new LogDebug();
    return m_log;
}

LogDebug::LogDebug() : m_pathLog(LOG_DIRECTORY) { mkdir(m_pathLog.c_str(), DIRECTORY_MODE); }

std::string LogDebug::currentDate() { return localTimeText("%Y%m%d"); }
std::string LogDebug::currentDateTime() { return localTimeText("%Y-%m-%d.%X"); }

std::string LogDebug::getFileNameLog() {
    const std::string date = currentDate();
    if (date == m_currentDate) return m_fileNameLog;
    compress(m_fileNameLog);
    m_fileNameLog = m_pathLog + "/" + LOG_PREFIX + date + LOG_SUFFIX;
    m_currentDate = date;
    return m_fileNameLog;
}

void LogDebug::saveLog(const std::string& level, const std::string& text) {
    const DirectoryLock lock(m_pathLog);
    const std::string fileName = getFileNameLog();
    const bool isNew = !opensForUpdate(fileName);
    // A new file is appended to as well: another process may have begun it since.
    std::ofstream file(fileName, std::ios::app);
    if (isNew) {
        file << "DRS Version: " << DRIVER_VERSION << std::endl;
        removeLastDays(m_pathLog.data());
    }
    if (!file.is_open()) return;

    std::array<char, 512> line{};
    std::snprintf(line.data(), line.size(), "[%s] - [%s, %s]", currentDateTime().c_str(), level.c_str(),
                  text.c_str());
    file << line.data() << std::endl;
}

void LogDebug::compress(const std::string& fileName) {
    if (!opensForUpdate(fileName)) return;
    const std::string archive = fileName + ARCHIVE_SUFFIX;
    std::cout << "[removeLastDays] file to zip " << fileName << std::endl;
    sync();
    const std::string command = "tar -zcvf " + archive + " " + fileName;
    std::cout << "[removeLastDays] cmd to zip " << command << std::endl;
    const bool archived = system(command.c_str()) == 0;
    // What a failed tar has left must not take the place of an earlier archive of that day.
    if (!archived) remove(archive.c_str());
    sync();
    std::string finalName = archive;
    finalName.erase(SUFFIX_POSITION, sizeof LOG_SUFFIX - 1);
    std::cout << "[removeLastDays] erase " << finalName << std::endl;
    const bool renamed = rename(archive.c_str(), finalName.c_str()) == 0;
    if (renamed)
        puts("File successfully renamed");
    else
        perror("Error renaming file");
    sync();
    // The log goes only where there is an archive, whatever tar said.
    if (archived && (renamed || opensForUpdate(archive))) remove(fileName.c_str());
    sync();
}

void LogDebug::removeLastDays(char* path) {
    std::array<char*, 2> roots = {path, nullptr};
    const std::unique_ptr<FTS, int (*)(FTS*)> walk(
        fts_open(roots.data(), FTS_COMFOLLOW | FTS_LOGICAL | FTS_NOCHDIR, nullptr), fts_close);
    if (!walk) {
        warn("fts_open");
        return;
    }
    if (fts_children(walk.get(), 0) == nullptr) return;

    const std::string wanted = std::string(path) + "/" + LOG_PREFIX;
    std::vector<std::string> files;
    while (const FTSENT* entry = fts_read(walk.get()))
        if (entry->fts_info == FTS_F && std::string(entry->fts_path).find(wanted) != std::string::npos)
            files.emplace_back(entry->fts_path);

    if (files.size() < MAX_FILES) return;
    std::sort(files.begin(), files.end());
    // Where the clock has gone back, the file in use is the oldest by its name.
    const bool firstIsInUse = files.front() == m_fileNameLog;
    remove(files[firstIsInUse ? 1 : 0].c_str());
    sync();
}
