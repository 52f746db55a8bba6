#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

#include "dispatcher/device_state.h"
#include "http/message.h"
#include "rules/document.h"

namespace fiscorad::http {

/// What a request of the form API asks for: a document, or another operation. Reads the form in the
/// request's body, whose field numero_caixa names the till. A document without the header Idempotency-Key
/// gets a random key. Throws Rejection, which names the field if one is missing or wrong.
std::variant<Submission, OperationRequest> formRequestOf(std::string_view function, const Request& request,
                                                         std::size_t maxBytes);

/// {"funcao": ..., "retorno": ...}
Response formResponse(const char* operation, std::string_view answer);

/// The answer as the library gave it: with the signed document in Base64, where the journal keeps none.
std::string wholeAnswer(const Document& document, const std::string& signedDocument);

}  // namespace fiscorad::http
