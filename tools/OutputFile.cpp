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
    return filled(tr("cannot write %s: %s"), path.c_str(), reason.c_str());
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

}  // namespace

OutputFile::OutputFile(const std::string& path) : m_path(path), m_target(path) {
    if (std::filesystem::path(path).filename().empty()) refuse(path, tr("not a file name"));
    struct stat present {};
    if (lstat(path.c_str(), &present) == 0 && S_ISLNK(present.st_mode)) {
        std::error_code broken;
        m_target = std::filesystem::canonical(path, broken).string();
        if (broken) refuse(path, tr("it is a dangling link"));
    }
    const bool exists = stat(m_target.c_str(), &present) == 0;
    if (exists && !S_ISREG(present.st_mode)) refuse(path, tr("not a regular file"));
    if (exists && access(m_target.c_str(), W_OK) != 0) refuse(path, systemError(errno));

    m_unfinished = m_target + "." + std::to_string(getpid()) + ".part";
    m_file =
        Descriptor(keptToItself(open(m_unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666)));
    if (m_file.get() < 0) refuse(path, systemError(errno));
    if (exists) fchmod(m_file.get(), present.st_mode & 07777U);
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
