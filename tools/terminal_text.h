#pragma once

#include <string>

namespace tool {

/// `text`, UTF-8, on one line and without the control characters that a terminal would obey: arguments, file
/// and process names can hold them.
inline std::string withoutControls(std::string text) {
    constexpr char C1_LEAD = '\xC2';  // of U+0080 to U+00BF, of which the first half are controls
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '\n')
            text[i] = ' ';
        else if (byte < ' ' || byte == 0x7f ||
                 (byte >= 0x80 && byte < 0xA0 && i > 0 && text[i - 1] == C1_LEAD))
            text[i] = '?';
    }
    return text;
}

}  // namespace tool
