#include "diagnostics/logdebug.h"

#include <err.h>
#include <fcntl.h>
#include <fts.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <utility>
#include <vector>

#include "diagnostics/LogFile.h"
#include "diagnostics/archive_check.h"
#include "diagnostics/log_names.h"
#include "local_time.h"
#include "quiet_writes.h"
#include "version.h"

namespace {

constexpr mode_t DIRECTORY_MODE = 0775;

/// Position of LOG_SUFFIX in a day's path, after logsDrs/logDrsYYYYMMDD.
constexpr std::size_t SUFFIX_POSITION = 22;

/// If a day begins with this many files or more, the oldest goes.
constexpr std::size_t MAX_FILES = 8;

// A process that archives a log waits this long for those that are appending to it.
constexpr useconds_t LOCK_POLL_US = 1'000;
constexpr int MAX_LOCK_POLLS = 20;

/// How often a line is tried: each time, another process has just taken the day's file away.
constexpr int MAX_TRIES = 3;

/// Opens the standard streams that the application has closed, on /dev/null. Without them tar fails.
class StandardStreams {
  public:
    StandardStreams() {
        for (int fd = openNull(); fd != -1; fd = openNull()) {
            if (fd > STDERR_FILENO) {
                close(fd);
                break;
            }
            m_opened.push_back(fd);
        }
    }
    StandardStreams(const StandardStreams&) = delete;
    StandardStreams& operator=(const StandardStreams&) = delete;
    ~StandardStreams() {
        for (const int fd : m_opened) close(fd);
    }

  private:
    static int openNull() { return openat(AT_FDCWD, "/dev/null", O_RDWR); }

    std::vector<int> m_opened;
};

void print(const std::string& line) {
    const QuietWrites guard;
    std::cout << "[removeLastDays] " << line << std::endl;
}

bool lockAlone(const LogFile& log) {
    for (int polls = 0; !log.lockAlone(); ++polls) {
        if (polls == MAX_LOCK_POLLS) return false;
        usleep(LOCK_POLL_US);
    }
    return true;
}

/// At a FIFO tar would wait for a reader, and it would write through a link.
void removeUnlessRegular(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) remove(path.c_str());
}

bool isLink(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

/// The day's file, open for appending.
struct DayFile {
    LogFile file;
    bool isNew = false;  ///< made by this call
};

DayFile openDayFile(const std::string& path) {
    constexpr int FLAGS = O_RDWR | O_APPEND;
    LogFile existing(path, FLAGS);
    if (!existing.isOpen() && errno == EACCES) return {LogFile(path, O_WRONLY | O_APPEND)};
    if (existing.isOpen() || errno != ENOENT) return {std::move(existing)};
    LogFile created(path, FLAGS | O_CREAT | O_EXCL);
    if (created.isOpen() || errno != EEXIST) return {std::move(created), true};
    // Another process was quicker, or a link has no target yet.
    LogFile late(path, FLAGS | O_CREAT);
    const bool isTarget = isLink(path) && late.isEmpty();
    return {std::move(late), isTarget};
}

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
    for (int tries = 0; tries < MAX_TRIES; ++tries) {
        const std::string fileName = getFileNameLog();
        const auto [file, isNew] = openDayFile(fileName);
        if (!file.isOpen()) return;
        // Nobody archives the file under this lock. The date is checked under it too: a log that another
        // process has archived by now must not be started again, and replace the archive of the whole day.
        file.lockShared();
        if (!file.isLinked()) continue;
        if (currentDate() != m_currentDate) {
            if (isNew) remove(fileName.c_str());
            continue;
        }
        if (isNew) {
            file.append(std::string("DRS Version: ") + DRIVER_VERSION);
            removeLastDays(m_pathLog.data());
        }
        std::array<char, 512> line{};
        std::snprintf(line.data(), line.size(), "[%s] - [%s, %s]", currentDateTime().c_str(), level.c_str(),
                      text.c_str());
        file.append(line.data());
        return;
    }
}

void LogDebug::compress(const std::string& fileName) {
    const LogFile log(fileName, O_RDWR);
    if (!log.isOpen() || !lockAlone(log) || !log.isLinked()) return;
    const StandardStreams guard;
    const std::string archive = fileName + ARCHIVE_SUFFIX;
    print("file to zip " + fileName);
    sync();
    removeUnlessRegular(archive);
    const std::string command = "tar -zcvf " + archive + " " + fileName;
    print("cmd to zip " + command);
    [[maybe_unused]] const int result = system(command.c_str());  // the archive itself tells more
    const bool isArchived = archiveHolds(archive, fileName, log);
    // What a failed tar leaves must not replace an earlier archive of that day.
    if (!isArchived) remove(archive.c_str());
    sync();
    std::string finalName = archive;
    finalName.erase(SUFFIX_POSITION, sizeof LOG_SUFFIX - 1);
    print("erase " + finalName);
    const bool isRenamed = rename(archive.c_str(), finalName.c_str()) == 0;
    {
        const int error = errno;
        const QuietWrites guard;
        errno = error;
        if (isRenamed)
            puts("File successfully renamed");
        else
            perror("Error renaming file");
        std::fflush(stdout);
    }
    sync();
    // Compared again, since a process without the lock may have appended a line.
    if (isArchived && archiveHolds(isRenamed ? finalName : archive, fileName, log)) remove(fileName.c_str());
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
    // If the clock was set back, the file in use is the oldest by its name.
    const bool firstIsInUse = files.front() == m_fileNameLog;
    remove(files[firstIsInUse ? 1 : 0].c_str());
    sync();
}
