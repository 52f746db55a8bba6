#include "surroundings.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>

#include "platform.h"

Undo limit(decltype(RLIMIT_FSIZE) resource, rlim_t most) {
    rlimit before{};
    getrlimit(resource, &before);
    const rlimit now{most, before.rlim_max};
    setrlimit(resource, &now);
    return {nullptr, [=](void*) { setrlimit(resource, &before); }};
}

Undo searchIn(const std::string& path) {
    const char* const set = getenv("PATH");
    const std::string before = set == nullptr ? "" : set;
    setenv("PATH", path.c_str(), 1);
    return {nullptr, [=](void*) { setenv("PATH", before.c_str(), 1); }};
}

Undo closeOutput() {
    const int before = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    return {nullptr, [=](void*) {
                dup2(before, STDOUT_FILENO);
                close(before);
                std::clearerr(stdout);
                std::cout.clear();
            }};
}

ShellResult runShell(const std::string& line) {
    const auto start = std::chrono::steady_clock::now();
    FILE* const stream = realPopen(("{ " + line + "\n} 2>&1").c_str());
    std::string output;
    for (int byte; (byte = std::fgetc(stream)) != EOF;) output += static_cast<char>(byte);
    const int status = pclose(stream);
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - start;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output, duration.count()};
}

std::vector<ShellResult> runShells(const std::vector<std::string>& lines) {
    std::vector<std::future<ShellResult>> running;
    for (const auto& line : lines) {
        const std::string folder = std::to_string(running.size());
        std::string commands = "mkdir " + folder;
        commands.append(" && cd ").append(folder).append("\n").append(line);
        running.push_back(std::async(std::launch::async, runShell, commands));
    }
    std::vector<ShellResult> results;
    for (auto& shell : running) results.push_back(shell.get());
    return results;
}
