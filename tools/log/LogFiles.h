#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace logs {

/// The longest line that the library writes, in bytes, without its line break.
constexpr std::size_t LINE_MAX_BYTES = 511;

/// A file of the log directory: a day's log, or an archive that holds it.
struct LogFile {
    std::string day;  ///< YYYYMMDD
    /// The place among the files of that day in the order in which their lines were written, as a rule.
    enum Kind { ARCHIVE, ARCHIVE_UNDER_FIRST_NAME, LOG } kind;
    std::filesystem::path path;
};

/// The logs and archives in `directory` of the day `since` (YYYYMMDD; empty: of all days) and later, in the
/// order of days and kinds. Throws std::filesystem::filesystem_error where the directory cannot be read.
std::vector<LogFile> findLogs(const std::filesystem::path& directory, const std::string& since);

/// Gives each line of `files` to `take`, without its line break; of a line longer than LINE_MAX_BYTES only
/// the beginning, yet more than LINE_MAX_BYTES of it. Zero bytes, which a file holds after a power cut, come
/// together with what stands before them in the line as a line that is one zero byte.
///
/// A file that a later one of the same day begins with is left out: the process that archived the log ended
/// before it could remove it, or before it had finished the archive.
///
/// Returns what could not be read, a text "path: reason" for each such file. What stands before the damage
/// has been given.
std::vector<std::string> readLogs(const std::vector<LogFile>& files,
                                  const std::function<void(std::string_view line)>& take);

}  // namespace logs
