#pragma once

#include <string>
#include <vector>

#include "fiscal/operations.h"

namespace call {

/// The command that fetches the answer of a call again. A query is repeated; any other call is asked about by
/// its session number `session`. `words` are the call's arguments as they were typed, and an activation code
/// among them is asked for, not shown. `documentPath` is where the document goes; empty if it is not wanted.
std::string inquiry(const manipulaDados::Operation& operation, std::vector<std::string> words, int session,
                    const std::string& documentPath);

/// What to do before a call is made again if it is not known what the device did; empty if it changes
/// nothing. `command` is the one of `inquiry`.
std::string adviceAfterSilence(const manipulaDados::Operation& operation, const std::string& command);

}  // namespace call
