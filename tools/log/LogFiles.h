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
    /// In the order in which one day's files are usually written.
    enum Kind { ARCHIVE, ARCHIVE_UNDER_FIRST_NAME, LOG } kind;
    std::filesystem::path path;
};

/// The logs and archives in `directory` of the day `since` (YYYYMMDD; empty: of all days) and later, in the
/// order of days and kinds. Throws std::filesystem::filesystem_error if the directory cannot be read.
std::vector<LogFile> findLogs(const std::filesystem::path& directory, const std::string& since);

/// Gives each line of `files` to `take`, as `Lines` cuts them.
///
/// A file is skipped if a later one of the same day begins with all of it: the process that archived the log
/// ended before it could remove the log, or before the archive was complete.
///
/// Returns "path: reason" for each file that could not be read to its end. `take` still gets the lines before
/// the damage.
std::vector<std::string> readLogs(const std::vector<LogFile>& files,
                                  const std::function<void(std::string_view line)>& take);

}  // namespace logs
