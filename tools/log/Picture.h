#pragma once

#include <pugixml.hpp>
#include <vector>

#include "log/Exchanges.h"

namespace logs {

/// An SVG picture (W3C SVG 1.1) of the exchanges' durations over time, one panel per operation. If marks
/// of one outcome would hide each other, only one is drawn, so the picture stays small.
pugi::xml_document picture(const std::vector<Exchange>& exchanges);

}  // namespace logs
