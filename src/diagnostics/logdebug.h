#pragma once

#include <exception>
#include <string>

/// The process-wide debug log: one text file a day, logsDrs/logDrsYYYYMMDD.log below the working directory,
/// each line written out when `saveLog` returns. A finished day's file is archived by tar, and the oldest of
/// eight files goes. Nothing here fails a fiscal operation: a line that cannot be written is dropped. Several
/// processes may share the directory: each holds it, by a lock, for the length of a line.
class LogDebug {
  public:
    /// The one instance, made (with the log's directory) at the first call and kept to the end of the
    /// process.
    static LogDebug* obtemReferencia();

    /// Writes "[date.time] - [level, text]", cut at 511 characters. The first line of a new day first
    /// archives the old day's file, then removes the oldest of eight or more.
    void saveLog(const std::string& level, const std::string& text);

    /// Path of the file in use. Archives the one before where the date has changed.
    std::string getFileNameLog();
    /// Local date, "%Y%m%d".
    std::string currentDate();
    /// Local date and time, "%Y-%m-%d.%X".
    std::string currentDateTime();

    /// Turns the day's log `fileName`, a path of the form that `getFileNameLog` gives, into
    /// logDrsYYYYMMDD.tar.gz beside it. A log whose archive could not be made stays; a file that is not there
    /// is passed over.
    void compress(const std::string& fileName);
    /// Removes the oldest of the files `path`/logDrs... where there are eight or more.
    void removeLastDays(char* path);

  private:
    LogDebug();

    // Protected: a program's own LogDebug::m_log must not take its place.
    __attribute__((visibility("protected"))) static LogDebug* m_log;

    std::string m_currentDate;  ///< date of the file in use; empty before the first line
    std::string m_pathLog;      ///< the directory
    std::string m_fileNameLog;  ///< path of the file in use; empty before the first line
};

/// Calls `write` with the log. A line that there is no memory for is dropped: no line is worth an exchange.
template <typename Write>
void logOrDrop(Write write) noexcept {
    try {
        write(*LogDebug::obtemReferencia());
    } catch (const std::exception&) {
    }
}
