#include "diagnostics/LogFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "kept_to_itself.h"
#include "quiet_writes.h"

namespace {

constexpr mode_t FILE_MODE = 0666;

bool lock(int fd, int operation) { return flock(fd, operation | LOCK_NB) == 0 || errno != EWOULDBLOCK; }

/// False as well if the file cannot be read.
bool endsInsideLine(int fd) {
    struct stat status {};
    char last = '\n';
    return fstat(fd, &status) == 0 && status.st_size > 0 && pread(fd, &last, 1, status.st_size - 1) == 1 &&
           last != '\n';
}

}  // namespace

LogFile::LogFile(const std::string& path, int flags) {
    // Looked at before it is opened as well, because opening alone can move a device.
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return;
    }
    // Not `open`: a stand-in for the port replaces that one.
    m_fd = keptToItself(openat(AT_FDCWD, path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, FILE_MODE));
    if (m_fd == -1 || (fstat(m_fd, &status) == 0 && S_ISREG(status.st_mode))) return;
    close(std::exchange(m_fd, -1));
    errno = EINVAL;
}

LogFile::LogFile(LogFile&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

LogFile::~LogFile() {
    if (m_fd != -1) close(m_fd);
}

bool LogFile::isEmpty() const {
    struct stat status {};
    return fstat(m_fd, &status) == 0 && status.st_size == 0;
}

bool LogFile::isLinked() const {
    struct stat status {};
    return fstat(m_fd, &status) == 0 && status.st_nlink > 0;
}

bool LogFile::lockShared() const { return lock(m_fd, LOCK_SH); }
bool LogFile::lockAlone() const { return lock(m_fd, LOCK_EX); }

void LogFile::append(std::string line) const {
    line += '\n';
    // A full disk, or the end of a process, has cut the last line: this one must not become part of it.
    if (endsInsideLine(m_fd)) line.insert(0, 1, '\n');
    const QuietWrites guard;
    while (write(m_fd, line.data(), line.size()) == -1 && errno == EINTR) continue;
}
