#pragma once

#include <string>

namespace call {

/// While one exists, SIGINT, SIGTERM and SIGHUP still end the program, but not without a word and without
/// leftovers. One at a time; not if the signal was ignored when the program started.
class Interruption {
  public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    /// From now on `text` is written to standard error.
    void say(std::string text);
    /// From now on the file `path` is removed.
    void remove(std::string path);

  private:
    std::string m_text;
    std::string m_path;
};

}  // namespace call
