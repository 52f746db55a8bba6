#include "sim/search_stand_in.h"

#include <sys/auxv.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

#include "i18n.h"
#include "link/discovery.h"

namespace sim {
namespace {

constexpr int NOT_FOUND = 127;

/// The path by which this program was started, links as they are.
std::filesystem::path startedAs() {
    // An address, by the kernel's interface.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    const auto* path = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    return path != nullptr ? path : "";
}

/// Whether the search begins with this command.
bool isSearch(char** arguments) {
    std::string command = "ls";
    for (char** word = arguments + 1; *word != nullptr; ++word) command.append(" ").append(*word);
    return std::string_view(serial::DISCOVERY_COMMAND).rfind(command + " >", 0) == 0;
}

/// The search path after the last mention of `folder`, so that nested simulations call each other's
/// stand-ins; empty if it is not mentioned.
std::string pathAfter(const std::string& folder) {
    const char* const searched = std::getenv("PATH");
    const std::string path = std::string(":") + (searched != nullptr ? searched : "") + ":";
    const auto place = path.rfind(":" + folder + ":");
    const auto start = place + folder.size() + 2;
    return place == std::string::npos || start >= path.size() ? ""
                                                              : path.substr(start, path.size() - start - 1);
}

}  // namespace

bool isSearchStandIn() {
    const auto path = startedAs();
    return path.filename() == "ls" && path.parent_path().filename() == STAND_IN_FOLDER;
}

int standInForSearch(char** arguments) {
    if (isSearch(arguments)) {
        tool::chooseLanguage();
        std::cerr << "fiscora sim: "
                  << tool::tr(
                         "This search for the fiscal device bypasses the simulation, so it finds none. The "
                         "program is 32-bit or statically linked, or it has changed LD_PRELOAD.")
                  << "\n";
        return EXIT_SUCCESS;
    }
    const std::string path = pathAfter(startedAs().parent_path());
    if (path.empty())
        unsetenv("PATH");  // the system's own
    else
        setenv("PATH", path.c_str(), 1);
    execvp("ls", arguments);
    std::cerr << "ls: " << std::strerror(errno) << "\n";
    return NOT_FOUND;
}

}  // namespace sim
