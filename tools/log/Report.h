#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "log/Exchanges.h"

namespace logs {

/// Stands for what the log does not tell.
constexpr char UNKNOWN[] = "-";

/// The status by its name in fiscora.h, without the prefix; its number where it has none.
std::string statusText(const Exchange& exchange);
/// Such as "6 s".
std::string durationText(const std::optional<long>& seconds);
/// `text`, or UNKNOWN where it is empty.
std::string known(const std::string& text);

/// Prints the exchanges, one a line.
void printExchanges(std::ostream& out, const std::vector<Exchange>& exchanges);
/// Prints for each operation how often it was called and failed, and its median and longest duration.
void printSummary(std::ostream& out, const std::vector<Exchange>& exchanges);

}  // namespace logs
