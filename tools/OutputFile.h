#pragma once

#include <string>

#include "Descriptor.h"

namespace tool {

/// A file that appears only when it is complete: until then it is written next to its final name, and a file
/// of that name stays as it was. A link stays, and its target is replaced. The permissions of a replaced file
/// stay.
class OutputFile {
  public:
    /// Creates the unfinished file, so that a wrong path shows before any work is done. Throws
    /// CLI::ValidationError with a text in the user's language if `path` cannot be written, is neither a
    /// regular file nor free, or is a dangling link.
    explicit OutputFile(const std::string& path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Removes the file if it was not saved.
    ~OutputFile();

    /// Writes `content`, to the disk itself, and gives the file its name; once. Returns what went wrong, in
    /// the user's language, or an empty text. Raises no signal.
    std::string save(const std::string& content);

    /// Path of the file until it is complete.
    const std::string& unfinishedPath() const { return m_unfinished; }

  private:
    std::string m_path;    ///< as given
    std::string m_target;  ///< with its link followed
    std::string m_unfinished;
    Descriptor m_file;  ///< open until the file is saved
};

}  // namespace tool
