#pragma once

namespace serial {

/// The shell's command line that lists the fiscal device. The first ls hides the error of a directory that is
/// not there. The links' targets name the nodes; of several devices the last name wins.
constexpr char DISCOVERY_COMMAND[] =
    R"(ls -l /dev/serial/by-id > /dev/null 2>&1 && ls -l /dev/serial/by-id | grep "\-mfc+_with_musb" | tail -1)";

}  // namespace serial
