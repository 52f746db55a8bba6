#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace doctor {

struct Process {
    pid_t pid;
    std::string name;  ///< its first 15 bytes, as the kernel keeps them
};

/// Whether the process is a modem manager, which opens new serial nodes and talks to them.
bool isModemManager(const Process& process);

/// Other processes that /proc shows to this user.
struct Holders {
    std::vector<Process> holding{};  ///< have the node open
    std::vector<Process> unread{};   ///< do not show their files
    bool modemManagerRuns = false;
    bool anyShown = false;  ///< false without /proc
    bool allShown = true;   ///< false if /proc hides other users' processes altogether
};

/// Finds the processes that have the character device `device` open, under whatever name.
Holders findHolders(dev_t device);

}  // namespace doctor
