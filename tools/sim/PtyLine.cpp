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
#include <system_error>
#include <utility>

#include "i18n.h"

namespace sim {
namespace {

void require(bool done, const char* what) {
    if (!done) throw std::system_error(errno, std::generic_category(), what);
}

void removeFolder(const std::string& folder) {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string folderPattern() {
    std::error_code failure;
    const auto folder = std::filesystem::temp_directory_path(failure);
    if (failure) throw std::system_error(failure, tool::tr("TMPDIR is not a folder"));
    return folder / "fiscora-sim-XXXXXX";
}

}  // namespace

PtyLine::PtyLine() : m_folder(folderPattern()) {
    require(mkdtemp(m_folder.data()) != nullptr, tool::tr("cannot create a temporary folder"));
    try {
        require(chmod(m_folder.c_str(), S_IRWXU) == 0,
                tool::tr("cannot set up a temporary folder"));  // any umask
        m_lock = tool::Descriptor(open(m_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        require(flock(m_lock.get(), LOCK_EX | LOCK_NB) == 0, tool::tr("cannot lock a temporary folder"));
        renew();
    } catch (...) {
        removeFolder(m_folder);
        throw;
    }
}

PtyLine::~PtyLine() { removeFolder(m_folder); }

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

    const std::string fresh = path() + ".new";
    const bool linked =
        symlink(name.data(), fresh.c_str()) == 0 && std::rename(fresh.c_str(), path().c_str()) == 0;
    require(linked, tool::tr("cannot link the simulated line"));
    // The previous line hangs up only now: its number must not be free while the link leads to it.
    std::swap(m_device, device);
    std::swap(m_application, application);
}

}  // namespace sim
