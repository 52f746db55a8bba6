#pragma once

#include <string>

namespace call {

/// The file that a document goes to. It is created next to its final name before the call, so that a wrong
/// path shows before anything is sent; only a complete document takes the place of an earlier one. A link
/// stays, and its target is replaced.
class DocumentFile {
  public:
    /// Throws CLI::ValidationError with a text in the user's language if `path` cannot be written, is neither
    /// a regular file nor free, or is a link to nothing.
    explicit DocumentFile(const std::string& path);
    DocumentFile(const DocumentFile&) = delete;
    DocumentFile& operator=(const DocumentFile&) = delete;
    /// Leaves no half-written file.
    ~DocumentFile();

    /// Writes `content`, to the disk itself. Returns what went wrong, in the user's language, or an empty
    /// text.
    std::string save(const std::string& content);

    /// Path of the file until it is complete.
    const std::string& unfinishedPath() const { return m_unfinished; }

  private:
    std::string m_target;
    std::string m_unfinished;
    int m_fd = -1;
};

}  // namespace call
