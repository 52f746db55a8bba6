#include "journal/backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "Descriptor.h"
#include "i18n.h"
#include "journal/Journal.h"
#include "journal/OwnerLock.h"
#include "journal/check.h"
#include "local_time.h"

namespace fiscorad {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& path, int error) {
    throw JournalError(path + ": " + tool::systemError(error));
}

std::string folderOf(const std::string& path) { return fs::absolute(path).parent_path().string(); }

void syncToDisk(const std::string& path) {
    const tool::Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0 || fsync(file.get()) != 0) fail(path, errno);
}

/// A file that goes again unless it is kept.
class Draft {
  public:
    explicit Draft(std::string path) : m_path(std::move(path)) {
        std::remove(m_path.c_str());
        const tool::Descriptor file(
            open(m_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
        if (file.get() < 0) fail(m_path, errno);
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    ~Draft() {
        for (const char* suffix : {"", "-wal", "-shm"}) std::remove((m_path + suffix).c_str());
    }

    const std::string& path() const { return m_path; }
    /// Gives the file, complete and on disk, the name `to`, which must be free.
    void keepAs(const std::string& to) {
        syncToDisk(m_path);
        // A link, since rename would replace a file that has come meanwhile.
        if (link(m_path.c_str(), to.c_str()) != 0) fail(to, errno);
        std::remove(m_path.c_str());
        syncToDisk(folderOf(to));
    }

  private:
    std::string m_path;
};

}  // namespace

void backUp(const std::string& path, const std::string& to) {
    if (fs::exists(fs::symlink_status(to))) fail(to, EEXIST);

    Draft draft(to + ".part");
    Journal(path, Journal::IfMissing::Refuse).copyTo(draft.path());
    draft.keepAs(to);
}

std::string restore(const std::string& from, const std::string& path) {
    const OwnerLock owner(path);
    Draft draft(path + ".part");
    Journal(from, Journal::IfMissing::Refuse).copyTo(draft.path());
    if (const auto problems = problemsIn(draft.path(), ""); !problems.empty())
        throw JournalError(from + ": " + problems.front());
    Journal(draft.path()).jumpSessions();

    std::string kept;
    if (fs::exists(path)) {
        kept = path + localTimeText(".%Y%m%dT%H%M%S");
        // What has not reached the main file yet belongs to it under any name.
        for (const char* suffix : {"-wal", "-shm", ""})
            if (fs::exists(path + suffix) &&
                std::rename((path + suffix).c_str(), (kept + suffix).c_str()) != 0)
                fail(path + suffix, errno);
    }
    draft.keepAs(path);
    return kept;
}

}  // namespace fiscorad
