#pragma once

#include <string_view>

namespace fiscorad::http {

/// The files of service/page: index.html, fiscorad.css and fiscorad.js.
extern const std::string_view PAGE;
extern const std::string_view STYLE;
extern const std::string_view SCRIPT;

}  // namespace fiscorad::http
