#pragma once

#include <string>

namespace serial {

/// The shell command that lists the fiscal device. The first ls hides the error of a missing directory. The
/// targets of the links name the nodes; of several devices the last by name wins.
constexpr char DISCOVERY_COMMAND[] =
    R"(ls -l /dev/serial/by-id > /dev/null 2>&1 && ls -l /dev/serial/by-id | grep "\-mfc+_with_musb" | tail -1)";

/// Path of the fiscal device's node; see SerialCommChannel::findUsbDevice.
std::string findDeviceNode();

}  // namespace serial
