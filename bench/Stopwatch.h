#pragma once

#include <dlfcn.h>

#include <array>

/// Where the time of a call goes.
enum Part {
    OWN,      ///< the library, and everything not listed below
    LOG,      ///< lines of the debug log, from reading the clock to closing the file
    DEFLATE,  ///< zlib's compress2
    INFLATE,  ///< zlib's uncompress
    SEARCH,   ///< the shell of the device search
    LINE,     ///< the kernel's part of open, set-up, read, write and close
    PAUSES,
    PARTS
};

/// Seconds, by part.
struct Times {
    std::array<double, PARTS> cpu{};
    std::array<double, PARTS> wall{};
};

/// Divides the time of the thread that calls the library among the parts. The program's own compress2 and
/// uncompress replace zlib's and record their time; the stand-ins for the platform's functions record theirs.
class Stopwatch {
  public:
    static void start();
    static Times stop();

    /// While it lives, time counts for `part`. No effect if the stopwatch is not running.
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

/// The function `name` that this program's own one replaces.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
