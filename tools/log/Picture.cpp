#include "log/Picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "i18n.h"
#include "log/Report.h"
#include "terminal_text.h"

namespace logs {
namespace {

using tool::tr;
using tool::translatable;

// In pixels.
constexpr int WIDTH = 1000, LEFT = 70, RIGHT = 955;
constexpr int TOP = 70;      ///< title and legend
constexpr int CAPTION = 34;  ///< above each panel
constexpr int BOTTOM = 64;   ///< the axis of time
constexpr int PANELS_HEIGHT = 320, LEAST_PANEL_HEIGHT = 90;
constexpr int UNKNOWN_STRIP = 16;  ///< below a panel's zero, for what has no duration
constexpr int MARK = 4;            ///< half the size of one
constexpr int TICK_DISTANCE = 14;  ///< between labels, one above the other, at least
constexpr int MAX_TIME_TICKS = 9;

constexpr char INK[] = "#222222", FAINT[] = "#d8d8d8";

/// In the order of Outcome.
struct Look {
    const char* fill;
    const char* stroke;
    const char* shape;  ///< path from the mark's middle; null for a dot
    const char* meaning;
};
constexpr std::array<Look, OUTCOMES> LOOKS = {{
    {"#2b6cb0", "none", nullptr, translatable("ok")},
    {"#ffd23f", "#7a4b00", "m0 -5l5 9l-10 0z", translatable("refused by the device")},
    {"none", "#c11f1f", "m-4 -4l8 8m0 -8l-8 8", translatable("failed (status other than OK)")},
    {"#ffffff", "#6b6b6b", "m0 -4l4 4l-4 4l-4 -4z", translatable("no end in the log")},
}};
constexpr Outcome LEGEND[] = {Outcome::Ok, Outcome::Refused, Outcome::Failed, Outcome::Incomplete};
// What matters most lies on top.
constexpr Outcome DRAWING_ORDER[] = {Outcome::Ok, Outcome::Incomplete, Outcome::Refused, Outcome::Failed};

const Look& lookOf(Outcome outcome) { return LOOKS[static_cast<std::size_t>(outcome)]; }

using Panel = std::vector<const Exchange*>;
using Panels = std::map<std::string, Panel, GroupOrder>;

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

/// What the marks of one outcome in one panel have in common.
pugi::xml_node addMarks(pugi::xml_node parent, Outcome outcome) {
    auto group = parent.append_child("g");
    group.append_attribute("fill") = lookOf(outcome).fill;
    group.append_attribute("stroke") = lookOf(outcome).stroke;
    group.append_attribute("stroke-width") = outcome == Outcome::Refused ? 1 : 2;
    return group;
}

/// Each outcome has a shape of its own, for readers who cannot tell the colours apart.
pugi::xml_node addMark(pugi::xml_node group, Outcome outcome, int x, int y) {
    const char* const shape = lookOf(outcome).shape;
    auto mark = group.append_child(shape == nullptr ? "circle" : "path");
    if (shape == nullptr) {
        mark.append_attribute("cx") = x;
        mark.append_attribute("cy") = y;
        mark.append_attribute("r") = MARK - 1;
    } else {
        mark.append_attribute("d") = ("M" + point(x, y) + shape).c_str();
    }
    return mark;
}

class TimeAxis {
  public:
    explicit TimeAxis(const std::vector<Exchange>& exchanges) {
        if (exchanges.empty()) return;
        const auto [first, last] =
            std::minmax_element(exchanges.begin(), exchanges.end(),
                                [](const Exchange& a, const Exchange& b) { return a.time() < b.time(); });
        // No mark touches the border; a single one is in the middle.
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

    /// None if there is nothing to show.
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

/// Durations run from a second to half an hour, so the scale is logarithmic. It shows the duration plus one
/// second, because some are 0.
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

    /// As many as there is room for.
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
        for (const auto& [group, panel] : m_panels) {
            addPanel(group, panel, top);
            top += CAPTION + m_panelHeight + m_strip;
        }
        if (m_panels.empty()) {
            addFrame(top);
            addText(m_svg, (LEFT + RIGHT) / 2, top + m_panelHeight / 2, tr("No calls"), "middle");
        }
        addTimeLabels(bottom);
        addDurationTitle((TOP + bottom) / 2);
        return result;
    }

  private:
    static Panels panelsOf(const std::vector<Exchange>& exchanges) {
        Panels panels;
        for (const Exchange& exchange : exchanges) panels[groupOf(exchange)].push_back(&exchange);
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
        auto title = addText(m_svg, LEFT, 30, tr("Duration of the calls to the fiscal device"), "start");
        title.append_attribute("font-size") = 18;
        title.append_attribute("font-weight") = "bold";
        constexpr int Y = 56, AROUND = 40, CHARACTER = 7;
        int x = LEFT + MARK;
        for (const Outcome outcome : LEGEND) {
            const std::string meaning = tr(lookOf(outcome).meaning);
            addMark(addMarks(m_svg, outcome), outcome, x, Y - MARK);
            addText(m_svg, x + 12, Y, meaning, "start");
            x += AROUND + CHARACTER * static_cast<int>(tool::width(meaning));
        }
        if (m_strip > 0) addText(m_svg, x, Y, std::string(UNKNOWN) + "  " + tr("duration unknown"), "start");
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

    void addPanel(const std::string& group, const Panel& panel, int top) {
        addFrame(top);
        std::array<std::size_t, OUTCOMES> counts{};
        const auto count = [&](Outcome outcome) -> std::size_t& {
            return counts[static_cast<std::size_t>(outcome)];
        };
        for (const Exchange* exchange : panel) ++count(exchange->outcome());
        auto caption = addText(m_svg, LEFT, top - 8, groupName(group), "start");
        caption.append_attribute("font-size") = 13;
        caption.append_attribute("font-weight") = "bold";
        addText(m_svg, RIGHT, top - 8,
                tool::filled(tr("calls: %zu, refused: %zu, failed: %zu, no end: %zu"), panel.size(),
                             count(Outcome::Refused), count(Outcome::Failed), count(Outcome::Incomplete)),
                "end");
        for (const Outcome outcome : DRAWING_ORDER)
            if (count(outcome) > 0) addMarksOf(outcome, panel, top + m_panelHeight);
    }

    void addMarksOf(Outcome outcome, const Panel& panel, int zero) {
        auto group = addMarks(m_svg, outcome);
        std::set<std::pair<int, int>> taken;
        for (const Exchange* exchange : panel) {
            if (exchange->outcome() != outcome) continue;
            const auto duration = exchange->duration();
            const int x = m_time.x(exchange->time());
            const int y = duration ? zero - m_duration.height(*duration) : zero + m_strip - MARK - 1;
            if (!taken.insert({x / 2, y / 2}).second) continue;
            std::string tip = tool::filled(tr("%s, session %s: %s, %s"), timeText(exchange->time()).c_str(),
                                           known(exchange->session).c_str(), resultText(*exchange).c_str(),
                                           durationText(duration).c_str());
            if (const std::string note = noteOn(*exchange); !note.empty()) tip += ": " + note;
            addMark(group, outcome, x, y).append_child("title").text() = tip.c_str();
        }
    }

    void addTimeLabels(int bottom) {
        for (const std::time_t time : m_time.ticks()) {
            const int x = m_time.x(time);
            if (m_time.showsHours()) addText(m_svg, x, bottom + 32, timeText(time, "%H:%M"), "middle");
            addText(m_svg, x, bottom + 18, timeText(time, "%Y-%m-%d"), "middle");
        }
        addText(m_svg, (LEFT + RIGHT) / 2, bottom + 54, tr("Date and time of the call"), "middle");
    }

    void addDurationTitle(int y) {
        auto title = addText(m_svg, 0, 0, tr("Duration (s), logarithmic scale"), "middle");
        title.append_attribute("transform") = ("translate(22 " + std::to_string(y) + ") rotate(-90)").c_str();
    }

    Panels m_panels;
    int m_panelHeight;
    int m_strip;  ///< 0 if all durations are known
    TimeAxis m_time;
    DurationAxis m_duration;
    pugi::xml_node m_svg;
};

}  // namespace

pugi::xml_document picture(const std::vector<Exchange>& exchanges) { return Drawing(exchanges).document(); }

}  // namespace logs
