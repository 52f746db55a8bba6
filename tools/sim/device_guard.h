#pragma once

namespace sim {

/// Puts the serial ports that the library would open (/dev/ttyACM*) out of reach of this process and
/// all that it starts, whatever they do with their environment: they cannot open one (EACCES), cannot gain
/// privileges (set-user-ID programs run without), and cannot mount. Ports and other device nodes that appear
/// later are out of reach as well, and so are files made later in `/` or in new folders there.
///
/// Needs Landlock with the right to move files between folders (Linux 5.19). Without it, this only keeps
/// programs from gaining privileges. Throws std::system_error, with a text in the user's language, if the
/// kernel has Landlock but cannot set it up.
void guardDevices();

}  // namespace sim
