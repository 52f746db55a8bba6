#include "sim/program.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include "fields.h"

namespace sim {

namespace fs = std::filesystem;

std::string searchPath() {
    const char* const path = std::getenv("PATH");
    return path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
}

fs::path findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return access(name.c_str(), F_OK) == 0 ? name : "";
    const std::string path = searchPath();
    fs::path inert;
    for (const auto folder : fieldsOf(path, ':')) {
        fs::path candidate = fs::path(folder.empty() ? "." : folder) / name;
        std::error_code ignored;
        if (!fs::is_regular_file(candidate, ignored)) continue;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        if (inert.empty()) inert = candidate;
    }
    return inert;
}

bool raisesPrivileges(const fs::path& program) {
    struct stat file {};
    if (stat(program.c_str(), &file) != 0) return false;
    return ((file.st_mode & S_ISUID) != 0 && file.st_uid != geteuid()) ||
           ((file.st_mode & S_ISGID) != 0 && file.st_gid != getegid()) ||
           getxattr(program.c_str(), "security.capability", nullptr, 0) > 0;
}

}  // namespace sim
