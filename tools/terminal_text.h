#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

/// Columns that a table or a help text may fill.
constexpr std::size_t TERMINAL_COLUMNS = 80;

/// Columns of the terminal `fd`; TERMINAL_COLUMNS if it does not say, or is none.
std::size_t terminalColumns(int fd);

/// `text` as UTF-8 without anything that a terminal would obey or could not show: control characters (C0,
/// DEL, C1) and bytes that are not UTF-8. Each of them becomes what `replace` makes of its bytes.
std::string withoutControls(std::string_view text,
                            const std::function<std::string(std::string_view bytes)>& replace);
/// The same on one line: a line feed becomes a blank, everything else `?`.
std::string withoutControls(std::string_view text);

/// `text` as UTF-8: unchanged if it is, else converted from ISO 8859-1, which fiscal devices send as well.
std::string toUtf8(std::string_view text);

/// How many columns `text`, UTF-8, takes: one per character.
std::size_t width(std::string_view text);

/// `text`, UTF-8, with blanks after or before it up to `columns`; unchanged if it is longer.
std::string leftAligned(std::string_view text, std::size_t columns);
std::string rightAligned(std::string_view text, std::size_t columns);

/// The first `columns` characters of `text`, UTF-8; "…" stands in place of the last one if more follow.
std::string cut(std::string_view text, std::size_t columns);

/// `text`, UTF-8, in lines of at most `columns` characters, broken at blanks; a longer word is broken
/// anywhere. At least one line.
std::vector<std::string> wrapped(std::string_view text, std::size_t columns);

/// `word` as it has to be typed on a shell's command line.
std::string shellWord(const std::string& word);

}  // namespace tool
