// What a program under `fiscora sim` can reach. Each runs in a private /dev, made by bubblewrap, in which the
// fiscal device is a pty of this program's: that one must never be touched.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "platform.h"

namespace {

namespace fs = std::filesystem;

const std::string SIM = FISCORA_TOOL " sim ";
const std::string CALLER = FISCORA_CALLER;
const std::string LOADER = FISCORA_LOADER;

struct Result {
    int exitStatus;
    std::string output;
};

/// Runs a shell line; its standard output and error come back together.
Result run(const std::string& line) {
    FILE* const stream = realPopen(("{ " + line + "\n} 2>&1 </dev/null").c_str());
    std::string output;
    for (int byte; (byte = std::fgetc(stream)) != EOF;) output += static_cast<char>(byte);
    const int status = pclose(stream);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

/// A pty that stands for a real device.
class RealDevice {
  public:
    RealDevice() {
        termios raw{};
        cfmakeraw(&raw);
        EXPECT_EQ(openpty(&m_device, &m_node, m_path.data(), &raw, nullptr), 0);
        int reportFlushes = 1;  // the library's first act on a port
        ioctl(m_device, TIOCPKT, &reportFlushes);
    }
    RealDevice(const RealDevice&) = delete;
    RealDevice& operator=(const RealDevice&) = delete;
    ~RealDevice() { close(m_device), close(m_node); }

    std::string path() const { return m_path.data(); }
    /// Runs `line` where the device is plugged in.
    Result runWith(const std::string& line) const {
        return run("exec bwrap --bind / / --dev /dev --dev-bind " + path() +
                   " /dev/ttyACM0 --symlink ../../ttyACM0 /dev/serial/by-id/usb-x-mfc+_with_musb-if00 " +
                   line);
    }
    bool touched() const {
        pollfd device{m_device, POLLIN | POLLPRI, 0};
        return poll(&device, 1, 0) > 0;
    }

  private:
    int m_device = -1;
    int m_node = -1;
    std::array<char, 64> m_path{};
};

bool kernelGuards() {
    return syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) >= 2;
}

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

constexpr char MEETS[] = "status 0, 000001|08000|";
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
    {"FFI of PHP", "php -d ffi.enable=1 call.php", MEETS},
    {"RTLD_DEEPBIND of Python", "python3 call.py", MEETS},
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
    if (GetParam() && !kernelGuards()) GTEST_SKIP() << "no Landlock here";
    const WorkingDirectory folder;
    if (run("bwrap --bind / / --dev /dev true").exitStatus != 0)
        GTEST_SKIP() << "bubblewrap makes no namespace here";
    std::ofstream("call.php")
        << "<?php $f = FFI::cdef('const char* ConsultarSAT(int n); int CodigoErro();', '" FISCORA_LIBRARY
           "'); $a = $f->ConsultarSAT(1);"
           "echo 'status ', $f->CodigoErro(), ', ', $a, \"\\n\";";
    std::ofstream("call.py") << "import ctypes, os\n"
                                "f = ctypes.CDLL('" FISCORA_LIBRARY
                                "', mode=os.RTLD_NOW | os.RTLD_DEEPBIND)\n"
                                "f.ConsultarSAT.restype = ctypes.c_char_p\n"
                                "a = f.ConsultarSAT(1).decode()\n"
                                "print(f'status {f.CodigoErro()}, {a}')\n";

    std::vector<RealDevice> devices(std::size(WAYS));
    std::vector<std::future<Result>> results;
    for (const auto& [way, program, printed] : WAYS)
        results.push_back(std::async(std::launch::async, [&device = devices[results.size()], line = program] {
            return device.runWith("env LC_ALL=C " + SIM + "-- " + line);
        }));
    for (std::size_t i = 0; i < results.size(); ++i) {
        SCOPED_TRACE(WAYS[i].way);
        const Result result = results[i].get();
        // Without the kernel's help nothing holds a program that clears its environment; this is also the
        // proof that a device which is reached is seen here to be.
        const bool reached = !GetParam() && WAYS[i].printed == FINDS_NONE;
        EXPECT_EQ(devices[i].touched(), reached) << result.output;
        if (!reached) {
            EXPECT_NE(result.output.find(WAYS[i].printed), std::string::npos) << result.output;
        }
    }
}

TEST(Simulation, LeavesOtherFilesInReach) {
    const WorkingDirectory folder;
    const RealDevice device;
    const Result result = run(SIM +
                              "-- sh -c 'mkdir a b && echo x >a/f && mv a/f b && echo x >/dev/null &&"
                              " echo x >/dev/shm/$$ && rm /dev/shm/$$ && ls -d b/* && ls -d \"b c\"'");
    EXPECT_EQ(result.output, "b/f\nls: cannot access 'b c': No such file or directory\n");
    EXPECT_EQ(result.exitStatus, 2);
}

TEST(Simulation, ProgramThatOutlivesItFindsNoDevice) {
    const WorkingDirectory folder;
    const RealDevice other;  // a terminal that got the number of the simulated line
    const Result result =
        run("export TMPDIR=$PWD; " + SIM +
            "-- sh -c 'trap \"\" TERM; kill -9 $PPID; flock ${FISCORA_SIM_LINE%/*} ln -sf " + other.path() +
            " $FISCORA_SIM_LINE; " + CALLER +
            " >answer; touch ended'; until [ -e ended ]; do sleep 0.1; done; cat answer");
    EXPECT_NE(result.output.find(FINDS_NONE), std::string::npos) << result.output;
    EXPECT_FALSE(other.touched());
}

TEST(Simulation, LeavesNothingWhateverTheUmask) {
    const WorkingDirectory folder;
    fs::create_directory("tmp");
    const std::string asUser = geteuid() == 0 ? "setpriv --bounding-set=-all --inh-caps=-all " : "";
    const Result result = run("export TMPDIR=$PWD/tmp; umask 777; exec " + asUser + SIM +
                              "-- sh -c 'printf $FISCORA_SIM_LINE | head -c 1'");
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_EQ(result.output, "/");
    EXPECT_TRUE(fs::is_empty("tmp"));
}

TEST(Simulation, ShowsNoControlCharacterOfAnArgument) {
    for (const std::string arguments :
         {"-- $'/bin/\\e[31m'", "--fault $'\\e[31m' -- true", "--state $'\\e' -- true"}) {
        const Result result = run("bash -c \"exec " + SIM + arguments + "\"");
        EXPECT_NE(result.exitStatus, 0);
        EXPECT_EQ(result.output.find('\x1b'), std::string::npos) << result.output;
    }
}

}  // namespace
