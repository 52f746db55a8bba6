#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "doctor/Finding.h"
#include "doctor/holders.h"
#include "link/SerialCommChannel.h"

namespace doctor {

/// One walk along the way of a call: what the library's own search gives, and what the checks learn one from
/// another. They read; nothing is sent and no setting of the line is changed, but by `checkAnswer`.
struct Examination {
    Examination();

    serial::SerialCommChannel channel;  ///< never opened, so its destructor takes a second
    std::string node;                   ///< what the library would open; empty where it finds nothing
    std::string listing;                ///< the line that it finds the node in
    const char* simulatedLine;          ///< path of the line of `fiscora sim`; null without it

    bool usbDevicePresent = false;   ///< left by checkUsbDevice
    std::string target;              ///< where the winning entry leads to; left by checkEntry
    struct stat nodeStatus {};       ///< left by checkNode
    std::vector<Process> holders{};  ///< that have the node open; left by checkHolders
    bool processesHidden = false;    ///< and there may be more of them; left by checkHolders
};

/// The checks, in the order of a call. Each needs what the ones before it have found in order.
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

/// What an errno means, in the technician's language.
std::string reason(int error);
/// Words with commas between them.
std::string listed(const std::vector<std::string>& words);
/// "1 log", "2 logs".
std::string counted(int count, const std::string& noun);
/// Name of the user that this process acts as; the number where it has no name.
std::string userName();
/// The first line that a shell's command line prints, without its newline.
std::string firstLineOf(const std::string& commandLine);

}  // namespace doctor
