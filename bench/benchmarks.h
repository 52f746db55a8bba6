#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>

#include "Stopwatch.h"

// What is measured, by the names that the table looks for.

/// The CRC, the parser and Base64, each as NAME/ours and, where there is one, NAME/theirs.
void registerPlainFunctions();

/// Sizes of a sale's document, and of the answer to it.
constexpr std::array<std::size_t, 4> CALL_BYTES = {1024, 64 * 1024, 800 * 1024, 1536 * 1024};
/// EnviarDadosVenda on a line that takes no time, with cold caches, as sale/BYTES, `calls` a repetition.
/// Counters, the least of these calls in seconds of CPU: `request` and `answer` (the library's own on the way
/// from the arguments to the frame, and from the frame to g_resp, its log lines and checksums included),
/// `checksum` (the answer's), `deflate`, `inflate`.
void registerSales(int calls);

/// ConsultarSAT on the simulated device, as ConsultarSAT. Counters, in seconds: one for each part,
/// and `total`.
void registerConsultarSAT();

/// Of the calls' parts, by their counters.
constexpr std::array<const char*, PARTS> PART_NAMES = {"own",     "log",    "checksum", "deflate",
                                                       "inflate", "search", "line",     "pauses"};
