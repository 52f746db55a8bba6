// What a program under `fiscora sim` can reach. Each runs in a private /dev, made by bubblewrap, in which the
// fiscal device is a pty of this program's: that one must never be touched.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <future>
#include <iterator>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "platform.h"

namespace {

const std::string SIM = FISCORA_TOOL " sim ", CALLER = FISCORA_CALLER, LOADER = FISCORA_LOADER;

/// What a shell line prints, on its standard output and error.
std::string run(const std::string& line) {
    FILE* const stream = realPopen(("{ " + line + "\n} 2>&1 </dev/null").c_str());
    std::string output;
    for (int byte; (byte = std::fgetc(stream)) != EOF;) output += static_cast<char>(byte);
    pclose(stream);
    return output;
}

/// A pty that stands for a real device.
struct RealDevice {
    RealDevice() {
        int ends[2] = {-1, -1};
        termios raw{};
        cfmakeraw(&raw);
        EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, &raw, nullptr), 0);
        device = tool::Descriptor(ends[0]);
        node = tool::Descriptor(ends[1]);
        path = ttyname(node.get());
        int reportFlushes = 1;  // the library's first act on a port
        ioctl(device.get(), TIOCPKT, &reportFlushes);
    }
    /// Runs `line` with the device plugged in.
    std::string runWith(const std::string& line) const {
        return run("exec bwrap --bind / / --dev /dev --dev-bind " + path +
                   " /dev/ttyS9"
                   " --symlink ttyS9 /dev/ttyACM0"
                   " --symlink ../../ttyACM0 /dev/serial/by-id/usb-x-mfc+_with_musb-if00 " +
                   line);
    }
    bool touched() const {
        pollfd end{device.get(), POLLIN | POLLPRI, 0};
        return poll(&end, 1, 0) > 0;
    }

    tool::Descriptor device, node;
    std::string path;
};

/// Makes Landlock look absent to this process and all that it starts.
void hideLandlock() {
    std::array<sock_filter, 4> code{{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                                     BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_landlock_create_ruleset, 0, 1),
                                     BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                                     BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)}};
    const sock_fprog filter{code.size(), code.data()};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

constexpr char MEETS[] = "000001|08000|";
constexpr char TOLD[] = "bypasses the simulation";
constexpr char FINDS_NONE[] = "status 1, \n";

const struct {
    const char* way;
    std::string program;
    const char* printed;
} WAYS[] = {
    {"linked", CALLER, MEETS},
    {"linked, in a nested simulation", SIM + "-- " + CALLER, MEETS},
    {"RTLD_DEEPBIND and RUNPATH", LOADER, MEETS},
    {"FFI of PHP",
     "php -d ffi.enable=1 -r '$f = FFI::cdef(\"const char* ConsultarSAT(int n);\", \"" FISCORA_LIBRARY "\");"
     " echo $f->ConsultarSAT(1);'",
     MEETS},
    {"RTLD_DEEPBIND of Python",
     "python3 -c 'import ctypes, os\nf = ctypes.CDLL(\"" FISCORA_LIBRARY
     "\", mode=os.RTLD_NOW | os.RTLD_DEEPBIND)\n"
     "f.ConsultarSAT.restype = ctypes.c_char_p\nprint(f.ConsultarSAT(1))'",
     MEETS},
    {"a namespace of its own", LOADER + " apart", TOLD},
    {"static", CALLER + "_static", TOLD},
    {"an LD_PRELOAD of its own", "env LD_PRELOAD= " + CALLER, TOLD},
    {"no environment", "env -i " + CALLER, FINDS_NONE},
};

/// Whether the kernel keeps programs from the device as well.
class Simulation : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Kernel, Simulation, testing::Values(true, false),
                         [](const auto& info) { return info.param ? "Guards" : "DoesNotGuard"; });

TEST_P(Simulation, KeepsProgramsFromARealDevice) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a program without the sanitizer cannot load a library with it";
#endif
    if (!GetParam()) hideLandlock();
    const long landlock = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    if (GetParam() && landlock < 2) GTEST_SKIP() << "no Landlock here";
    const WorkingDirectory folder;
    if (run("bwrap --bind / / --dev /dev echo works") != "works\n")
        GTEST_SKIP() << "bubblewrap makes no namespace here";
    std::vector<RealDevice> devices(std::size(WAYS));
    std::vector<std::future<std::string>> results;
    for (const auto& [way, program, printed] : WAYS)
        results.push_back(std::async(std::launch::async, [&device = devices[results.size()], line = program] {
            return device.runWith("env LC_ALL=C " + SIM + "-- " + line);
        }));
    for (std::size_t i = 0; i < results.size(); ++i) {
        SCOPED_TRACE(WAYS[i].way);
        const std::string output = results[i].get();
        // Without the kernel's help nothing holds a program that clears its environment. It shows, too, that
        // a device which is reached counts as touched.
        const bool reached = !GetParam() && WAYS[i].printed == FINDS_NONE;
        EXPECT_EQ(devices[i].touched(), reached) << output;
        EXPECT_THAT(output, testing::HasSubstr(reached ? "status " : WAYS[i].printed));
    }
    if (!GetParam()) return;
    EXPECT_EQ(devices[0].runWith(
                  "env LC_ALL=C " + SIM +
                  "-- sh -c 'cat /dev/ttyACM0; echo x | tee /dev/serial/late /dev/shm/a; cat /dev/shm/a'"),
              "cat: /dev/ttyACM0: Permission denied\ntee: /dev/serial/late: Permission denied\nx\nx\n");
}

#ifdef __SANITIZE_ADDRESS__
const std::string FEW_DESCRIPTORS;  // the sanitizer's own start waits for a free one for ever
#else
const std::string FEW_DESCRIPTORS = "4 5 6 7 8";
#endif

TEST(Simulation, KeepsToItself) {
    const std::string asUser = geteuid() == 0 ? "setpriv --bounding-set=-all --inh-caps=-all " : "";
    const struct {
        const char* fault;  ///< that the case would catch
        std::string line;   ///< of a shell; $PTY is a terminal that nothing may touch
        const char* printed;
    } cases[] = {
        {"other files are out of reach",
         SIM +
             "-- sh -c 'mkdir a b; echo x >a/f; ln a/f b; echo x >/dev/null; echo x >/dev/shm/$$; cat b/f /dev/shm/$$;"
             " rm /dev/shm/$$'",
         "x\nx\n"},
        {"another ls changes", SIM + "-- ls -d / 'b c'; echo $?",
         "ls: cannot access 'b c': No such file or directory\n/\n2\n"},
        {"a colon in the path of the preloaded library leaves the simulation",
         "mkdir a:b; d=" FISCORA_TOOL
         "; d=${d%/*}; cp -r $d/fiscora $d/libfiscora-sim.so $d/sim-path a:b; a:b/fiscora sim -- true",
         ""},
        {"a library that was preloaded before is dropped",
         "LD_PRELOAD=libm.so.6 " + SIM + "-- sh -c 'echo ${LD_PRELOAD#*:}'", "libm.so.6\n"},
        {"a program that outlives the simulation opens whatever has the terminal's number by then",
         "(" + SIM +
             "-- sh -c 'trap \"\" TERM; kill -9 $PPID; flock ${FISCORA_SIM_LINE%/*} ln -sf $PTY "
             "$FISCORA_SIM_LINE; " +
             CALLER + " >a; mv a ended'; :) 2>&-; until cat ended 2>&-; do sleep 0.1; done",
         "flat functions: status 1, \n"},
        {"a folder stays, or none can be made",
         "mkdir tmp; (umask 777; TMPDIR=$PWD/tmp " + asUser + SIM + "-- true); echo $?; ls tmp", "0\n"},
        {"a start without descriptors, a signal or a killed simulation leaves a folder",
         "mkdir tmp; export TMPDIR=$PWD/tmp; for n in " + FEW_DESCRIPTORS + "; do (ulimit -n $n; " + SIM +
             "-- true) 2>&-; done; for s in USR1 USR2 ALRM KILL; do (" + SIM +
             "-- sh -c \"trap 'exit 3' $s; kill -$s \\$PPID; while :; do sleep 0.1; done\"; echo $?) 2>&-; done; " +
             SIM + "-- true; ls tmp",
         "3\n3\n3\n137\n"},
        {"a stopped command never ends", SIM + "-- sh -c '(sleep 0.2; kill $PPID) & kill -STOP $$'; echo $?",
         "143\n"},
        {"an empty TMPDIR is refused", "TMPDIR= " + SIM + "-- echo x", "x\n"},
        {"the trace goes into the line if the standard streams are closed",
         SIM + "--trace -- sh -c '" + CALLER + " >called 2>&1' <&- >&- 2>&-; grep -c 08000 called", "1\n"},
        {"an argument's control characters reach the terminal",
         "e=$(printf '\\33'); for option in '-- ' --fault= --state=; do " + SIM +
             "$option/$e[31m -- true; done 2>&1 | grep -c $e",
         "0\n"},
    };
    for (const auto& [fault, line, printed] : cases) {
        SCOPED_TRACE(fault);
        const WorkingDirectory folder;
        const RealDevice other;
        EXPECT_EQ(run("export TMPDIR=$PWD LC_ALL=C PTY=" + other.path + "; " + line), printed);
        EXPECT_FALSE(other.touched());
    }
}

}  // namespace
