#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

/// The fields of `text` between its delimiters; an empty text is one empty field, and a delimiter at the end
/// adds an empty one. At most `most` fields (1 or more): the last one then holds the rest, delimiters
/// included. Valid as long as the text.
__attribute__((visibility("hidden"))) inline std::vector<std::string_view> fieldsOf(
    std::string_view text, char delimiter = '|', std::size_t most = static_cast<std::size_t>(-1)) {
    std::vector<std::string_view> fields;
    while (fields.size() + 1 < most) {
        const auto end = text.find(delimiter);
        if (end == std::string_view::npos) break;
        fields.push_back(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    fields.push_back(text);
    return fields;
}
