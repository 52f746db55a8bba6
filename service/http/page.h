#pragma once

#include <string_view>

namespace fiscorad::http {

/// The files of service/page: index.html, fiscorad.css, fiscorad.js and fiscorad.svg.
extern const std::string_view PAGE;
extern const std::string_view STYLE;
extern const std::string_view SCRIPT;
extern const std::string_view ICON;

}  // namespace fiscorad::http
