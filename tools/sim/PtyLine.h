#pragma once

#include <string>

#include "Descriptor.h"

namespace sim {

/// The simulated line: a pty, and a path that leads to the application's end. The path is a symbolic link in
/// a private temporary folder, so it stays the same when the line hangs up and comes back as another pty. The
/// folder is locked (flock) as long as the line lives: a process killed without warning leaves the link,
/// but not the lock, and the link may then lead to somebody else's terminal.
class PtyLine {
  public:
    /// Throws std::system_error if it cannot make a pty or a temporary folder.
    PtyLine();
    PtyLine(const PtyLine&) = delete;
    PtyLine& operator=(const PtyLine&) = delete;
    ~PtyLine();

    /// The device's end; another one after each `renew`.
    int fd() const { return m_device.get(); }
    /// The private folder; removed with all its files when the line goes.
    const std::string& folder() const { return m_folder; }
    /// What the application opens.
    std::string path() const { return m_folder + "/line"; }

    /// Hangs up; `path` leads nowhere until `renew`. Throws std::system_error if it cannot change the link.
    void hangUp();
    /// Hangs up; `path` then leads to a fresh pty. Throws as the constructor does.
    void renew();

  private:
    void leadTo(const char* target) const;

    std::string m_folder;
    tool::Descriptor m_lock;  ///< of the folder
    tool::Descriptor m_device;
    tool::Descriptor m_application;  ///< keeps the line up while no program has it open
};

}  // namespace sim
