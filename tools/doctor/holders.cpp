#include "doctor/holders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

namespace doctor {
namespace {

namespace fs = std::filesystem;

std::string nameOf(const fs::path& process) {
    std::string name;
    std::getline(std::ifstream(process / "comm"), name);
    return name;
}

/// Whether `file`, an entry in /proc/PID/fd that leads to `target`, is the device. Looks at nothing outside
/// /dev: a network file system that does not answer would block us.
bool isDevice(const fs::path& file, const std::string& target, dev_t device) {
    struct stat status {};
    return target.compare(0, 5, "/dev/") == 0 && stat(file.c_str(), &status) == 0 &&
           S_ISCHR(status.st_mode) && status.st_rdev == device;
}

/// Whether a process has the device open; nothing if that cannot be seen.
std::optional<bool> holds(const fs::path& process, dev_t device) {
    std::error_code failure;
    for (fs::directory_iterator file(process / "fd", failure), end; !failure && file != end;
         file.increment(failure)) {
        const std::string target = fs::read_symlink(file->path(), failure);
        if (failure == std::errc::no_such_file_or_directory) continue;  // closed meanwhile
        if (failure) break;
        if (isDevice(file->path(), target, device)) return true;
    }
    if (failure && access(process.c_str(), F_OK) == 0) return std::nullopt;
    return false;
}

}  // namespace

bool isModemManager(const Process& process) { return process.name == "ModemManager"; }

Holders findHolders(dev_t device) {
    Holders result;
    result.allShown = fs::exists("/proc/1");
    std::error_code unreadable;
    for (const auto& entry : fs::directory_iterator("/proc", unreadable)) {
        const std::string number = entry.path().filename();
        if (!std::all_of(number.begin(), number.end(), [](unsigned char c) { return std::isdigit(c) != 0; }))
            continue;
        result.anyShown = true;
        const Process process{std::stoi(number), nameOf(entry.path())};
        if (process.pid == getpid()) continue;
        result.modemManagerRuns = result.modemManagerRuns || isModemManager(process);
        const auto open = holds(entry.path(), device);
        if (!open) result.unread.push_back(process);
        if (open.value_or(false)) result.holding.push_back(process);
    }
    return result;
}

}  // namespace doctor
