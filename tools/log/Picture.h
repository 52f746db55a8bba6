#pragma once

#include <pugixml.hpp>
#include <vector>

#include "log/Exchanges.h"

namespace logs {

/// An SVG picture (W3C SVG 1.1) of the exchanges' durations over time, a panel an operation. Marks that would
/// hide each other, of one kind at one place, are drawn once: the picture stays small.
pugi::xml_document picture(const std::vector<Exchange>& exchanges);

}  // namespace logs
