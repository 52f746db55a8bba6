#pragma once

#include <cstddef>
#include <string>

/// A sale (CF-e layout 0.07) of exactly `bytes` bytes, at least 1000: items of a supermarket, padded with
/// line feeds. Always the same bytes.
std::string saleDocument(std::size_t bytes);
