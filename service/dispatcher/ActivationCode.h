#pragma once

#include <sys/stat.h>

#include <stdexcept>
#include <string>

namespace fiscorad {

/// The code file cannot be used, or not be written. One line, for the log or the terminal.
struct ActivationCodeError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The device's activation code, from a file of one line that only its user can read: 1 to 32 characters, no
/// "|".
class ActivationCode {
  public:
    /// Throws ActivationCodeError if the file is missing, empty, no code, or readable by others.
    explicit ActivationCode(std::string path);

    const std::string& text() const { return m_text; }
    /// Reads the file again if it has changed. True if there is another code in it now; a file that cannot be
    /// used leaves the code as it was.
    bool changed();

    /// Writes `code` to a file beside it, to be renamed by `commit`: a device must not get a new code that
    /// nobody can write down. Throws ActivationCodeError.
    void prepare(const std::string& code);
    /// Puts the prepared code in place of the present one. Throws ActivationCodeError; the new code then
    /// stays in the file beside it.
    void commit();

  private:
    std::string read();
    std::string preparedPath() const { return m_path + ".novo"; }

    std::string m_path;
    struct stat m_seen {};
    std::string m_text;
    std::string m_prepared;
};

}  // namespace fiscorad
