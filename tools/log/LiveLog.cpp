#include "log/LiveLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "i18n.h"
#include "log/LogFiles.h"

namespace logs {

LiveLog::LiveLog(std::filesystem::path directory, std::string since,
                 std::function<void(std::string_view)> take)
    : m_directory(std::move(directory)), m_since(std::move(since)), m_take(std::move(take)) {}

std::vector<std::string> LiveLog::read() {
    std::vector<std::string> complaints;
    for (auto& [id, file] : m_files) file.isListed = false;
    try {
        for (const LogFile& log : findLogs(m_directory, m_since))
            if (log.kind == LogFile::LOG)
                if (const std::string reason = open(log.path); !reason.empty())
                    complaints.push_back(log.path.string() + ": " + reason);
    } catch (const std::filesystem::filesystem_error&) {
    }
    for (auto file = m_files.begin(); file != m_files.end();) {
        readRest(file->second);
        file = file->second.isListed ? std::next(file) : m_files.erase(file);
    }
    return complaints;
}

std::string LiveLog::open(const std::filesystem::path& path) {
    // A FIFO of that name must not hold us.
    tool::Descriptor descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (descriptor.get() < 0) return errno == ENOENT ? "" : tool::systemError(errno);
    struct stat status {};
    if (fstat(descriptor.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return tool::tr("not a regular file");
    const Id id(status.st_dev, status.st_ino);
    auto file = m_files.find(id);
    if (file == m_files.end()) file = m_files.emplace(id, File{std::move(descriptor), Lines(m_take)}).first;
    file->second.isListed = true;
    return "";
}

void LiveLog::readRest(File& file) {
    const int fd = file.descriptor.get();
    struct stat status {};
    if (fstat(fd, &status) == 0 && status.st_size < lseek(fd, 0, SEEK_CUR))
        lseek(fd, 0, SEEK_SET);  // truncated
    std::array<char, 65536> bytes{};
    for (ssize_t count; (count = ::read(fd, bytes.data(), bytes.size())) > 0;)
        file.lines.add({bytes.data(), static_cast<std::size_t>(count)});
}

}  // namespace logs
