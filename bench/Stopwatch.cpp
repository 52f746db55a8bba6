#include "Stopwatch.h"

#include <zlib.h>

#include <ctime>
#include <string>

#include "diagnostics/logdebug.h"
#include "protocol/pbs.h"

namespace {

bool running = false;
Part current = OWN;
Times times;
double cpuMark = 0;
double wallMark = 0;

double seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// Books the time since the last change to the part at hand; returns that part.
Part change(Part part) {
    if (!running) return part;
    const double cpu = seconds(CLOCK_THREAD_CPUTIME_ID);
    const double wall = seconds(CLOCK_MONOTONIC);
    times.cpu[current] += cpu - cpuMark;
    times.wall[current] += wall - wallMark;
    cpuMark = cpu;
    wallMark = wall;
    const Part before = current;
    current = part;
    return before;
}

}  // namespace

void Stopwatch::start() {
    times = {};
    current = OWN;
    cpuMark = seconds(CLOCK_THREAD_CPUTIME_ID);
    wallMark = seconds(CLOCK_MONOTONIC);
    running = true;
}

Times Stopwatch::stop() {
    change(OWN);
    running = false;
    return times;
}

Stopwatch::In::In(Part part) : m_before(change(part)) {}
Stopwatch::In::~In() { change(m_before); }

int compress2(Bytef* to, uLongf* toSize, const Bytef* from, uLong size, int level) {
    static auto* const real = next<decltype(::compress2)>("compress2");
    const Stopwatch::In part(DEFLATE);
    return real(to, toSize, from, size, level);
}

int uncompress(Bytef* to, uLongf* toSize, const Bytef* from, uLong size) {
    static auto* const real = next<decltype(::uncompress)>("uncompress");
    const Stopwatch::In part(INFLATE);
    return real(to, toSize, from, size);
}

// By the names that the C++ ABI of this platform gives them.
std::uint16_t pbs::crc16_ccitt(const void* data, int length) {
    static auto* const real = next<std::uint16_t(const void*, int)>("_ZN3pbs11crc16_ccittEPKvi");
    const Stopwatch::In part(CHECKSUM);
    return real(data, length);
}

void LogDebug::saveLog(const std::string& level, const std::string& text) {
    static auto* const real = next<void(LogDebug*, const std::string&, const std::string&)>(
        "_ZN8LogDebug7saveLogERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES7_");
    const Stopwatch::In part(LOG);
    real(this, level, text);
}
