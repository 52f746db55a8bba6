#include "sim/FrameTrace.h"

#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>
#include <string>

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

void FrameTrace::request(const pbs::Message& message) { frame("-->", message, !m_showSecrets); }

void FrameTrace::answer(const pbs::Message& message) { frame("<--", message, false); }

void FrameTrace::note(std::string_view text) {
    m_out << timeOfDay() + "     " + visible(text) + "\n" << std::flush;
}

void FrameTrace::frame(std::string_view direction, const pbs::Message& message, bool hideSecrets) {
    const std::string code = message.code();
    std::string head = message.headers();
    std::string text = timeOfDay() + " " + std::string(direction) + " " + visible(code) + ", " +
                       std::to_string(head.size() + message.bodySize()) + " bytes\n";
    for (std::size_t start = 0, end = 0; (end = head.find("\r\n", start)) != std::string::npos;
         start = end + 2) {
        if (end > start) text += "    " + visible(head.substr(start, end - start)) + "\n";
    }

    pbs::Message plain(message);
    if (plain.isCompressed()) plain.uncompress();
    text += "    | ";
    const std::string& body = plain.body();
    std::size_t field = 0;
    for (std::size_t start = 0, end = 0; start <= body.size(); start = end + 1, ++field) {
        end = std::min(body.find('|', start), body.size());
        const bool hidden = hideSecrets && SimulatedDevice::isSecret(code, field);
        text += hidden ? "***" : shortened(std::string_view(body).substr(start, end - start));
        if (end < body.size()) text += '|';
    }
    m_out << text + "\n" << std::flush;
}

}  // namespace sim
