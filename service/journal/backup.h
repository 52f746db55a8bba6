#pragma once

#include <string>

namespace fiscorad {

/// Writes a consistent copy of the journal `path`, which may be in use, to `to`: a new file, readable by its
/// user alone, on disk when this returns. Throws JournalError, and leaves no file, if it cannot or if `to`
/// exists.
void backUp(const std::string& path, const std::string& to);

/// Puts the backup `from` in place of the journal `path`, which no service may be using; what it does not
/// know is taken care of as Journal::goOnFromCopy says. Returns the name under which the previous journal is
/// kept; empty if there was none. Throws JournalError, and changes nothing, if `from` is damaged or anything
/// else is in the way.
std::string restore(const std::string& from, const std::string& path);

}  // namespace fiscorad
