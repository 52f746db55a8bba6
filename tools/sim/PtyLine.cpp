#include "sim/PtyLine.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "i18n.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view FOLDER_NAME = "fiscora-sim-";

void require(bool done, const char* what) {
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

/// Needs no descriptor, of which there may be none left.
void removeFolder(const fs::path& folder) {
    for (const char* file : {"line", "line.new", "support"}) unlink((folder / file).c_str());
    rmdir(folder.c_str());
}

/// Removes the folders of this user's simulations that were killed without warning. They have a line, but no
/// lock; the shared lock taken here does not make them look alive.
void removeLeftovers(const fs::path& parent) {
    std::error_code failure;
    for (fs::directory_iterator entry(parent, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        const fs::path& folder = entry->path();
        if (folder.filename().string().rfind(FOLDER_NAME, 0) != 0) continue;
        const tool::Descriptor lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat status {};
        if (fstat(lock.get(), &status) == 0 && status.st_uid == geteuid() &&
            faccessat(lock.get(), "line", F_OK, AT_SYMLINK_NOFOLLOW) == 0 &&
            flock(lock.get(), LOCK_SH | LOCK_NB) == 0)
            removeFolder(folder);
    }
}

/// Folder for temporary files; an empty TMPDIR counts as unset.
fs::path temporaryFolder() {
    const char* const chosen = std::getenv("TMPDIR");
    std::error_code failure;
    fs::path folder = fs::absolute(chosen != nullptr && *chosen != '\0' ? chosen : "/tmp", failure);
    if (!fs::is_directory(folder, failure))
        throw std::system_error(failure ? failure : std::make_error_code(std::errc::not_a_directory),
                                tool::tr("TMPDIR is not a folder"));
    return folder;
}

}  // namespace

PtyLine::PtyLine() {
    const fs::path parent = temporaryFolder();
    removeLeftovers(parent);
    m_folder = parent / (std::string(FOLDER_NAME) + "XXXXXX");
    require(mkdtemp(m_folder.data()) != nullptr, tool::tr("cannot create a temporary folder"));
    try {
        require(chmod(m_folder.c_str(), S_IRWXU) == 0,
                tool::tr("cannot set up a temporary folder"));  // any umask
        m_lock = tool::Descriptor(open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        require(m_lock.get() >= 0 && flock(m_lock.get(), LOCK_EX | LOCK_NB) == 0,
                tool::tr("cannot lock a temporary folder"));
        renew();
    } catch (...) {
        removeFolder(m_folder);
        throw;
    }
}

PtyLine::~PtyLine() { removeFolder(m_folder); }

void PtyLine::hangUp() {
    leadTo("nowhere");
    m_application = tool::Descriptor();
    m_device = tool::Descriptor();
}

void PtyLine::renew() {
    tool::Descriptor device(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    require(device.get() >= 0, tool::tr("cannot open a pseudo terminal"));
    require(grantpt(device.get()) == 0 && unlockpt(device.get()) == 0,
            tool::tr("cannot unlock a pseudo terminal"));
    std::array<char, 64> name{};
    require(ptsname_r(device.get(), name.data(), name.size()) == 0,
            tool::tr("cannot name a pseudo terminal"));
    tool::Descriptor application(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    require(application.get() >= 0, tool::tr("cannot open a pseudo terminal"));

    termios settings{};  // raw from the start: no echo of what arrives before the application sets it
    require(tcgetattr(application.get(), &settings) == 0, tool::tr("cannot set up a pseudo terminal"));
    cfmakeraw(&settings);
    require(tcsetattr(application.get(), TCSANOW, &settings) == 0,
            tool::tr("cannot set up a pseudo terminal"));

    leadTo(name.data());
    std::swap(m_device, device);
    std::swap(m_application, application);
}

/// Comes before a line hangs up: its number must not be free while the link leads to it.
void PtyLine::leadTo(const char* target) const {
    const std::string fresh = path() + ".new";
    const bool linked =
        symlink(target, fresh.c_str()) == 0 && std::rename(fresh.c_str(), path().c_str()) == 0;
    require(linked, tool::tr("cannot link the simulated line"));
}

}  // namespace sim
