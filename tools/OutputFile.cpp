#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "i18n.h"
#include "kept_to_itself.h"
#include "quiet_writes.h"

namespace tool {
namespace {

std::string unwritable(const std::string& path, const std::string& reason) {
    return filled(tr("cannot write %s: %s"), path.empty() ? "\"\"" : path.c_str(), reason.c_str());
}

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
    throw CLI::ValidationError(unwritable(path, reason));
}

bool writeAll(int fd, const std::string& content) {
    const QuietWrites guard;
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t length = write(fd, content.data() + done, content.size() - done);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return false;
        done += static_cast<std::size_t>(length);
    }
    return fsync(fd) == 0;
}

/// Gives `fd` the owner, the group and the permissions of `old`. A group that must not be given away loses
/// its permissions: they would be another group's.
void takeAccess(int fd, const struct stat& old) {
    mode_t mode = old.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO);
    if (fchown(fd, old.st_uid, old.st_gid) != 0 && fchown(fd, static_cast<uid_t>(-1), old.st_gid) != 0)
        mode &= ~static_cast<mode_t>(S_IRWXG);
    fchmod(fd, mode);
}

}  // namespace

OutputFile::OutputFile(const std::string& path, Interruption& interruption) : m_path(path), m_target(path) {
    if (std::filesystem::path(path).filename().empty()) refuse(path, tr("not a file name"));
    struct stat present {};
    const bool exists = stat(path.c_str(), &present) == 0;
    if (exists && !S_ISREG(present.st_mode)) refuse(path, tr("not a regular file"));
    std::error_code broken;
    if (std::filesystem::is_symlink(path, broken))
        m_target = std::filesystem::canonical(path, broken).string();
    if (m_target.empty()) refuse(path, tr("it is a dangling link"));
    if (exists && access(m_target.c_str(), W_OK) != 0) refuse(path, systemError(errno));

    m_unfinished = m_target + "." + std::to_string(getpid()) + ".part";
    interruption.remove(m_unfinished);
    const mode_t mode = exists ? S_IRUSR | S_IWUSR : 0666;
    m_file =
        Descriptor(keptToItself(open(m_unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)));
    if (m_file.get() < 0) refuse(path, systemError(errno));
    if (exists) takeAccess(m_file.get(), present);
}

OutputFile::~OutputFile() {
    if (m_file.get() >= 0) unlink(m_unfinished.c_str());
}

std::string OutputFile::save(const std::string& content) {
    if (!writeAll(m_file.get(), content) || std::rename(m_unfinished.c_str(), m_target.c_str()) != 0)
        return unwritable(m_path, systemError(errno));
    m_file = Descriptor();
    const auto folder = std::filesystem::path(m_target).parent_path();
    const Descriptor entries(open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fsync(entries.get());  // the file is in place; a folder that cannot be flushed changes nothing
    return "";
}

}  // namespace tool
