#include "picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <pugixml.hpp>
#include <stdexcept>

namespace {

// In pixels.
constexpr int WIDTH = 900, LEFT = 20, RIGHT = 880;
constexpr int BAR_HEIGHT = 34, TITLE_HEIGHT = 30, LINE_HEIGHT = 20, GAP = 24, SWATCH = 12;

constexpr std::array COLOURS = {"#2b6cb0", "#c05621", "#2f855a", "#805ad5", "#718096"};

pugi::xml_node addText(pugi::xml_node parent, int x, int y, const std::string& text) {
    auto node = parent.append_child("text");
    node.append_attribute("x") = x;
    node.append_attribute("y") = y;
    node.text() = text.c_str();
    return node;
}

void addBox(pugi::xml_node parent, int x, int y, int width, int height, const char* colour) {
    auto node = parent.append_child("rect");
    node.append_attribute("x") = x;
    node.append_attribute("y") = y;
    node.append_attribute("width") = width;
    node.append_attribute("height") = height;
    node.append_attribute("fill") = colour;
}

std::string milliseconds(double value) {
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), value < 100 ? "%.2f ms" : "%.0f ms", value);
    return text.data();
}

/// Draws one bar at `y` with its pieces listed below it; returns where the next one begins.
int addBar(pugi::xml_node picture, int y, const Bar& bar) {
    const double total = std::accumulate(bar.pieces.begin(), bar.pieces.end(), 0.0,
                                         [](double sum, const auto& piece) { return sum + piece.second; });
    addText(picture, LEFT, y + TITLE_HEIGHT - 10, bar.title + ": " + milliseconds(total))
        .append_attribute("font-weight") = "bold";
    const int barTop = y + TITLE_HEIGHT;
    int line = barTop + BAR_HEIGHT + LINE_HEIGHT;
    double before = 0;
    for (std::size_t i = 0; i < bar.pieces.size(); ++i) {
        const auto& [name, value] = bar.pieces[i];
        const char* const colour = COLOURS[i % COLOURS.size()];
        const auto at = [&](double sum) {
            return LEFT + static_cast<int>(std::lround(sum / total * (RIGHT - LEFT)));
        };
        addBox(picture, at(before), barTop, std::max(1, at(before + value) - at(before)), BAR_HEIGHT, colour);
        addBox(picture, LEFT, line - SWATCH + 2, SWATCH, SWATCH, colour);
        std::array<char, 40> share{};
        std::snprintf(share.data(), share.size(), " (%.1f %%)", value / total * 100);
        addText(picture, LEFT + 2 * SWATCH, line, name + ": " + milliseconds(value) + share.data());
        before += value;
        line += LINE_HEIGHT;
    }
    return line + GAP - LINE_HEIGHT;
}

}  // namespace

void savePicture(const std::vector<Bar>& bars, const std::string& file) {
    pugi::xml_document document;
    auto picture = document.append_child("svg");
    picture.append_attribute("xmlns") = "http://www.w3.org/2000/svg";
    auto width = picture.append_attribute("width");
    auto height = picture.append_attribute("height");
    picture.append_attribute("font-family") = "sans-serif";
    picture.append_attribute("font-size") = 14;
    auto background = picture.append_child("rect");
    background.append_attribute("width") = "100%";
    background.append_attribute("height") = "100%";
    background.append_attribute("fill") = "#ffffff";

    int y = 0;
    for (const Bar& bar : bars) y = addBar(picture, y, bar);
    width = WIDTH;
    height = y;
    if (!document.save_file(file.c_str(), "  ")) throw std::runtime_error("cannot write " + file);
}
