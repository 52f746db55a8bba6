#pragma once

#include <array>
#include <cstddef>

#include "Stopwatch.h"

// The benchmarks of whole calls, by what the table reads of them.
//
// sale: EnviarDadosVenda on a line that takes no time, with cold caches, of all sizes in turn. Counters, the
// least of the calls in seconds of CPU, each behind the size ("1024 request"): the library's own, its log
// lines and checksums included, in `request` (from the arguments to the first write), `sending` (from there
// to the first read), `answer` (from there to g_resp) and `whole` (all three); `checksum` (the answer's),
// `deflate`, `inflate`. Each also as `65536 whole a byte`, of the sizes above the smallest: what a call took
// more than the smallest one of its turn, by the byte, the median.
//
// ConsultarSAT: on the simulated device. Counters, of the call with the median duration, in seconds elapsed:
// one for each part, and `total`.

/// How many turns of the sizes and how many ConsultarSAT there are. To be called before they run.
void setCalls(int turns, int queries);

/// Sizes of a sale's document, and of the answer to it.
constexpr std::array<std::size_t, 5> CALL_BYTES = {1'024, 65'536, 262'144, 819'200, 1'572'864};

/// The parts' counters.
constexpr std::array<const char*, PARTS> PART_NAMES = {"own",    "log",  "deflate", "inflate",
                                                       "search", "line", "pauses"};
