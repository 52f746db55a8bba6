#include "sim/FrameTrace.h"

#include <sys/time.h>

#include <array>
#include <cstdio>
#include <ostream>
#include <string>

#include "fields.h"
#include "local_time.h"
#include "protocol/Message.h"
#include "sim/SimulatedDevice.h"
#include "terminal_text.h"

namespace sim {
namespace {

constexpr std::size_t LONG_FIELD = 200;  // bytes; a longer one is shortened to its start
constexpr std::size_t SHOWN_START = 80;

std::string timeOfDay() {
    timeval now{};
    gettimeofday(&now, nullptr);
    std::array<char, 16> milliseconds{};
    std::snprintf(milliseconds.data(), milliseconds.size(), ".%03d", static_cast<int>(now.tv_usec / 1000));
    return localTimeText("%H:%M:%S", now.tv_sec) + milliseconds.data();
}

/// `text` with its control characters as \xHH, so that no frame can play tricks on the terminal.
std::string visible(std::string_view text) {
    return tool::withoutControls(text, [](std::string_view bytes) {
        std::string result;
        for (const char byte : bytes) {
            std::array<char, 8> escape{};
            std::snprintf(escape.data(), escape.size(), "\\x%02X", static_cast<unsigned char>(byte));
            result += escape.data();
        }
        return result;
    });
}

std::string shortened(std::string_view field) {
    if (field.size() <= LONG_FIELD) return visible(field);
    std::size_t end = SHOWN_START;
    while ((static_cast<unsigned char>(field[end]) & 0xC0U) == 0x80U && end > 0)
        --end;  // not inside a UTF-8 character
    return visible(field.substr(0, end)) + "... (" + std::to_string(field.size()) + " bytes)";
}

}  // namespace

void FrameTrace::request(const pbs::Message& message) { frame("-->", message, m_secrets); }

void FrameTrace::answer(const pbs::Message& message) { frame("<--", message, Secrets::Shown); }

void FrameTrace::note(std::string_view text) {
    m_out << timeOfDay() + "     " + visible(text) + "\n" << std::flush;
}

void FrameTrace::frame(std::string_view direction, const pbs::Message& message, Secrets secrets) {
    const std::string code = message.code();
    const std::string head = message.headers();
    std::string text = timeOfDay() + " " + std::string(direction) + " " + visible(code) + ", " +
                       std::to_string(head.size() + message.bodySize()) + " bytes\n";
    for (const auto line : fieldsOf(head, '\n'))
        if (line.size() > 1)
            text += "    " + visible(line.substr(0, line.size() - 1)) + "\n";  // without its CR

    pbs::Message plain(message);
    if (plain.isCompressed()) plain.uncompress();
    const auto fields = fieldsOf(plain.body());
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const bool isHidden = secrets == Secrets::Hidden && SimulatedDevice::isSecret(code, i);
        text += (i == 0 ? "    | " : "|") + (isHidden ? "***" : shortened(fields[i]));
    }
    m_out << text + "\n" << std::flush;
}

}  // namespace sim
