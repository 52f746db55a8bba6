#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fiscorad::http {

/// `text` with each escape "%XX" as its byte; none if an escape is not two hexadecimal digits.
std::optional<std::string> unescaped(std::string_view text);

using NamedValues = std::vector<std::pair<std::string, std::string>>;
/// The names and values of a query or of a form (application/x-www-form-urlencoded); none if it is
/// malformed.
std::optional<NamedValues> formValues(std::string_view text);

}  // namespace fiscorad::http
