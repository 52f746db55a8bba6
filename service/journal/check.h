#pragma once

#include <string>
#include <vector>

namespace fiscorad {

/// Reads the whole journal `path`, which may be in use, and returns what is wrong with it: one line each,
/// with the rule that is broken and the row. Throws JournalError if it cannot be read at all. `code`, if not
/// empty, is the activation code, which must not be in it.
std::vector<std::string> problemsIn(const std::string& path, const std::string& code);

}  // namespace fiscorad
