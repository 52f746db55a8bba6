#pragma once

#include <string>

#include "Descriptor.h"
#include "Interruption.h"

namespace tool {

/// A file that appears only when it is complete: until then it is written next to its final name, and a file
/// of that name stays as it was. A link stays, and its target is replaced. The new file has the owner, the
/// group and the permissions of the replaced one, without set-user-ID, set-group-ID and sticky bit.
class OutputFile {
  public:
    /// Creates the unfinished file, so that a wrong path shows before any work is done. Throws
    /// CLI::ValidationError with a text in the user's language if `path` cannot be written, is neither a
    /// regular file nor free, or is a dangling link. `interruption` removes the unfinished file.
    OutputFile(const std::string& path, Interruption& interruption);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Removes the file if it was not saved.
    ~OutputFile();

    /// Writes `content`, to the disk itself, and gives the file its name; once. Returns what went wrong, in
    /// the user's language, or an empty text. Raises no signal.
    std::string save(const std::string& content);

  private:
    std::string m_path;        ///< as given
    std::string m_target;      ///< with its link followed
    std::string m_unfinished;  ///< path until it is complete
    Descriptor m_file;         ///< open until the file is saved
};

}  // namespace tool
