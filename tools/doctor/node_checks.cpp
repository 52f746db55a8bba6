// The node itself: what it is, who may open it, who has it open.

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>

#include "Descriptor.h"
#include "doctor/Examination.h"
#include "i18n.h"

namespace doctor {

using tool::filled;
using tool::tr;
using tool::translatable;

namespace {

constexpr const char* RULE_AGAINST_MODEM_MANAGER = translatable(
    "Install the udev rule that comes with the library (package libfiscora1), so that ModemManager "
    "ignores the device, and reconnect the USB cable.");

std::string groupName(gid_t group) {
    const struct group* entry = getgrgid(group);
    return entry != nullptr ? entry->gr_name : std::to_string(group);
}

/// Owner, group and mode, such as "root:dialout 0660".
std::string ownership(const struct stat& status) {
    const struct passwd* owner = getpwuid(status.st_uid);
    std::array<char, 8> mode{};
    std::snprintf(mode.data(), mode.size(), "%04o", status.st_mode & 07777U);
    return (owner != nullptr ? owner->pw_name : std::to_string(status.st_uid)) + ":" +
           groupName(status.st_gid) + " " + mode.data();
}

/// Whether this process has the group.
bool isInGroup(gid_t group) {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    groups.resize(
        static_cast<std::size_t>(std::max(getgroups(static_cast<int>(groups.size()), groups.data()), 0)));
    return getegid() == group || std::find(groups.begin(), groups.end(), group) != groups.end();
}

/// Whether the machine's records give the user this group, so that sessions newer than this one have it.
bool isRegisteredInGroup(gid_t group) {
    const struct passwd* user = getpwuid(geteuid());
    if (user == nullptr) return false;
    std::array<gid_t, 256> groups{};
    int count = groups.size();
    getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count);
    const auto end = groups.cbegin() + std::min<int>(count, groups.size());
    return std::find(groups.cbegin(), end, group) != end;
}

/// Whether a udev rule tells modem managers to leave the node alone: udev keeps the properties that
/// ModemManager documents for this in a file per node.
bool isHiddenFromModemManagers(dev_t node) {
    std::ifstream properties("/run/udev/data/c" + std::to_string(major(node)) + ":" +
                             std::to_string(minor(node)));
    for (std::string line; std::getline(properties, line);)
        if (line == "E:ID_MM_DEVICE_IGNORE=1" || line == "E:ID_MM_PORT_IGNORE=1") return true;
    return false;
}

std::string describe(const std::vector<Process>& processes) {
    std::vector<std::string> words;
    words.reserve(processes.size());
    for (const auto& process : processes)
        words.push_back(process.name + " (pid " + std::to_string(process.pid) + ")");
    return listed(words);
}

/// Whether an open file is the line that fiscora sim has made.
bool isSimulatedLine(int fd, const char* line) {
    struct stat expected {};
    struct stat opened {};
    return stat(line, &expected) == 0 && fstat(fd, &opened) == 0 && opened.st_rdev == expected.st_rdev;
}

/// Opens the library's node as the library does. If the environment variable is all that is left of a
/// simulation, that node is a real one and stays closed.
tool::Descriptor openNode(const Examination& examination) {
    const char* path = examination.node.c_str();
    if (examination.simulatedLine != nullptr && access(path, F_OK) == 0) return tool::Descriptor();
    return tool::Descriptor(open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

Finding checkNode(Examination& examination) {
    const std::string& node = examination.node;
    struct stat& status = examination.nodeStatus;
    if (stat(node.c_str(), &status) != 0)
        return error(node + ": " + reason(errno), tr("Reconnect the device's USB cable."));
    if (!S_ISCHR(status.st_mode))
        return error(filled(tr("%s is not a character device"), node.c_str()),
                     filled(tr("Remove it with \"sudo rm -r %s\" and reconnect the device's USB cable."),
                            node.c_str()));
    return ok(filled(tr("%s is a character device"), node.c_str()));
}

Finding checkPermission(Examination& examination) {
    const std::string& node = examination.node;
    const struct stat& status = examination.nodeStatus;
    const std::string user = userName();
    const std::string group = groupName(status.st_gid);
    const std::string rights = node + " (" + ownership(status) + ")";
    constexpr mode_t GROUP_ACCESS = S_IRGRP | S_IWGRP;
    const bool servesGroup = (status.st_mode & GROUP_ACCESS) == GROUP_ACCESS && status.st_gid != 0;
    if (faccessat(AT_FDCWD, node.c_str(), R_OK | W_OK, AT_EACCESS) == 0)
        return ok(
            geteuid() == 0 && servesGroup
                ? filled(
                      tr("%s can read and write %s; an application run by another user needs the group %s"),
                      user.c_str(), rights.c_str(), group.c_str())
                : filled(tr("%s can read and write %s"), user.c_str(), rights.c_str()));

    if (!servesGroup || isInGroup(status.st_gid))
        return error(
            filled(tr("%s cannot read and write %s"), user.c_str(), rights.c_str()),
            tr("Install the udev rule that comes with the library (package libfiscora1), so that the group "
               "dialout gets the node, and reconnect the USB cable."));
    if (isRegisteredInGroup(status.st_gid))
        return error(
            filled(
                tr("%s cannot read and write %s: already in the group %s, but this session started earlier"),
                user.c_str(), rights.c_str(), group.c_str()),
            tr("Log out and in again, and restart the application."));
    return error(filled(tr("%s cannot read and write %s and is not in the group %s"), user.c_str(),
                        rights.c_str(), group.c_str()),
                 filled(tr("Run \"sudo usermod -aG %s %s\", then log out and in again."), group.c_str(),
                        user.c_str()));
}

Finding checkHolders(Examination& examination) {
    const Holders holders = findHolders(examination.nodeStatus.st_rdev);
    examination.holders = holders.holding;
    examination.processesHidden = !holders.unread.empty() || !holders.allShown;
    if (!holders.holding.empty()) {
        const bool byModemManager =
            std::any_of(holders.holding.begin(), holders.holding.end(), isModemManager);
        return error(
            filled(tr("%s is open in %s"), examination.node.c_str(), describe(holders.holding).c_str()),
            byModemManager ? tr(RULE_AGAINST_MODEM_MANAGER)
                           : tr("Wait until its call ends, or close that program, and run this again."));
    }
    if (!holders.anyShown)
        return warning(
            filled(tr("cannot see who has %s open: /proc shows no processes"), examination.node.c_str()),
            tr("Mount /proc and run this again."));
    const std::string found = filled(tr("no other process seems to have %s open"), examination.node.c_str());
    if (holders.modemManagerRuns && !isHiddenFromModemManagers(examination.nodeStatus.st_rdev))
        return warning(found + tr(", but ModemManager is running"), tr(RULE_AGAINST_MODEM_MANAGER));
    if (!examination.processesHidden) return ok(found);
    return {Verdict::Ok, found + tr(", but not all of them can be seen"),
            tr("To see all of them: sudo fiscora doctor.")};
}

Finding checkTerminal(Examination& examination) {
    const std::string& node = examination.node;
    const tool::Descriptor line = openNode(examination);
    if (examination.simulatedLine != nullptr && !isSimulatedLine(line.get(), examination.simulatedLine))
        return error(tr("the simulated line cannot be opened"), tr("Run \"fiscora sim -- fiscora doctor\"."));
    if (line.get() < 0 && errno == EBUSY)
        return error(filled(tr("another process has %s open exclusively"), node.c_str()),
                     tr("End the process that has it open."));
    if (line.get() < 0)
        return error(filled(tr("cannot open %s: %s"), node.c_str(), reason(errno).c_str()),
                     tr("Switch the device off and on, and reconnect its USB cable."));
    if (isatty(line.get()) == 0)
        return error(filled(tr("%s can be opened, but is not a terminal"), node.c_str()),
                     tr("Reconnect the device's USB cable."));
    if (!examination.holders.empty())
        return warning(filled(tr("%s can be opened and is a terminal, but it is also open in %s"),
                              node.c_str(), describe(examination.holders).c_str()),
                       tr("Until it is closed, each program can take the other's answers."));
    return ok(filled(tr("%s can be opened and is a terminal"), node.c_str()));
}

}  // namespace doctor
