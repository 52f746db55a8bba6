#pragma once

#include <string>
#include <string_view>

#include "dispatcher/device_state.h"

namespace manipulaDados {
struct Operation;
}

namespace fiscorad::http {

/// The operation of that name. Throws Rejection if there is none, or if it books a document.
const manipulaDados::Operation& operationNamed(std::string_view name);

/// From {"argumentos": {...}} with the names of the operation's parameters; an empty body has no arguments.
/// A number may be a JSON number or digits. Throws Rejection that names what is wrong.
OperationRequest operationRequestOf(const manipulaDados::Operation& operation, const std::string& body);

/// Checks that each parameter of the request's operation is there and in its range, and that there are no
/// others. Throws Rejection that names the argument.
void check(const OperationRequest& request);

}  // namespace fiscorad::http
