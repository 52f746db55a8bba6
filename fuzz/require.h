#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the program, upon which libFuzzer keeps the input, unless `holds`.
inline void require(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "Broken promise: %s\n", promise);
    std::abort();
}
