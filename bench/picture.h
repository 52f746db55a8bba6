#pragma once

#include <string>
#include <utility>
#include <vector>

/// One bar of the picture: what it shows, and its pieces with their milliseconds.
struct Bar {
    std::string title;
    std::vector<std::pair<std::string, double>> pieces;
};

/// Writes the bars, each drawn to its own scale, as an SVG picture (W3C SVG 1.1). Throws std::runtime_error
/// if the file cannot be written.
void savePicture(const std::vector<Bar>& bars, const std::string& file);
