#include "surroundings.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>

Undo limit(decltype(RLIMIT_FSIZE) resource, rlim_t most) {
    rlimit before{};
    getrlimit(resource, &before);
    const rlimit now{most, before.rlim_max};
    setrlimit(resource, &now);
    return {nullptr, [=](void*) { setrlimit(resource, &before); }};
}

Undo searchIn(const std::string& path) {
    const std::string before = getenv("PATH");
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
    FILE* const stream = popen(("{ " + line + "\n} 2>&1").c_str(), "r");
    std::string output;
    for (int byte; (byte = std::fgetc(stream)) != EOF;) output += static_cast<char>(byte);
    const int status = pclose(stream);
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - start;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output, duration.count()};
}
