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

#include "doctor/Examination.h"
#include "sim/Descriptor.h"

namespace doctor {
namespace {

std::string adviseRule(const std::string& purpose) {
    return purpose +
           ", instale a regra do udev que vem com a biblioteca (pacote libfiscora1) e religue o cabo USB.";
}

std::string adviseRuleAgainstModemManager() {
    return adviseRule("Para que o ModemManager ignore o equipamento");
}

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

/// Whether the user has it by the machine's records, and so in sessions that are newer than this one.
bool isRegisteredInGroup(gid_t group) {
    const struct passwd* user = getpwuid(geteuid());
    if (user == nullptr) return false;
    std::array<gid_t, 256> groups{};
    int count = groups.size();
    getgrouplist(user->pw_name, user->pw_gid, groups.data(), &count);
    const auto end = groups.cbegin() + std::min<int>(count, groups.size());
    return std::find(groups.cbegin(), end, group) != end;
}

/// Whether a udev rule tells modem managers to leave the node alone: ModemManager's documented properties, in
/// the file where udev keeps the node's.
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

/// Opens the library's node as the library does. Where fiscora sim has been left behind but for its
/// environment variable, that node is a real one and stays closed.
sim::Descriptor openNode(const Examination& examination) {
    const char* path = examination.node.c_str();
    if (examination.simulatedLine != nullptr && access(path, F_OK) == 0) return sim::Descriptor();
    return sim::Descriptor(open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

Finding checkNode(Examination& examination) {
    const std::string& node = examination.node;
    struct stat& status = examination.nodeStatus;
    if (stat(node.c_str(), &status) != 0)
        return error(node + ": " + reason(errno), "Religue o cabo USB do equipamento.");
    if (!S_ISCHR(status.st_mode))
        return error(node + " não é um dispositivo de caracteres",
                     "Apague-o com \"sudo rm -r " + node + "\" e religue o cabo USB do equipamento.");
    return ok(node + " é um dispositivo de caracteres");
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
        return ok(user + " pode ler e gravar " + rights +
                  (geteuid() == 0 && servesGroup
                       ? "; um aplicativo de outro usuário precisa do grupo " + group
                       : ""));

    const std::string denied = user + " não pode ler e gravar " + rights;
    if (!servesGroup || isInGroup(status.st_gid))
        return error(denied, adviseRule("Para dar o nó ao grupo dialout"));
    if (isRegisteredInGroup(status.st_gid))
        return error(denied + "; já está no grupo " + group + ", mas esta sessão é mais antiga",
                     "Saia da sessão e entre de novo, e reinicie o aplicativo.");
    return error(denied + " e não está no grupo " + group,
                 "Rode \"sudo usermod -aG " + group + " " + user + "\", saia da sessão e entre de novo.");
}

Finding checkHolders(Examination& examination) {
    const Holders holders = findHolders(examination.nodeStatus.st_rdev);
    examination.holders = holders.holding;
    examination.processesHidden = !holders.unread.empty() || !holders.allShown;
    if (!holders.holding.empty()) {
        const bool byModemManager =
            std::any_of(holders.holding.begin(), holders.holding.end(), isModemManager);
        return error(examination.node + " está aberto por " + describe(holders.holding),
                     byModemManager
                         ? adviseRuleAgainstModemManager()
                         : "Espere o fim da chamada em curso, ou encerre esse programa, e rode de novo.");
    }
    const std::string found = "nenhum outro processo à vista tem " + examination.node + " aberto";
    if (holders.modemManagerRuns && !isHiddenFromModemManagers(examination.nodeStatus.st_rdev))
        return warning(found + ", mas o ModemManager está em execução", adviseRuleAgainstModemManager());
    if (!examination.processesHidden) return ok(found);
    return {Verdict::Ok, found + ", mas nem todos se mostram", "Para ver todos: sudo fiscora doctor."};
}

Finding checkTerminal(Examination& examination) {
    const std::string& node = examination.node;
    const sim::Descriptor line = openNode(examination);
    if (examination.simulatedLine != nullptr && !isSimulatedLine(line.get(), examination.simulatedLine))
        return error("a linha simulada não abre", "Rode de novo por \"fiscora sim -- fiscora doctor\".");
    if (line.get() < 0 && errno == EBUSY)
        return error(node + " está aberto só para um outro processo", "Encerre o processo que o tem aberto.");
    if (line.get() < 0)
        return error(node + " não abre: " + reason(errno), "Desligue e religue o equipamento e o cabo USB.");
    if (isatty(line.get()) == 0)
        return error(node + " abre, mas não é um terminal", "Desligue e religue o cabo USB do equipamento.");
    if (!examination.holders.empty())
        return warning(
            node + " abre e é um terminal, mas está aberto também por " + describe(examination.holders),
            "Enquanto for assim, um programa tira a resposta do outro.");
    return ok(node + " abre e é um terminal");
}

}  // namespace doctor
