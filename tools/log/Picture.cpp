#include "log/Picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "log/Report.h"

namespace logs {
namespace {

// In pixels.
constexpr int WIDTH = 1000, LEFT = 70, RIGHT = 955;
constexpr int TOP = 70;      ///< title and legend
constexpr int CAPTION = 34;  ///< above each panel
constexpr int BOTTOM = 64;   ///< the axis of time
constexpr int PANELS_HEIGHT = 320, LEAST_PANEL_HEIGHT = 90;
constexpr int UNKNOWN_STRIP = 16;  ///< below a panel's zero, for what has no duration
constexpr int MARK = 4;            ///< half the size of one
constexpr int TICK_DISTANCE = 14;  ///< of two labels, one above the other, at least
constexpr int MAX_TIME_TICKS = 9;

constexpr char INK[] = "#222222", FAINT[] = "#d8d8d8";

// Drawn in this order: what matters most lies on top.
enum Kind { ANSWERED, INCOMPLETE, FAILED, KINDS };

Kind kindOf(const Exchange& exchange) {
    if (exchange.isIncomplete()) return INCOMPLETE;
    return exchange.hasFailed() ? FAILED : ANSWERED;
}

struct Look {
    const char* fill;
    const char* stroke;
    const char* meaning;
};
constexpr std::array<Look, KINDS> LOOKS = {{
    {"#2b6cb0", "none", "respondida (OK)"},
    {"#ffffff", "#946200", "incompleta (sem fim no log)"},
    {"none", "#c11f1f", "falha (outro status)"},
}};

using Panel = std::vector<const Exchange*>;
using Panels = std::map<std::string, Panel>;  ///< by operation

std::string point(int x, int y) { return std::to_string(x) + " " + std::to_string(y); }

pugi::xml_node addText(pugi::xml_node parent, int x, int y, const std::string& text, const char* anchor) {
    auto node = parent.append_child("text");
    node.append_attribute("x") = x;
    node.append_attribute("y") = y;
    node.append_attribute("text-anchor") = anchor;
    node.text() = text.c_str();
    return node;
}

void addLine(pugi::xml_node parent, int x1, int y1, int x2, int y2, const char* stroke) {
    auto node = parent.append_child("path");
    node.append_attribute("d") = ("M" + point(x1, y1) + "L" + point(x2, y2)).c_str();
    node.append_attribute("stroke") = stroke;
}

/// What the marks of one kind in one place have in common.
pugi::xml_node addMarks(pugi::xml_node parent, Kind kind) {
    auto group = parent.append_child("g");
    group.append_attribute("fill") = LOOKS[kind].fill;
    group.append_attribute("stroke") = LOOKS[kind].stroke;
    group.append_attribute("stroke-width") = 2;
    return group;
}

/// A dot, a cross or a diamond: nobody needs the colours.
pugi::xml_node addMark(pugi::xml_node group, Kind kind, int x, int y) {
    if (kind == ANSWERED) {
        auto circle = group.append_child("circle");
        circle.append_attribute("cx") = x;
        circle.append_attribute("cy") = y;
        circle.append_attribute("r") = MARK - 1;
        return circle;
    }
    const std::string shape = kind == FAILED ? "m-4 -4l8 8m0 -8l-8 8" : "m0 -4l4 4l-4 4l-4 -4z";
    auto node = group.append_child("path");
    node.append_attribute("d") = ("M" + point(x, y) + shape).c_str();
    return node;
}

class TimeAxis {
  public:
    explicit TimeAxis(const std::vector<Exchange>& exchanges) {
        if (exchanges.empty()) return;
        const auto [first, last] =
            std::minmax_element(exchanges.begin(), exchanges.end(),
                                [](const Exchange& a, const Exchange& b) { return a.time() < b.time(); });
        // No mark stands on the border, and a single one in the middle.
        const std::time_t margin = std::max<std::time_t>(LEAST_MARGIN, (last->time() - first->time()) / 50);
        m_first = first->time() - margin;
        m_last = last->time() + margin;
        const auto* const step = std::find_if(STEPS.begin(), STEPS.end(), [&](std::time_t candidate) {
            return (m_last - m_first) / candidate < MAX_TIME_TICKS;
        });
        m_step = step != STEPS.end()
                     ? *step
                     : ((m_last - m_first) / MAX_TIME_TICKS / STEPS.back() + 1) * STEPS.back();
    }

    int x(std::time_t time) const {
        return LEFT + static_cast<int>(std::lround(static_cast<double>(time - m_first) * (RIGHT - LEFT) /
                                                   static_cast<double>(m_last - m_first)));
    }

    /// None where there is nothing to show.
    std::vector<std::time_t> ticks() const {
        std::vector<std::time_t> times;
        if (m_first == m_last) return times;
        for (std::time_t time = (m_first + m_step - 1) / m_step * m_step; time <= m_last; time += m_step)
            times.push_back(time);
        return times;
    }

    bool showsHours() const { return m_step < DAY; }

  private:
    static constexpr std::time_t MINUTE = 60, HOUR = 60 * MINUTE, DAY = 24 * HOUR;
    static constexpr std::time_t LEAST_MARGIN = 2 * MINUTE;
    static constexpr std::array<std::time_t, 13> STEPS = {
        MINUTE,   2 * MINUTE, 5 * MINUTE, 15 * MINUTE, 30 * MINUTE, HOUR,    3 * HOUR,
        6 * HOUR, 12 * HOUR,  DAY,        2 * DAY,     7 * DAY,     28 * DAY};

    std::time_t m_first = 0;
    std::time_t m_last = 0;
    std::time_t m_step = DAY;  ///< from tick to tick
};

/// Durations from one second to half an hour stand beside each other, so the scale is logarithmic: of the
/// duration and one second, for there are durations of 0.
class DurationAxis {
  public:
    DurationAxis(const std::vector<Exchange>& exchanges, int height) : m_height(height) {
        long longest = LEAST_TOP;
        for (const Exchange& exchange : exchanges)
            longest = std::max(longest, exchange.duration().value_or(0));
        for (long decade = 1; m_values.back() < longest; decade *= 10)
            for (const long value : {decade, 2 * decade, 5 * decade})
                if (m_values.back() < longest) m_values.push_back(value);
    }

    /// Pixels above zero.
    int height(long seconds) const {
        return static_cast<int>(std::lround(m_height * std::log1p(static_cast<double>(seconds)) /
                                            std::log1p(static_cast<double>(m_values.back()))));
    }

    /// As many as have room.
    std::vector<long> ticks() const {
        std::vector<long> values = {0};
        for (const long value : m_values)
            if (height(value) - height(values.back()) >= TICK_DISTANCE) values.push_back(value);
        return values;
    }

  private:
    static constexpr long LEAST_TOP = 5;

    int m_height;
    std::vector<long> m_values = {0};  ///< 1, 2, 5, 10, 20 ... up to the longest duration or the next
};

class Drawing {
  public:
    explicit Drawing(const std::vector<Exchange>& exchanges)
        : m_panels(panelsOf(exchanges)),
          m_panelHeight(
              std::max(LEAST_PANEL_HEIGHT, PANELS_HEIGHT / std::max(1, static_cast<int>(m_panels.size())))),
          m_strip(
              std::all_of(exchanges.begin(), exchanges.end(), [](const Exchange& e) { return e.duration(); })
                  ? 0
                  : UNKNOWN_STRIP),
          m_time(exchanges),
          m_duration(exchanges, m_panelHeight) {}

    pugi::xml_document document() {
        pugi::xml_document result;
        const int count = std::max(1, static_cast<int>(m_panels.size()));
        const int bottom = TOP + count * (CAPTION + m_panelHeight + m_strip);
        m_svg = addRoot(result, bottom + BOTTOM);
        addHeader();
        int top = TOP + CAPTION;
        for (const auto& [operation, panel] : m_panels) {
            addPanel(operation, panel, top);
            top += CAPTION + m_panelHeight + m_strip;
        }
        if (m_panels.empty()) {
            addFrame(top);
            addText(m_svg, (LEFT + RIGHT) / 2, top + m_panelHeight / 2, "Nenhuma chamada", "middle");
        }
        addTimeLabels(bottom);
        addDurationTitle((TOP + bottom) / 2);
        return result;
    }

  private:
    static Panels panelsOf(const std::vector<Exchange>& exchanges) {
        Panels panels;
        for (const Exchange& exchange : exchanges) panels[exchange.operation].push_back(&exchange);
        return panels;
    }

    static pugi::xml_node addRoot(pugi::xml_document& document, int height) {
        auto declaration = document.append_child(pugi::node_declaration);
        declaration.append_attribute("version") = "1.0";
        declaration.append_attribute("encoding") = "UTF-8";
        auto svg = document.append_child("svg");
        svg.append_attribute("xmlns") = "http://www.w3.org/2000/svg";
        svg.append_attribute("width") = WIDTH;
        svg.append_attribute("height") = height;
        svg.append_attribute("viewBox") =
            ("0 0 " + std::to_string(WIDTH) + " " + std::to_string(height)).c_str();
        svg.append_attribute("font-family") = "sans-serif";
        svg.append_attribute("font-size") = 12;
        svg.append_attribute("fill") = INK;
        auto background = svg.append_child("rect");
        background.append_attribute("width") = WIDTH;
        background.append_attribute("height") = height;
        background.append_attribute("fill") = "#ffffff";
        return svg;
    }

    void addHeader() {
        auto title = addText(m_svg, LEFT, 30, "Duração das chamadas ao equipamento fiscal", "start");
        title.append_attribute("font-size") = 18;
        title.append_attribute("font-weight") = "bold";
        constexpr int DISTANCE = 220, Y = 56;
        int x = LEFT + MARK;
        for (const Kind kind : {ANSWERED, FAILED, INCOMPLETE}) {
            addMark(addMarks(m_svg, kind), kind, x, Y - MARK);
            addText(m_svg, x + 12, Y, LOOKS[kind].meaning, "start");
            x += DISTANCE;
        }
        if (m_strip > 0) addText(m_svg, x, Y, std::string(UNKNOWN) + "  duração desconhecida", "start");
    }

    void addFrame(int top) {
        auto frame = m_svg.append_child("rect");
        frame.append_attribute("x") = LEFT;
        frame.append_attribute("y") = top;
        frame.append_attribute("width") = RIGHT - LEFT;
        frame.append_attribute("height") = m_panelHeight + m_strip;
        frame.append_attribute("fill") = "none";
        frame.append_attribute("stroke") = "#888888";
        for (const std::time_t time : m_time.ticks())
            addLine(m_svg, m_time.x(time), top, m_time.x(time), top + m_panelHeight + m_strip, FAINT);
        const int zero = top + m_panelHeight;
        for (const long seconds : m_duration.ticks()) {
            const int y = zero - m_duration.height(seconds);
            addLine(m_svg, LEFT, y, RIGHT, y, FAINT);
            addText(m_svg, LEFT - 6, y + 4, std::to_string(seconds), "end");
        }
        if (m_strip > 0) addText(m_svg, LEFT - 6, zero + m_strip, UNKNOWN, "end");
    }

    void addPanel(const std::string& operation, const Panel& panel, int top) {
        addFrame(top);
        std::array<std::size_t, KINDS> counts{};
        for (const Exchange* exchange : panel) ++counts[kindOf(*exchange)];
        auto caption =
            addText(m_svg, LEFT, top - 8, operation.empty() ? "Operação desconhecida" : operation, "start");
        caption.append_attribute("font-size") = 13;
        caption.append_attribute("font-weight") = "bold";
        addText(m_svg, RIGHT, top - 8,
                "chamadas: " + std::to_string(panel.size()) + ", falhas: " + std::to_string(counts[FAILED]) +
                    ", incompletas: " + std::to_string(counts[INCOMPLETE]),
                "end");
        for (const Kind kind : {ANSWERED, INCOMPLETE, FAILED})
            if (counts[kind] > 0) addMarksOf(kind, panel, top + m_panelHeight);
    }

    void addMarksOf(Kind kind, const Panel& panel, int zero) {
        auto group = addMarks(m_svg, kind);
        std::set<std::pair<int, int>> taken;
        for (const Exchange* exchange : panel) {
            if (kindOf(*exchange) != kind) continue;
            const auto duration = exchange->duration();
            const int x = m_time.x(exchange->time());
            const int y = duration ? zero - m_duration.height(*duration) : zero + m_strip - MARK - 1;
            if (!taken.insert({x / 2, y / 2}).second) continue;
            const std::string tip = timeText(exchange->time()) + ", sessão " + known(exchange->session) +
                                    ": " + statusText(*exchange) + ", " + durationText(duration);
            addMark(group, kind, x, y).append_child("title").text() = tip.c_str();
        }
    }

    void addTimeLabels(int bottom) {
        for (const std::time_t time : m_time.ticks()) {
            const int x = m_time.x(time);
            if (m_time.showsHours()) addText(m_svg, x, bottom + 32, timeText(time, "%H:%M"), "middle");
            addText(m_svg, x, bottom + 18, timeText(time, "%Y-%m-%d"), "middle");
        }
        addText(m_svg, (LEFT + RIGHT) / 2, bottom + 54, "Data e hora do início", "middle");
    }

    void addDurationTitle(int y) {
        auto title = addText(m_svg, 0, 0, "Duração (s), escala logarítmica", "middle");
        title.append_attribute("transform") = ("translate(22 " + std::to_string(y) + ") rotate(-90)").c_str();
    }

    Panels m_panels;
    int m_panelHeight;
    int m_strip;  ///< 0 where all durations are known
    TimeAxis m_time;
    DurationAxis m_duration;
    pugi::xml_node m_svg;
};

}  // namespace

pugi::xml_document picture(const std::vector<Exchange>& exchanges) { return Drawing(exchanges).document(); }

}  // namespace logs
