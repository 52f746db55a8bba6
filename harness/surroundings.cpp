#include "surroundings.h"

#include <unistd.h>

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
