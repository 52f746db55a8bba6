#include "log/Report.h"

#include <algorithm>
#include <functional>
#include <map>
#include <ostream>

#include "status_names.h"

namespace logs {
namespace {

using Row = std::vector<std::string>;

struct Column {
    const char* heading;
    enum { LEFT, RIGHT } alignment = LEFT;
};

/// In characters: of UTF-8 all bytes count but the second and further ones of a character.
std::size_t width(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

/// Prints a table. Asks for each row twice rather than keep them all.
void print(std::ostream& out, const std::vector<Column>& columns, std::size_t rows,
           const std::function<Row(std::size_t)>& row) {
    std::vector<std::size_t> widths;
    for (const Column& column : columns) widths.push_back(width(column.heading));
    for (std::size_t i = 0; i < rows; ++i) {
        const Row cells = row(i);
        for (std::size_t j = 0; j < cells.size(); ++j) widths[j] = std::max(widths[j], width(cells[j]));
    }

    const auto printRow = [&](const Row& cells) {
        for (std::size_t j = 0; j < cells.size(); ++j) {
            const std::string blanks(widths[j] - width(cells[j]), ' ');
            if (columns[j].alignment == Column::RIGHT)
                out << blanks << cells[j];
            else
                out << cells[j] << (j + 1 < cells.size() ? blanks : "");
            out << (j + 1 < cells.size() ? "  " : "\n");
        }
    };
    Row headings;
    for (const Column& column : columns) headings.emplace_back(column.heading);
    printRow(headings);
    for (std::size_t i = 0; i < rows; ++i) printRow(row(i));
}

/// What became of the calls of one operation.
struct Totals {
    std::size_t calls = 0;
    std::size_t failures = 0;
    std::size_t incomplete = 0;
    std::vector<long> seconds;  ///< the known durations
};

/// Of an even number the later of the two in the middle, which was measured.
std::optional<long> median(std::vector<long> values) {
    if (values.empty()) return std::nullopt;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

std::optional<long> longest(const std::vector<long>& values) {
    if (values.empty()) return std::nullopt;
    return *std::max_element(values.begin(), values.end());
}

}  // namespace

std::string statusText(const Exchange& exchange) {
    if (exchange.isIncomplete()) return "incompleta";
    const std::string_view name = tool::statusName(*exchange.status);
    return name.empty() ? std::to_string(*exchange.status) : std::string(name);
}

std::string durationText(const std::optional<long>& seconds) {
    return seconds ? std::to_string(*seconds) + " s" : UNKNOWN;
}

std::string known(const std::string& text) { return text.empty() ? UNKNOWN : text; }

void printExchanges(std::ostream& out, const std::vector<Exchange>& exchanges) {
    print(out,
          {{"Hora"},
           {"Operação"},
           {"Sessão", Column::RIGHT},
           {"Duração", Column::RIGHT},
           {"Status"},
           {"EEEEE"}},
          exchanges.size(), [&](std::size_t i) -> Row {
              const Exchange& exchange = exchanges[i];
              return {timeText(exchange.time()), known(exchange.operation),
                      known(exchange.session),   durationText(exchange.duration()),
                      statusText(exchange),      known(exchange.answerCode)};
          });
}

void printSummary(std::ostream& out, const std::vector<Exchange>& exchanges) {
    std::map<std::string, Totals> totals;
    for (const Exchange& exchange : exchanges) {
        Totals& operation = totals[exchange.operation];
        ++operation.calls;
        operation.failures += exchange.hasFailed() ? 1 : 0;
        operation.incomplete += exchange.isIncomplete() ? 1 : 0;
        if (const auto seconds = exchange.duration()) operation.seconds.push_back(*seconds);
    }
    std::vector<Row> rows;
    for (const auto& [name, operation] : totals)
        rows.push_back({known(name), std::to_string(operation.calls), std::to_string(operation.failures),
                        std::to_string(operation.incomplete), durationText(median(operation.seconds)),
                        durationText(longest(operation.seconds))});
    print(out,
          {{"Operação"},
           {"Chamadas", Column::RIGHT},
           {"Falhas", Column::RIGHT},
           {"Incompletas", Column::RIGHT},
           {"Mediana", Column::RIGHT},
           {"Pior", Column::RIGHT}},
          rows.size(), [&](std::size_t i) { return rows[i]; });
}

}  // namespace logs
