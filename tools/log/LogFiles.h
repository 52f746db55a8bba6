#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace logs {

/// A file of the log directory: a day's log, or an archive that holds it.
struct LogFile {
    std::string day;  ///< YYYYMMDD
    /// In the order in which, as a rule, the lines of one day's files were written.
    enum Kind { ARCHIVE, ARCHIVE_UNDER_FIRST_NAME, LOG } kind;
    std::filesystem::path path;
};

/// The logs and archives in `directory` of the day `since` (YYYYMMDD; empty: of all days) and later, in the
/// order of days and kinds. Throws std::filesystem::filesystem_error if the directory cannot be read.
std::vector<LogFile> findLogs(const std::filesystem::path& directory, const std::string& since);

/// Gives each line of `files` to `take`, as `Lines` cuts them.
///
/// A file is left out if a later one of the same day begins with all of it: the process that archived the log
/// ended before it could remove it, or before the archive was complete.
///
/// Returns what could not be read, a text "path: reason" for each such file. The lines before the damage have
/// been given.
std::vector<std::string> readLogs(const std::vector<LogFile>& files,
                                  const std::function<void(std::string_view line)>& take);

}  // namespace logs
