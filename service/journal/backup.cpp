#include "journal/backup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

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

/// Gives the file a second name, which must be free; on a file system without links, its only one.
void nameAlso(const std::string& path, const std::string& name) {
    // A link, since rename would replace a file that has come meanwhile.
    if (link(path.c_str(), name.c_str()) == 0) return;
    const int error = errno;
    if (error == EEXIST || fs::exists(fs::symlink_status(name)) ||
        std::rename(path.c_str(), name.c_str()) != 0)
        fail(name, error);
}

/// Makes `file` the user's whose journal `path` is, or is to be: root may restore it, but does not serve.
void giveToUserOf(const std::string& path, const std::string& file) {
    struct stat user {};
    if (geteuid() != 0 || (stat(path.c_str(), &user) != 0 && stat(folderOf(path).c_str(), &user) != 0))
        return;
    if (chown(file.c_str(), user.st_uid, user.st_gid) != 0) fail(file, errno);
}

/// A file beside `to`, readable by its user alone, that goes again unless it is kept.
class Draft {
  public:
    explicit Draft(const std::string& to) : m_path(to + ".XXXXXX") {
        const tool::Descriptor file(mkostemp(m_path.data(), O_CLOEXEC));
        if (file.get() < 0) fail(to, errno);
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
        nameAlso(m_path, to);
        syncToDisk(folderOf(to));
    }
    /// Puts the file, complete and on disk, in place of `to`, of the same user as that.
    void replace(const std::string& to) {
        giveToUserOf(to, m_path);
        syncToDisk(m_path);
        if (std::rename(m_path.c_str(), to.c_str()) != 0) fail(to, errno);
        syncToDisk(folderOf(to));
    }

  private:
    std::string m_path;
};

/// The next session number of a journal that is to be replaced; none if it cannot be read.
std::optional<int> nextSessionOf(const std::string& path) {
    try {
        return Journal(path, Journal::IfMissing::Refuse).nextSession();
    } catch (const JournalError&) {
        return std::nullopt;
    }
}

/// Keeps the journal `path` under a name with the time, and returns that name; empty if there is no journal.
/// It stays in its place as well: a service that found none there would begin a new one.
std::string keepAside(const std::string& path) {
    if (!fs::exists(path)) return "";
    std::string kept = path + localTimeText(".%Y%m%dT%H%M%S");
    nameAlso(path, kept);
    // There unless the journal was closed in good order. They belong to it, and not to what replaces it.
    for (const char* suffix : {"-wal", "-shm"})
        if (fs::exists(path + suffix) && std::rename((path + suffix).c_str(), (kept + suffix).c_str()) != 0)
            fail(path + suffix, errno);
    return kept;
}

}  // namespace

void backUp(const std::string& path, const std::string& to) {
    if (fs::exists(fs::symlink_status(to))) fail(to, EEXIST);

    Draft draft(to);
    Journal(path, Journal::IfMissing::Refuse).copyTo(draft.path());
    draft.keepAs(to);
}

std::string restore(const std::string& from, const std::string& path) {
    const OwnerLock owner(path);
    Draft draft(path);
    Journal(from, Journal::IfMissing::Refuse).copyTo(draft.path());
    if (const auto problems = problemsIn(draft.path(), ""); !problems.empty())
        throw JournalError(from + ": " + problems.front());
    Journal(draft.path(), Journal::IfMissing::Refuse).goOnFromCopy(nextSessionOf(path));

    giveToUserOf(path, OwnerLock::pathFor(path));
    std::string kept = keepAside(path);
    draft.replace(path);
    return kept;
}

}  // namespace fiscorad
