// `fiscora doctor` in worlds with one fault each. A world is a private /dev and /sys, made by bubblewrap for
// this program, with a terminal that it has opened itself as the device's node.

#include <gmock/gmock.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "platform.h"
#include "private_devices.h"
#include "surroundings.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr, testing::StartsWith;

const std::string ENGLISH = "LC_ALL=C.UTF-8 LANGUAGE= ", SIM = FISCORA_TOOL " sim ",
                  DOCTOR = FISCORA_TOOL " doctor ";

/// What this program itself does in a world; `node` is the terminal's end that the library would open.
using Act = void (*)(int node);
void nothing(int /*node*/) {}
void giveAway(int node) {
    if (fchown(node, 12345, 4711) != 0) GTEST_SKIP() << "only root gives a node away";
}
void hold(int node) { EXPECT_GE(dup(node), 0); }
void holdAlone(int node) { hold(node), ioctl(node, TIOCEXCL); }
void hide(int /*node*/) { prctl(PR_SET_DUMPABLE, 0); }
void holdAsModemManager(int node) { hold(node), prctl(PR_SET_NAME, "ModemManager"); }
void runAsModemManager(int /*node*/) { prctl(PR_SET_NAME, "ModemManager"); }
void hideAsModemManager(int node) { hide(node), prctl(PR_SET_NAME, "ModemManager"); }
void hideFromModemManager(int node) {
    struct stat status {};
    fstat(node, &status);
    writeFile("/run/udev/data/c" + std::to_string(major(status.st_rdev)) + ":" +
                  std::to_string(minor(status.st_rdev)),
              "I:1\nE:ID_MM_PORT_IGNORE=1\n");
    hideAsModemManager(node);
}
void enter(int /*node*/) { fs::current_path("here"); }
void enterAndRemove(int node) { enter(node), fs::remove("../here"); }
void searchInBin(int /*node*/) { setenv("PATH", fs::absolute("bin").c_str(), 1); }
void leaveSimulation(int node) { setenv("FISCORA_SIM_LINE", ttyname(node), 1); }

struct World {
    const char* name;
    const char* change;    ///< by a shell, to the world of a device in order
    const char* verdicts;  ///< the first letter of each step's; an "s" at the end is that of --ask
    const char* told;      ///< part of what is found or advised
    Act act = nothing;
};
void PrintTo(const World& world, std::ostream* stream) { *stream << world.name; }

const World WORLDS[] = {
    // clang-format off
    {"InOrder", "", "ooooooooo", "0525:a4a6 on USB port 1-1"},
    {"NoDevice", "rm -r /dev/ttyACM0 $BY devices/*", "essssssoo", "wait until it has started"},
    {"OtherProduct", "echo a4a7 >$USB/idProduct", "woooooooo", "0525:a4a7 on USB port 1-1; expected product a4a6"},
    {"OtherVendor", "echo 05250 >$USB/idVendor", "woooooooo", "the library finds /dev/ttyACM0"},
    {"NoDriver", "rm -r $BY $USB/1-1:1.0", "oesssssoo", "sudo modprobe cdc_acm"},
    {"NoUdev", "rm -r $BY", "oesssssoo", "the device is /dev/ttyACM0"},
    {"OtherName", "mv $BY/* $BY/usb-x_mfc+_with_musb", "oesssssoo", "in its name (present: usb-x_mfc+_with_musb)"},
    {"SeveralDevices", "ln -s $PTY /dev/ttyACM3; ln -s ../../ttyACM3 $BY/usb-z$MARK", "owooooooo",
     "usb-z-mfc+_with_musb-if00 -> /dev/ttyACM3 (there is also usb-b-mfc+_with_musb-if00)"},
    {"DanglingLink", "rm /dev/ttyACM0", "oesssssoo", "This link was left"},
    {"NoLink", "rm $BY/*; touch $BY/usb-b$MARK", "oesssssoo", "does not list it as a link"},
    {"OtherTerminal", "mv /dev/ttyACM0 /dev/ttyUSB0; ln -sf ../../ttyUSB0 $BY/*", "oesssssoo", "opens only ttyACM terminals"},
    {"TwoDigits", "ln -s $PTY /dev/ttyACM12; mv /dev/ttyACM0 /dev/ttyACM1; ln -sf ../../ttyACM12 $BY/*",
     "ooessssoos", "would open /dev/ttyACM1, another device"},
    {"PlainFile", "rm /dev/ttyACM0; touch /dev/ttyACM0", "oooesssoo", "is not a character device"},
    {"NoRights", "chmod 0 $PTY", "ooooeosoos", "cannot read and write /dev/ttyACM0 ("},
    {"OtherGroup", "chmod 660 $PTY", "ooooeosoo", "sudo usermod -aG terminais ", giveAway},
    {"GroupThatMayOnlyRead", "chmod 640 $PTY", "ooooeosoo", "Install the udev rule", giveAway},
    {"OldSession", "chmod 660 $PTY; echo terminais:x:4711:$(id -un) >group", "ooooeosoo", "this session started earlier", giveAway},
    {"Held", "", "oooooewoos", "open in fiscora_tests (pid ", hold},
    {"HeldByModemManager", "", "oooooewoo", "so that ModemManager ignores the device", holdAsModemManager},
    {"HeldAlone", "", "oooooeeoo", "open exclusively", holdAlone},
    {"HiddenProcess", "", "ooooooooo", "To see all of them", hide},
    {"ModemManagerElsewhere", "", "ooooowooo", "ModemManager is running", runAsModemManager},
    {"HiddenModemManager", "", "ooooowooo", "ModemManager is running", hideAsModemManager},
    {"ModemManagerWithRule", "", "ooooooooo", "To see all of them", hideFromModemManager},
    {"NoTerminal", "ln -sf zero /dev/ttyACM0", "ooooooeoo", "is not a terminal"},
    {"Logs",
     "mkdir logsDrs; cd logsDrs; mkdir logDrs20260103.log; touch logDrs20260101.log logDrs20260102.log logDrs20251231.tar.gz notes.log", "ooooooooo", "/logsDrs: 2 logs, 1 .tar.gz archive"},
    {"LogsInAFile", "touch logsDrs", "ooooooowo", "logsDrs is not a folder"},
    {"LogsReadOnly", "mkdir -m 555 logsDrs", "ooooooowo", "cannot write to it"},
    {"LogOfTheDayReadOnly", "mkdir logsDrs; cd logsDrs; touch a logDrs$(date +%Y%m%d).log; chmod 444 *", "ooooooowo", "cannot write today's log"},
    {"LogOfTheDayAFolder", "mkdir -p logsDrs/logDrs$(date +%Y%m%d).log", "ooooooowo", "is not a file"},
    {"FolderReadOnly", "mkdir -m 555 here", "ooooooowo", "cannot create it", enter},
    {"FolderGone", "mkdir here", "ooooooowo", "working directory no longer exists", enterAndRemove},
    {"ArchiveNotRenamed", "mkdir logsDrs; touch logsDrs/logDrs20260101.log.tar.gz", "ooooooowo", "logDrs20260101.log.tar.gz could not be renamed"},
    {"NoProgramsOfTheSearch", "mkdir bin; ln -s $(command -v ls) bin", "oesssssoe", "not in the PATH: grep tail tar gzip", searchInBin},
    {"NoProgramsOfTheArchive", "mkdir bin; for p in ls grep tail; do ln -s $(command -v $p) bin; done",
     "oooooooow", "not in the PATH: tar gzip", searchInBin},
    {"SimulationLeft", "", "osssssseoos", "the simulated line cannot be opened", leaveSimulation},
};  // clang-format on

class Doctor : public testing::TestWithParam<World> {};
INSTANTIATE_TEST_SUITE_P(Worlds, Doctor, testing::ValuesIn(WORLDS),
                         [](const auto& info) { return info.param.name; });

TEST_P(Doctor, NamesTheFault) {
    if (!devicesArePrivate()) return repeatWithPrivateDevices();
    const World& world = GetParam();
    int device = -1, node = -1;
    ASSERT_EQ(openpty(&device, &node, nullptr, nullptr, nullptr), 0);
    const std::string inOrder =
        "set -e; PTY=" + std::string(ttyname(node)) +
        "; BY=/dev/serial/by-id; USB=devices/1-1; MARK=-mfc+_with_musb-if00; mkdir -p $BY $USB/1-1:1.0/tty/ttyACM0;"
        " echo 0525 >$USB/idVendor; echo a4a6 >$USB/idProduct;"
        " ln -s $PTY /dev/ttyACM0; ln -s ../../ttyACM0 $BY/usb-b$MARK; ";
    ASSERT_EQ(runShell(inOrder + world.change).exitStatus, 0);
    world.act(node);
    if (IsSkipped()) return;
    close(node);

    const std::string verdicts = world.verdicts;
    const auto result =
        runShell(ENGLISH + DOCTOR + (verdicts.back() == 's' ? "--json --ask" : "--json") + " 2>/dev/null");
    const auto report = nlohmann::json::parse(result.output);
    std::string found, told;
    for (const auto& finding : report.at("findings")) {
        const auto text = [&finding](const char* key) { return finding.at(key).get<std::string>(); };
        found += text("verdict").front();
        told += text("found") + ". " + text("advice") + "\n";
    }
    EXPECT_EQ(found, verdicts) << told;
    EXPECT_THAT(told, HasSubstr(world.told));
    EXPECT_EQ(result.exitStatus, verdicts.find_first_of("ew") == std::string::npos ? 0 : 1);
}

TEST(DoctorCommand, ExaminesTheSimulatedDeviceAndSendsOnlyIfAsked) {
    const struct {
        std::string language, options, asked;
        int exitStatus;
        const char *begin, *told;
    } cases[] = {
        {ENGLISH, "", "--ask", 0, "ok       simulation: fiscora sim is active",
         "ok       answer: ConsultarSAT: status 0 (FISCORA_STATUS_OK), the device answered 08000: SAT em Op"},
        {ENGLISH, "--fault silence", "--ask", 1, "ok       sim",
         "ERROR    answer: ConsultarSAT: status 32768 (FISCORA_STATUS_TIMEOUT)"},
        {ENGLISH, "--fault hang-up", "--ask", 1, "ok       sim", "\n1 problem: fix it and run this again.\n"},
        {ENGLISH, "--trace", "", 0, "ok       sim", "\nNo problem found.\n"},
        {"LC_ALL=pt_BR.UTF-8 LANGUAGE= ", "--trace", "", 0,
         "ok       simulação: fiscora sim está ativo: os passos seguintes examinam o equipamento simulado.",
         "\nNenhum problema encontrado.\n"},
    };
    const WorkingDirectory folder;
    std::vector<std::string> lines;
    for (const auto& row : cases)
        lines.push_back(row.language + SIM + row.options + " -- " + DOCTOR + row.asked);
    const auto results = runShells(lines);
    for (std::size_t i = 0; i < results.size(); ++i) {
        const auto& output = results[i].output;
        EXPECT_EQ(results[i].exitStatus, cases[i].exitStatus) << lines[i];
        EXPECT_THAT(output, AllOf(StartsWith(cases[i].begin), HasSubstr(cases[i].told)));
        EXPECT_EQ(fs::exists(std::to_string(i) + "/logsDrs"), cases[i].asked == "--ask") << output;
        EXPECT_EQ(output.find("smx"), std::string::npos) << output;
    }
}

}  // namespace
