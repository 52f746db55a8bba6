#include "sim/device_guard.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include "Descriptor.h"
#include "i18n.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

/// An open port could lose answers to its reader, or have its speed changed, even if it is open for reading
/// only.
constexpr std::uint64_t OPEN = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE;
/// LANDLOCK_ACCESS_FS_REFER, which headers before Linux 5.19 lack. On a kernel without it, no process under
/// Landlock can move files between folders.
constexpr std::uint64_t MOVE = std::uint64_t{1} << 13;
constexpr long VERSION_WITH_MOVE = 2;

constexpr char PORT[] = "ttyACM";

/// What is allowed. Landlock has no exceptions, so everything but the ports has to be named.
class Allowed {
  public:
    Allowed() {
        landlock_ruleset_attr handled{};  // has more members in newer headers
        handled.handled_access_fs = OPEN | MOVE;
        m_rules = tool::Descriptor(
            static_cast<int>(syscall(SYS_landlock_create_ruleset, &handled, sizeof handled, 0)));
        if (m_rules.get() < 0)
            throw std::system_error(errno, std::generic_category(),
                                    tool::tr("cannot keep real devices out of reach"));
    }
    /// Allows `access` to `path` and all beneath it; a link is left to the rule of its target.
    void add(const fs::path& path, std::uint64_t access) const {
        const tool::Descriptor entry(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat file {};
        if (fstat(entry.get(), &file) != 0 || S_ISLNK(file.st_mode)) return;
        const landlock_path_beneath_attr rule{access, entry.get()};
        syscall(SYS_landlock_add_rule, m_rules.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
    }
    void enforce() const { syscall(SYS_landlock_restrict_self, m_rules.get(), 0); }

  private:
    tool::Descriptor m_rules;
};

/// Calls `visit` with the path of each entry of `folder`.
template <typename Visit>
void forEach(const fs::path& folder, Visit visit) {
    std::error_code failure;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure))
        visit(entry->path());
}

/// Status of `path` itself, links as they are; all zero if it cannot be read.
struct stat statusOf(const fs::path& path) {
    struct stat file {};
    return lstat(path.c_str(), &file) == 0 ? file : decltype(file){};
}

/// Allows the entries of `folder` except `ports`. Folders are entered: a device plugged in later may appear
/// in one. Other file systems mounted there (pts, mqueue) are allowed as a whole, and so is the shared
/// memory, which containers may have in a plain folder.
void allowEntries(const Allowed& allowed, const fs::path& folder, const std::set<dev_t>& ports) {
    const dev_t fileSystem = statusOf(folder).st_dev;
    forEach(folder, [&](const fs::path& path) {
        const struct stat entry = statusOf(path);
        if (S_ISDIR(entry.st_mode) && entry.st_dev == fileSystem && path != "/dev/shm") {
            allowEntries(allowed, path, ports);
        } else if (!S_ISCHR(entry.st_mode) || ports.count(entry.st_rdev) == 0) {
            allowed.add(path, OPEN);
        }
    });
}

}  // namespace

void guardDevices() {
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) < VERSION_WITH_MOVE)
        return;

    // A port may be a link to a node of another name, so nodes are told by their numbers.
    std::set<dev_t> ports;
    forEach("/dev", [&](const fs::path& entry) {
        struct stat node {};
        const bool port = entry.filename().string().rfind(PORT, 0) == 0;
        if (port && stat(entry.c_str(), &node) == 0 && S_ISCHR(node.st_mode)) ports.insert(node.st_rdev);
    });

    const Allowed allowed;
    allowed.add("/", MOVE);
    forEach("/", [&](const fs::path& entry) {
        if (entry != "/dev") allowed.add(entry, OPEN);
    });
    allowEntries(allowed, "/dev", ports);
    allowed.enforce();
}

}  // namespace sim
