#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace logs {

/// The longest line that the library writes, in bytes, without its line break.
constexpr std::size_t LINE_MAX_BYTES = 511;

/// Cuts a log's bytes into lines, without their line breaks. Of a line longer than LINE_MAX_BYTES it gives
/// only the beginning, which is itself longer than LINE_MAX_BYTES. Zero bytes, which a file holds after a
/// power cut, come together with the text before them as a line that is one zero byte.
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
