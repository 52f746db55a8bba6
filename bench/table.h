#pragma once

#include <string>
#include <vector>

/// A line of the table of figures. One without a target is a detail of the line above it.
struct Row {
    std::string what, ours, theirs, ratio, wanted;
    bool isReached;
};

/// `value` as printf's `format`, which takes one double, prints it.
std::string formatted(const char* format, double value);

/// A figure that may be `limit` at most.
Row atMost(double limit, const std::string& what, const char* format, double figure);
Row detail(const std::string& what, const std::string& figures);

/// What the targets mean in this run.
enum class Targets { Judged, Ignored };

/// Prints the table. False if targets are judged and a figure misses its own.
bool print(const std::vector<Row>& table, Targets targets);
