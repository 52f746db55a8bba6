#include "Stopwatch.h"

#include <zlib.h>

#include <ctime>
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

/// Adds the time since the last change to the current part; returns that part.
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
