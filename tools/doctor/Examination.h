#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "doctor/Finding.h"
#include "doctor/holders.h"
#include "link/SerialCommChannel.h"

namespace doctor {

/// What the library's own search finds, and what one check leaves to the next. Checks only read; nothing is
/// sent and no setting of the line is changed, except by `checkAnswer`.
struct Examination {
    Examination();

    serial::SerialCommChannel channel;  ///< never opened, so its destructor takes a second
    std::string node;                   ///< what the library would open; empty if it finds nothing
    std::string listing;                ///< the line in which it finds the node
    const char* simulatedLine;          ///< path of the line of `fiscora sim`; null without it

    bool usbDevicePresent = false;   ///< left by checkUsbDevice
    std::string target;              ///< of the entry that counts; left by checkEntry
    struct stat nodeStatus {};       ///< left by checkNode
    std::vector<Process> holders{};  ///< have the node open; left by checkHolders
    bool processesHidden = false;    ///< there may be more holders; left by checkHolders
};

/// The checks, in the order of a call. DoctorCommand.cpp says which of them depend on which.
Finding checkSimulation(Examination& examination);
Finding checkUsbDevice(Examination& examination);
Finding checkEntry(Examination& examination);
Finding checkNodeNumber(Examination& examination);
Finding checkNode(Examination& examination);
Finding checkPermission(Examination& examination);
Finding checkHolders(Examination& examination);
Finding checkTerminal(Examination& examination);
Finding checkLogDirectory(Examination& examination);
Finding checkCommands(Examination& examination);
/// Makes a call to the device, which takes up to a minute.
Finding checkAnswer(Examination& examination);

/// What an errno means, in the user's language; more helpful than strerror for a device.
std::string reason(int error);
/// The words, separated by commas.
std::string listed(const std::vector<std::string>& words);
/// Name of the user that this process acts as; its number if it has no name.
std::string userName();
/// The first line that a shell's command line prints, without its newline.
std::string firstLineOf(const std::string& commandLine);

}  // namespace doctor
