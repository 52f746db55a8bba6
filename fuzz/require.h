#pragma once

#include <cstdio>
#include <cstdlib>

/// Unless `holds`, ends the program; libFuzzer then keeps the input.
inline void require(bool holds, const char* promise) {
    if (holds) return;
    std::fprintf(stderr, "Broken promise: %s\n", promise);
    std::abort();
}
