#pragma once

#include <array>
#include <cstddef>

#include "Stopwatch.h"

// The benchmarks of whole calls, and the counters that the table reads.
//
// sale: EnviarDadosVenda on a line that takes no time, with cold caches, of all sizes in turn. Counters, the
// least of the calls in seconds of CPU, each after the size ("1024 request"): the library's own, its log
// lines and checksums included, in `request` (from the arguments to the first write), `sending` (from there
// to the first read), `answer` (from there to g_resp) and `whole` (all three); `checksum` (the answer's),
// `deflate`, `inflate`. Each also as `65536 whole a byte`, for the sizes above the smallest: the median
// of what a call took more than the smallest one of its turn, per byte.
//
// ConsultarSAT: on the simulated device. Counters, of the call with the median duration, in seconds elapsed:
// one for each part, and `total`.

/// Sets the number of turns of the sizes, and of ConsultarSAT. Call it before they run.
void setCalls(int turns, int queries);

/// Sizes of a sale's document, and of the answer to it.
constexpr std::array<std::size_t, 5> CALL_BYTES = {1'024, 65'536, 262'144, 819'200, 1'572'864};

/// The parts' counters.
constexpr std::array<const char*, PARTS> PART_NAMES = {"own",    "log",  "deflate", "inflate",
                                                       "search", "line", "pauses"};
