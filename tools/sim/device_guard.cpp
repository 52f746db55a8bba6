#include "sim/device_guard.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>

#include "Descriptor.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t WRITE = LANDLOCK_ACCESS_FS_WRITE_FILE;
/// LANDLOCK_ACCESS_FS_REFER, which headers before Linux 5.19 lack. On a kernel without it, no process under
/// Landlock can move files between folders.
constexpr std::uint64_t MOVE = std::uint64_t{1} << 13;
constexpr long VERSION_WITH_MOVE = 2;

constexpr char PORT[] = "ttyACM";

/// What is allowed. Landlock has no exceptions, so everything but the ports has to be named.
class Allowed {
  public:
    Allowed() {
        const landlock_ruleset_attr handled{WRITE | MOVE};
        m_rules = tool::Descriptor(
            static_cast<int>(syscall(SYS_landlock_create_ruleset, &handled, sizeof handled, 0)));
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
void forEach(const char* folder, Visit visit) {
    std::error_code failure;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure))
        visit(entry->path());
}

}  // namespace

void guardDevices() {
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) < VERSION_WITH_MOVE)
        return;

    // A port may be a link to a node of another name, so nodes are told by their numbers.
    const auto numberOf = [](const fs::path& node) {
        struct stat file {};
        return stat(node.c_str(), &file) == 0 && S_ISCHR(file.st_mode) ? file.st_rdev : 0;
    };
    std::set<dev_t> ports;
    forEach("/dev", [&](const fs::path& entry) {
        if (entry.filename().string().rfind(PORT, 0) == 0) ports.insert(numberOf(entry));
    });
    ports.erase(0);

    const Allowed allowed;
    allowed.add("/", MOVE);
    forEach("/", [&](const fs::path& entry) {
        if (entry != "/dev") allowed.add(entry, WRITE);
    });
    forEach("/dev", [&](const fs::path& entry) {
        if (ports.count(numberOf(entry)) == 0) allowed.add(entry, WRITE);
    });
    allowed.enforce();
}

}  // namespace sim
