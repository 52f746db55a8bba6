#pragma once

#include <string>

namespace tool {

/// While one exists, SIGINT, SIGTERM, SIGHUP and SIGQUIT still end the program, but first it can say
/// something and remove a file. One at a time. A signal that was ignored when the program started stays
/// ignored.
class Interruption {
  public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    /// From now on a signal writes `text` to standard error.
    void say(std::string text);
    /// From now on a signal removes the file `path`.
    void remove(std::string path);

  private:
    std::string m_text;
    std::string m_path;
};

}  // namespace tool
