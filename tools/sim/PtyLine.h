#pragma once

#include <string>

#include "sim/Descriptor.h"

namespace sim {

/// The simulated line: a pty, with a path of its own that leads to the application's end. The path is a
/// symbolic link in a private temporary folder, so that it stays the same when the line hangs up and comes
/// back as another pty.
class PtyLine {
  public:
    /// Throws std::system_error where the machine gives no pty or no temporary folder.
    PtyLine();
    PtyLine(const PtyLine&) = delete;
    PtyLine& operator=(const PtyLine&) = delete;
    ~PtyLine();

    /// The device's end; another one after each `renew`.
    int fd() const { return m_device.get(); }
    /// The private folder, which goes with all its files when the line does.
    const std::string& folder() const { return m_folder; }
    /// What the application opens.
    std::string path() const { return m_folder + "/line"; }

    /// Hangs up, and puts a fresh pty behind `path`. Throws as the constructor does.
    void renew();

  private:
    void openPty();

    std::string m_folder;
    Descriptor m_device;
    Descriptor m_application;  ///< keeps the line up while no application has it open
};

}  // namespace sim
