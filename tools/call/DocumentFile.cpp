#include "call/DocumentFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "i18n.h"
#include "sim/Descriptor.h"

namespace call {
namespace {

using tool::filled;
using tool::tr;

std::string unwritable(const std::string& path, const char* reason) {
    return filled(tr("cannot write %s: %s"), path.c_str(), reason);
}

[[noreturn]] void refuse(const std::string& path, const char* reason) {
    throw CLI::ValidationError(unwritable(path, reason));
}

/// A descriptor above 2: with a closed standard output, what is printed would go into the document.
int aboveStandardStreams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const sim::Descriptor low(fd);
    return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

bool writeAll(int fd, const std::string& content) {
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t length = write(fd, content.data() + done, content.size() - done);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return false;
        done += static_cast<std::size_t>(length);
    }
    return fsync(fd) == 0;
}

}  // namespace

DocumentFile::DocumentFile(const std::string& path) : m_target(path) {
    if (path.empty()) refuse(path, std::strerror(ENOENT));
    struct stat present {};
    if (lstat(path.c_str(), &present) == 0 && S_ISLNK(present.st_mode)) {
        std::error_code broken;
        m_target = std::filesystem::canonical(path, broken).string();
        if (broken) refuse(path, tr("it is a dangling link"));
    }
    const bool exists = stat(m_target.c_str(), &present) == 0;
    if (exists && !S_ISREG(present.st_mode)) refuse(path, tr("it is not a regular file"));
    if (exists && access(m_target.c_str(), W_OK) != 0) refuse(path, std::strerror(errno));

    m_unfinished = m_target + "." + std::to_string(getpid()) + ".part";
    m_fd = aboveStandardStreams(open(m_unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (m_fd < 0) refuse(path, std::strerror(errno));
    if (exists) fchmod(m_fd, present.st_mode & 07777U);
}

DocumentFile::~DocumentFile() {
    if (m_fd < 0) return;
    close(m_fd);
    unlink(m_unfinished.c_str());
}

std::string DocumentFile::save(const std::string& content) {
    if (!writeAll(m_fd, content) || std::rename(m_unfinished.c_str(), m_target.c_str()) != 0)
        return unwritable(m_target, std::strerror(errno));
    close(m_fd);
    m_fd = -1;
    const auto folder = std::filesystem::path(m_target).parent_path();
    const sim::Descriptor entries(
        open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fsync(entries.get());  // the document is in place; a folder that cannot be flushed changes nothing
    return "";
}

}  // namespace call
