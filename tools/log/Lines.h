#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace logs {

/// The longest line that the library writes, in bytes, without its line break.
constexpr std::size_t LINE_MAX_BYTES = 511;

/// Cuts a log's bytes into lines, without their line breaks. A line longer than LINE_MAX_BYTES is cut, but
/// stays longer than that. Zero bytes, which a file holds after a power cut, and the text before them become
/// one line, a single zero byte.
class Lines {
  public:
    explicit Lines(std::function<void(std::string_view line)> take) : m_take(std::move(take)) {}

    void add(std::string_view bytes);
    /// The last line may lack its line break.
    void end();

  private:
    void append(std::string_view part);
    void give();

    std::function<void(std::string_view)> m_take;
    std::string m_line;  ///< so far
};

}  // namespace logs
