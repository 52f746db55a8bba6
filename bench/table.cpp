#include "table.h"

#include <array>
#include <cstdio>

std::string formatted(const char* format, double value) {
    std::array<char, 40> result{};
    std::snprintf(result.data(), result.size(), format, value);
    return result.data();
}

Row atMost(double limit, const std::string& what, const char* format, double figure) {
    return {what, formatted(format, figure), "", "", "<= " + formatted(format, limit), figure <= limit};
}

Row detail(const std::string& what, const std::string& figures) { return {what, figures, "", "", "", true}; }

bool print(const std::vector<Row>& table, Targets targets) {
    constexpr char FORMAT[] = "| %-47s | %-19s | %-10s | %-5s | %-11s | %-7s |\n";
    const bool isJudged = targets == Targets::Judged;
    std::printf(FORMAT, "Figure; compared with", "Ours", "Theirs", "Ratio", "Target", "Met");
    std::printf("|---|---|---|---|---|---|\n");
    bool isGood = true;
    for (const auto& [what, ours, theirs, ratio, wanted, isReached] : table) {
        const char* const verdict = wanted.empty() ? "" : !isJudged ? "-" : isReached ? "yes" : "NO";
        std::printf(FORMAT, what.c_str(), ours.c_str(), theirs.c_str(), ratio.c_str(), wanted.c_str(),
                    verdict);
        isGood = isGood && (isReached || !isJudged);
    }
    return isGood;
}
