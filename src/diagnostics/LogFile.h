#pragma once

#include <string>

/// A regular file, open for the log. Nothing here waits: not for a lock, nor for the reader of a FIFO. Owns
/// its descriptor, which is closed on exec.
class __attribute__((visibility("hidden"))) LogFile {
  public:
    /// Opens `path` with flags of `open`, a new file with mode 0666 less the umask. Not open afterwards, with
    /// `errno` set, if that failed or `path` is not a regular file.
    LogFile(const std::string& path, int flags);
    LogFile(LogFile&& other) noexcept;
    LogFile& operator=(LogFile&&) = delete;
    ~LogFile();

    bool isOpen() const { return m_fd != -1; }
    int fd() const { return m_fd; }
    bool isEmpty() const;
    /// Whether the file still has a name.
    bool isLinked() const;
    /// Locks the file until it is closed (flock): shared to append, alone to archive. False if another
    /// process holds it; true also on file systems without locks.
    bool lockShared() const;
    bool lockAlone() const;
    /// Appends `line` and a newline in one write, and first a newline if the file ends inside a line. What
    /// does not fit on the disk is lost.
    void append(std::string line) const;

  private:
    int m_fd = -1;
};
