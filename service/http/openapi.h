#pragma once

#include <string_view>

namespace fiscorad::http {

/// docs/openapi.yaml.
extern const std::string_view OPENAPI;

}  // namespace fiscorad::http
