#include "log/Lines.h"

#include <algorithm>

namespace logs {

void Lines::add(std::string_view bytes) {
    constexpr std::string_view BREAKS("\n\0", 2);
    while (!bytes.empty()) {
        const std::size_t end = bytes.find_first_of(BREAKS);
        append(bytes.substr(0, end));
        if (end == std::string_view::npos) return;
        if (bytes[end] == '\n')
            give();
        else
            m_line.assign(1, '\0');
        bytes.remove_prefix(end + 1);
    }
}

void Lines::end() {
    if (!m_line.empty()) give();
}

void Lines::append(std::string_view part) {
    constexpr std::size_t ENOUGH = LINE_MAX_BYTES + 3;  // a zero byte, and a carriage return, may be in it
    m_line += part.substr(0, ENOUGH - std::min(m_line.size(), ENOUGH));
}

void Lines::give() {
    std::string_view line = m_line;
    if (!line.empty() && line.front() == '\0') {
        m_take(line.substr(0, 1));
        line.remove_prefix(1);
        if (!line.empty()) m_take(line);
    } else {
        m_take(line);
    }
    m_line.clear();
}

}  // namespace logs
