#pragma once

#include "http/handlers.h"
#include "http/message.h"

namespace fiscorad::http {

/// Answers `request`, now or later: by the handler of its route, or with a problem.
void route(Context& context, Request request, const Responder& respond);

}  // namespace fiscorad::http
