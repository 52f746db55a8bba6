#pragma once

#include <sys/resource.h>

#include <memory>
#include <string>
#include <vector>

/// What a test has done to its process; undone when the last copy goes.
using Undo = std::shared_ptr<void>;

/// Lowers the soft limit of a resource (RLIMIT_FSIZE ...).
Undo limit(decltype(RLIMIT_FSIZE) resource, rlim_t most);
/// Makes `path` the only folder in which commands are found.
Undo searchIn(const std::string& path);
/// Closes the standard output, and forgets its errors in the end.
Undo closeOutput();

/// How a shell line ended; exit status -1: by a signal.
struct ShellResult {
    int exitStatus;
    std::string output;  ///< standard output and error together
    double seconds;
};
ShellResult runShell(const std::string& line);
/// Runs the lines at the same time, each in a new folder named after its place: "0", "1" ...
std::vector<ShellResult> runShells(const std::vector<std::string>& lines);
