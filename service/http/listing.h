#pragma once

#include "http/message.h"
#include "journal/Journal.h"

namespace fiscorad::http {

/// The filter that the query of a request for a list of documents asks for: estado, desde, ate (a day to its
/// end, or a time that is itself left out), caixa, depois (the last document of the page before) and limite
/// (1 to 1000, 100 if not given). Throws Rejection that names the parameter.
Filter filterOf(const Request& request, Kind kind);

}  // namespace fiscorad::http
