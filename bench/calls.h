#pragma once

#include <array>
#include <cstddef>

#include "Stopwatch.h"

// The benchmarks of whole calls, and the counters that the table reads.
//
// sale: EnviarDadosVenda on a line that takes no time, with cold caches, all sizes in turn. Each counter is
// the least CPU time of its calls, in seconds, and its name begins with the size ("1024 request"). The
// library's own time, with its log lines and checksums, is in `request` (from the arguments to the first
// write), `sending` (from there to the first read), `answer` (from there to g_resp) and `whole` (all three).
// The others are `checksum` (the answer's), `deflate` and `inflate`. For sizes above the smallest, each also
// exists as `65536 whole a byte`: the median, over all turns, of the extra time over the smallest size, per
// extra byte.
//
// ConsultarSAT: on the simulated device. The counters are those of the call with the median duration, in
// seconds elapsed: one for each part, and `total`.

/// Sets the number of turns through the sizes, and of calls of ConsultarSAT. Call it before they run.
void setCalls(int turns, int queries);

/// Sizes of a sale's document, and of the answer to it.
constexpr std::array<std::size_t, 5> CALL_BYTES = {1'024, 65'536, 262'144, 819'200, 1'572'864};

/// Names of the parts' counters.
constexpr std::array<const char*, PARTS> PART_NAMES = {"own",    "log",  "deflate", "inflate",
                                                       "search", "line", "pauses"};
