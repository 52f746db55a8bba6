#pragma once

#include <iosfwd>
#include <string_view>

namespace pbs {
class Message;
}

namespace sim {

/// Prints frames for a person to read: time of day and direction, head lines, then the body's text with long
/// fields shortened and control characters made visible. Activation codes show as "***" unless asked for.
class FrameTrace {
  public:
    /// `out` outlives the trace.
    FrameTrace(std::ostream& out, bool showSecrets) : m_out(out), m_showSecrets(showSecrets) {}

    void request(const pbs::Message& message);
    void answer(const pbs::Message& message);
    /// Prints a line about something other than a good frame.
    void note(std::string_view text);

  private:
    void frame(std::string_view direction, const pbs::Message& message, bool hideSecrets);

    std::ostream& m_out;
    bool m_showSecrets;
};

}  // namespace sim
