#pragma once

#include <array>
#include <cstddef>

#include "Stopwatch.h"

// The benchmarks of whole calls, by what the table reads of them.
//
// sale/BYTES: EnviarDadosVenda on a line that takes no time, with cold caches. Counters, the least of the
// calls in seconds of CPU: `request` and `answer` (the library's own on the way from the arguments to the
// frame, and from the frame to g_resp, its log lines and checksums included), `checksum` (the answer's),
// `deflate`, `inflate`.
//
// ConsultarSAT: on the simulated device. Counters, the least of the calls in seconds: one for each part, and
// `total`.

/// Sizes of a sale's document, and of the answer to it.
constexpr std::array<std::size_t, 4> CALL_BYTES = {1'024, 65'536, 819'200, 1'572'864};

/// The parts' counters.
constexpr std::array<const char*, PARTS> PART_NAMES = {"own",     "log",    "checksum", "deflate",
                                                       "inflate", "search", "line",     "pauses"};
