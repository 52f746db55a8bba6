#include "dispatcher/diagnosis.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "Descriptor.h"
#include "i18n.h"

namespace fiscorad {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds PATIENCE{15};

[[noreturn]] void fail(int error) { throw std::runtime_error("fiscora doctor: " + tool::systemError(error)); }

/// The tool beside this program, or else in PATH.
std::string pathOfTool() {
    const fs::path beside = fs::read_symlink("/proc/self/exe").parent_path() / "fiscora";
    return fs::exists(beside) ? beside.string() : "fiscora";
}

/// This process's environment, in Portuguese.
std::vector<char*> portugueseEnvironment() {
    static std::array<char, 20> language{"LC_ALL=pt_BR.UTF-8"};
    std::vector<char*> variables{language.data()};
    for (char** variable = environ; *variable != nullptr; ++variable)
        if (std::string_view(*variable).substr(0, 7) != "LC_ALL=") variables.push_back(*variable);
    variables.push_back(nullptr);
    return variables;
}

/// Starts the tool with its output in `output`, and without the signals that this process holds back.
pid_t start(int output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);

    std::string path = pathOfTool();
    std::string command = "doctor";
    std::string option = "--json";
    const std::array<char*, 4> words{path.data(), command.data(), option.data(), nullptr};
    auto environment = portugueseEnvironment();
    pid_t pid = 0;
    const int error =
        posix_spawnp(&pid, path.c_str(), &actions, &attributes, words.data(), environment.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) fail(error);
    return pid;
}

std::string readAll(int input, Clock::time_point deadline) {
    std::string text;
    std::array<char, 4096> block{};
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd waiting{input, POLLIN, 0};
        if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) == 0) return "";
        const ssize_t got = read(input, block.data(), block.size());
        if (got == 0) return text;
        if (got > 0) text.append(block.data(), static_cast<std::size_t>(got));
        if (got < 0 && errno != EINTR) return "";
    }
}

}  // namespace

std::string diagnose() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) fail(errno);
    const tool::Descriptor input(ends[0]);
    tool::Descriptor output(ends[1]);
    const pid_t pid = start(output.get());
    output = tool::Descriptor();
    std::string text = readAll(input.get(), Clock::now() + PATIENCE);
    if (text.empty()) kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) continue;
    if (text.empty()) fail(ETIMEDOUT);
    return text;
}

}  // namespace fiscorad
