#pragma once

#include <dlfcn.h>

#include <array>

/// What the time of a call goes to.
enum Part {
    OWN,       ///< the library's, and all that is named nowhere else
    LOG,       ///< lines of the debug log
    CHECKSUM,  ///< the CRC of a body
    DEFLATE,   ///< zlib's compress2
    INFLATE,   ///< zlib's uncompress
    SEARCH,    ///< the shell of the device search
    LINE,      ///< the kernel's part in open, set-up, read, write and close
    PAUSES,
    PARTS
};

/// Seconds, by part.
struct Times {
    std::array<double, PARTS> cpu{};
    std::array<double, PARTS> wall{};
};

/// Shares the time of the one thread that calls the library out among the parts. The program's own compress2,
/// uncompress, pbs::crc16_ccitt and LogDebug::saveLog stand before those of the libraries, and say where they
/// are; for the platform's functions whoever stands in for them does.
class Stopwatch {
  public:
    static void start();
    static Times stop();

    /// While it lives, time belongs to `part`. Of no effect where the stopwatch does not run.
    class In {
      public:
        explicit In(Part part);
        In(const In&) = delete;
        In& operator=(const In&) = delete;
        ~In();

      private:
        Part m_before;
    };
};

/// The function of that name that comes behind this program's own.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
