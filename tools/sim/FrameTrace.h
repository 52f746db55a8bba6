#pragma once

#include <iosfwd>
#include <string_view>

namespace pbs {
class Message;
}

namespace sim {

/// Prints frames for a person to read: time of day and direction, head lines, then the body's text with long
/// fields shortened and control characters made visible.
class FrameTrace {
  public:
    /// Whether activation codes show as "***".
    enum class Secrets { Hidden, Shown };

    /// `out` outlives the trace.
    FrameTrace(std::ostream& out, Secrets secrets) : m_out(out), m_secrets(secrets) {}

    void request(const pbs::Message& message);
    void answer(const pbs::Message& message);
    /// Prints a line about anything but a good frame.
    void note(std::string_view text);

  private:
    void frame(std::string_view direction, const pbs::Message& message, Secrets secrets);

    std::ostream& m_out;
    Secrets m_secrets;
};

}  // namespace sim
