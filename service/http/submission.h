#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "http/message.h"
#include "rules/document.h"

namespace fiscorad::http {

// From a request to the document in it. No input or output. Rejections say what is wrong with the request.

/// Whether `text` may be a till's name for a document: 1 to 128 characters of A-Z a-z 0-9 . _ -, but not
/// "." or "..", which mean something else in a path.
bool isKey(std::string_view text);
/// The key in the header Idempotency-Key, bare or in double quotes. Throws Rejection if there is none, more
/// than one, or it is none.
std::string keyOf(const Request& request);

/// How long the till wants to wait (header Prefer, RFC 7240): up to 120 s, or `otherwise` if it does not
/// say so in a way that can be understood.
std::chrono::seconds waitOf(const Request& request, std::chrono::seconds otherwise);

/// `submission` as the journal takes it: its body neither empty nor longer than `maxBytes`, without NUL; of a
/// cancellation, `saleKey` with "CFe". Throws Rejection.
Submission checked(Submission submission, std::size_t maxBytes);

/// The document in a request for it; its body is moved out of the request. Throws Rejection.
Submission submissionOf(Request&& request, Kind kind, std::size_t maxBytes);

}  // namespace fiscorad::http
