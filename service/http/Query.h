#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "http/message.h"
#include "http/problem.h"
#include "http/text.h"

namespace fiscorad::http {

/// The parameters after the "?" of a request's target, each taken once. What it throws is a Rejection.
class Query {
  public:
    /// Throws if the query is malformed.
    explicit Query(const Request& request);

    /// The parameter's value, if it is there. Throws if it comes twice.
    std::optional<std::string> take(std::string_view name);
    /// Throws if a parameter is left: a mistyped filter must not be ignored.
    void refuseOthers() const;

  private:
    NamedValues m_left;
};

/// The part of the target before its "?".
std::string_view pathOf(const Request& request);
/// The content type in lower case without its parameters; empty if there is none.
std::string contentTypeOf(const Request& request);
/// Without blanks and tabs around it.
std::string_view trimmed(std::string_view text);

/// For a document of more than `maxBytes`.
Rejection tooLarge(std::size_t maxBytes);
/// For a body of more than `maxBytes`, whatever it holds.
Rejection bodyTooLarge(std::size_t maxBytes);

}  // namespace fiscorad::http
