// The library's speed compared with other libraries that do the same, and with a target for each figure.
//
//     performance [--quick] [--picture FILE]
//
//     --quick         only checks that everything runs and no figure is missing; targets do not matter
//     --picture FILE  also draws where the time of a call goes, as SVG
//
// Compared functions take turns, and the fastest repetition counts, since other load on the machine can only
// add time. The cost of one more byte and the duration of ConsultarSAT are medians. Exit status 1 if a figure
// is missing or misses its target.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "calls.h"
#include "fiscora.h"
#include "picture.h"
#include "platform.h"
#include "table.h"

namespace {

constexpr double BODY = FISCORA_ANSWER_MAX_BYTES;
constexpr double PAUSES_S = 1.1;  ///< of a call: after sending, and before it returns
constexpr double MS = 1e3, US = 1e6, NS = 1e9;

/// The least of each figure, in seconds, by the benchmark's name; a counter's name follows after a space.
class Least : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) throw std::runtime_error(run.benchmark_name() + ": " + run.error_message);
            if (run.run_type != Run::RT_Iteration) continue;
            const auto iterations = static_cast<double>(run.iterations);
            // Without its arguments for the benchmark library, such as /iterations:1.
            std::string name = run.run_name.function_name;
            if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
            take(name, run.cpu_accumulated_time / iterations);
            for (const auto& [counter, value] : run.counters)
                take(std::string(name).append(" ").append(counter), value);
        }
    }
    /// Throws std::runtime_error if nothing was measured: a benchmark did not run, or the stopwatch saw no
    /// call of a function, whose time would then count as another's.
    double operator[](const std::string& name) const {
        const auto place = m_least.find(name);
        if (place == m_least.end() || place->second == 0) throw std::runtime_error("missing: " + name);
        return place->second;
    }

  private:
    void take(const std::string& name, double seconds) {
        const auto [place, isNew] = m_least.try_emplace(name, seconds);
        if (!isNew) place->second = std::min(place->second, seconds);
    }

    std::map<std::string, double> m_least;
};

Row ratioAtLeast(double limit, const std::string& what, double ourSeconds, double theirSeconds) {
    const double factor = theirSeconds / ourSeconds;
    const char* const rate = "%.0f MB/s";
    return {what,
            formatted(rate, BODY / ourSeconds / 1e6),
            formatted(rate, BODY / theirSeconds / 1e6),
            formatted("%.2f", factor),
            formatted(">= %.1f", limit),
            factor >= limit};
}

Row ratioAtMost(double limit, const std::string& what, double ourSeconds, double theirSeconds) {
    const double factor = ourSeconds / theirSeconds;
    return {what,
            formatted("%.3f ms", ourSeconds * MS),
            formatted("%.3f ms", theirSeconds * MS),
            formatted("%.2f", factor),
            formatted("<= %.2f", limit),
            factor <= limit};
}

std::string sale(std::size_t bytes, const std::string& counter) {
    return "sale " + std::to_string(bytes) + " " + counter;
}

/// CPU time, in ns, that each byte above 1 KiB costs a call of `bytes` bytes, without zlib's.
double byteCost(const Least& seconds, std::size_t bytes, const char* way) {
    return seconds[sale(bytes, std::string(way) + " a byte")] * NS;
}

/// Compares the cost per byte of each size with that of 256 KiB, and not of 64 KiB: that frame is a single
/// piece, like the one of 1 KiB, and each further piece adds a line to the log.
Row growthRow(const Least& seconds) {
    constexpr double LIMIT = 1.2;
    const auto [least, small, medium, large, largest] = CALL_BYTES;
    const double base = byteCost(seconds, medium, "whole");
    const double dearest = std::max({byteCost(seconds, small, "whole"), byteCost(seconds, large, "whole"),
                                     byteCost(seconds, largest, "whole")});
    return {"per byte, worst of 64/800/1536 KiB; 256 KiB",
            formatted("%.2f ns/B", dearest),
            formatted("%.2f ns/B", base),
            formatted("%.2f", dearest / base),
            formatted("<= %.2f", LIMIT),
            base > 0 && dearest / base <= LIMIT};
}

Row costsRow(const std::string& what, const Least& seconds, const char* way) {
    std::string figures;
    for (std::size_t i = 1; i < CALL_BYTES.size(); ++i)
        figures += (i > 1 ? "/" : "") + formatted("%.2f", byteCost(seconds, CALL_BYTES[i], way));
    return detail(what, figures);
}

/// Peak memory of a program that makes a full-size sale on the simulated device.
double peakMiB() {
    FILE* const output = realPopen(FISCORA_TOOL " sim -- " FULL_SIZE_SALE);
    int status = -1;
    long peakKiB = 0;
    const bool read = output != nullptr && std::fscanf(output, "%d %ld", &status, &peakKiB) == 2;
    if (output != nullptr) pclose(output);
    if (!read || status != FISCORA_STATUS_OK || peakKiB <= 0)
        throw std::runtime_error("the full-size sale failed");
    return static_cast<double>(peakKiB) / 1024;
}

std::vector<Row> tableOf(const Least& seconds, double peak) {
    const std::size_t full = CALL_BYTES.back();
    const double checked = seconds[sale(full, "checksum")];
    return {
        ratioAtLeast(6, "crc16_ccitt, 1.5 MiB; Boost.CRC", seconds["crc16_ccitt/ours"],
                     seconds["crc16_ccitt/theirs"]),
        ratioAtMost(1.25, "parse, 1.5 MiB in reads of 8192; memcpy + CRC", seconds["parse/ours"],
                    seconds["parse/theirs"]),
        atMost(2.5, "parse, the frame of 201 bytes", "%.2f us", seconds["small parse/ours"] * US),
        ratioAtLeast(1, "Base64::decode, 1.5 MiB; OpenSSL", seconds["decode/ours"], seconds["decode/theirs"]),
        ratioAtLeast(1, "Base64::encode, 1.5 MiB; OpenSSL", seconds["encode/ours"], seconds["encode/theirs"]),
        ratioAtMost(0.08, "full-size sale, to the frame; compress2", seconds[sale(full, "request")],
                    seconds[sale(full, "deflate")]),
        ratioAtMost(0.6, "full-size answer, to g_resp; uncompress + CRC",
                    seconds[sale(full, "answer")] - checked, seconds[sale(full, "inflate")] + checked),
        atMost(15, "ConsultarSAT beyond its pauses, median of 9", "%.1f ms",
               (seconds["ConsultarSAT total"] - PAUSES_S) * MS),
        detail("  of which the shell of the device search",
               formatted("%.1f ms", seconds["ConsultarSAT search"] * MS)),
        growthRow(seconds),
        costsRow("  64/256/800/1536 KiB, in ns/B", seconds, "whole"),
        costsRow("  of which to the frame", seconds, "request"),
        costsRow("  of which sending it", seconds, "sending"),
        costsRow("  of which to g_resp", seconds, "answer"),
        detail("  and the first KiB, with all fixed costs",
               formatted("%.0f us", seconds[sale(CALL_BYTES.front(), "whole")] * US)),
        atMost(24, "peak memory of a full-size sale", "%.1f MiB", peak),
    };
}

/// Runs all registered benchmarks: `repetitions` of each, in turns.
Least measure(const std::string& repetitions, const std::string& secondsEach) {
    std::vector<std::string> options = {"performance", "--benchmark_repetitions=" + repetitions,
                                        "--benchmark_min_time=" + secondsEach,
                                        "--benchmark_enable_random_interleaving=true"};
    std::vector<char*> arguments;
    for (std::string& option : options) arguments.push_back(option.data());
    auto count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    Least least;
    benchmark::RunSpecifiedBenchmarks(&least);
    return least;
}

/// Where the time of the two calls goes.
std::vector<Bar> barsOf(const Least& seconds) {
    const auto part = [&](Part which) {
        return seconds["ConsultarSAT " + std::string(PART_NAMES[which])] * MS;
    };
    const auto ofSale = [&](const char* counter) { return seconds[sale(CALL_BYTES.back(), counter)] * MS; };
    const double others = part(OWN) + part(DEFLATE) + part(INFLATE);
    const double wakeUp = part(PAUSES) - PAUSES_S * MS;
    const double rest = part(SEARCH) + part(LOG) + part(LINE) + wakeUp + others;
    return {
        {"ConsultarSAT, elapsed time", {{"the two fixed pauses", PAUSES_S * MS}, {"everything else", rest}}},
        {"Everything else in ConsultarSAT",
         {{"shell of the device search", part(SEARCH)},
          {"lines of the debug log", part(LOG)},
          {"terminal: open, set up, read, write", part(LINE)},
          {"waking up from the pauses", wakeUp},
          {"the rest of the library", others}}},
        {"A sale of 1.5 MiB, CPU time without the line",
         {{"zlib: compress2, level 9", ofSale("deflate")},
          {"zlib: uncompress", ofSale("inflate")},
          {"library: request to frame", ofSale("request")},
          {"library: sending the frame", ofSale("sending")},
          {"library: frame to g_resp", ofSale("answer")}}}};
}

}  // namespace

int main(int argc, char** argv) try {
    bool isQuick = false;
    std::string pictureFile;
    CLI::App application("The library's speed compared with other libraries'");
    application.add_flag("--quick", isQuick, "Only check that everything runs; targets do not matter");
    application.add_option("--picture", pictureFile, "Also draw where the time of a call goes, as SVG");
    CLI11_PARSE(application, argc, argv);

    // Keeps memory in the process between calls: glibc would give back more of it after some sizes than after
    // others.
    mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 256 * 1024 * 1024);
    setCalls(isQuick ? 2 : 600, isQuick ? 1 : 9);
    const Least seconds = isQuick ? measure("1", "0.001") : measure("9", "0.2");
    const auto peak = [] {
        const WorkingDirectory folder;
        return peakMiB();
    }();
    const bool isGood = print(tableOf(seconds, peak), isQuick ? Targets::Ignored : Targets::Judged);
    if (!pictureFile.empty()) savePicture(barsOf(seconds), pictureFile);
    return isGood ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "performance: %s\n", failure.what());
    return EXIT_FAILURE;
}
