#pragma once

#include <dlfcn.h>

#include <array>

/// What the time of a call goes to.
enum Part {
    OWN,      ///< the library's, and all that is named nowhere else
    LOG,      ///< lines of the debug log, from the look at the clock to the closing of the file
    DEFLATE,  ///< zlib's compress2
    INFLATE,  ///< zlib's uncompress
    SEARCH,   ///< the shell of the device search
    LINE,     ///< the kernel's part in open, set-up, read, write and close
    PAUSES,
    PARTS
};

/// Seconds, by part.
struct Times {
    std::array<double, PARTS> cpu{};
    std::array<double, PARTS> wall{};
};

/// Divides the time of the one thread that calls the library among the parts. The program's own compress2 and
/// uncompress replace zlib's and book their time; the stand-ins for the platform's functions book theirs.
class Stopwatch {
  public:
    static void start();
    static Times stop();

    /// While it lives, time belongs to `part`. No effect if the stopwatch is not running.
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

/// The function of that name that this program's own replaces.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
