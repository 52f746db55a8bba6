#pragma once

#include <exception>
#include <string>

/// The process-wide debug log: one text file per day, logsDrs/logDrsYYYYMMDD.log in the working directory of
/// the moment. Each line is written when `saveLog` returns. tar archives the previous day's file, and the
/// oldest of eight or more files is removed. Nothing here fails a fiscal operation: a line that cannot be
/// written is dropped.
///
/// Several processes may share the folder, and none waits for another: a line is one append. Only a
/// process that archives a day shuts out those that append, by a lock on that day's file (flock); if it does
/// not get the lock within 20 ms, it goes on without archiving.
class LogDebug {
  public:
    /// The one instance. The first call makes it, with the log's folder; it lives to the end of the process.
    static LogDebug* obtemReferencia();

    /// Writes "[date.time] - [level, text]", cut at 511 bytes. Before the first line of a new day it archives
    /// the old day's file and, if it has created the new one, removes the oldest of eight or more. Raises no
    /// signal.
    void saveLog(const std::string& level, const std::string& text);

    /// Path of the file in use. Archives the previous one if the date has changed.
    std::string getFileNameLog();
    /// Local date, "%Y%m%d".
    std::string currentDate();
    /// Local date and time, "%Y-%m-%d.%X".
    std::string currentDateTime();

    /// Archives the day's log `fileName`, a path as `getFileNameLog` returns it, as logDrsYYYYMMDD.tar.gz in
    /// the same folder. The log is removed only if the archive holds all of it. Does nothing if the file is
    /// missing or another process holds its lock.
    void compress(const std::string& fileName);
    /// Removes the oldest of the files `path`/logDrs... if there are eight or more.
    void removeLastDays(char* path);

  private:
    LogDebug();

    // Protected: a program's own LogDebug::m_log must not take its place.
    __attribute__((visibility("protected"))) static LogDebug* m_log;

    std::string m_currentDate;  ///< date of the file in use; empty before the first line
    std::string m_pathLog;      ///< the directory
    std::string m_fileNameLog;  ///< path of the file in use; empty before the first line
};

/// Calls `write` with the log. Without memory for a line, drops it: no line is worth an exchange.
template <typename Write>
void logOrDrop(Write write) noexcept {
    try {
        write(*LogDebug::obtemReferencia());
    } catch (const std::exception&) {
    }
}
