#include "sim/Fault.h"

#include <algorithm>

#include "fiscora.h"
#include "i18n.h"
#include "sim/SimulatedDevice.h"

namespace sim {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds BETWEEN_BYTES{1};

/// The library ignores five wrong answers and gives up at the sixth.
constexpr unsigned ONE_TOO_MANY = 6;
constexpr unsigned RESTART_SECONDS = 3;
constexpr unsigned LATE_SECONDS = 15;

constexpr std::size_t LONG_HEAD = 5000;                      // bytes; a reader takes 4097
constexpr std::size_t MISSING_BYTES = 100;                   // of a body, after what is sent
constexpr std::size_t BOMB = std::size_t{16} * 1024 * 1024;  // bytes; about 16 KiB on the line
constexpr char JUNK[] = "\x01\xfejunk\r\n";
/// A line like those of the log, then what clears a terminal's screen, DEL, and a C1 control in UTF-8.
constexpr char HOSTILE_TEXT[] =
    "\r\n[2026-01-01.00:00:00] - [info, txCode: EnviarDadosVenda txSessao:000000 txBufferSize:0]\r\n"
    "\x1b[2J\x7f\xc2\x9b";

std::string withHeader(pbs::Message answer, const std::string& key, const std::string& value) {
    answer.addHeader(key, value);
    return answer.toString();
}

/// `zlibStream`, which need not be one, as the body of a compressed answer whose head announces the sizes of
/// `answer`.
std::string withCompressedBody(pbs::Message answer, const std::string& zlibStream) {
    answer.setBody(zlibStream);
    answer.addHeader(pbs::HDR_CONTENT_TYPE, pbs::HDR_CONTENT_COMPRESSED);
    return answer.toString();
}

std::string compressed(const std::string& text) {
    pbs::Message message;
    message.setBody(text);
    message.compress();
    return message.body();
}

/// The frame, `count` times, then the device's own answer.
Transmission before(const Exchange& exchange, const std::string& frame, unsigned count) {
    Transmission line{std::vector<Piece>(count + 1, {frame, BETWEEN_ANSWERS})};
    line.pieces.front().before = milliseconds(0);
    line.pieces.back().bytes = exchange.answer.toString();
    return line;
}

Transmission only(const std::string& bytes) {
    Transmission line;
    line.pieces.push_back({bytes});
    return line;
}

std::string firstHalf(const Exchange& exchange) {
    const std::string frame = exchange.answer.toString();
    return frame.substr(0, frame.size() / 2);
}

Transmission silence(const Exchange& /*exchange*/) { return {}; }
Transmission silenceInAnswer(const Exchange& exchange) { return only(firstHalf(exchange)); }
Transmission hangUp(const Exchange& /*exchange*/) { return {{}, true}; }
Transmission hangUpInAnswer(const Exchange& exchange) {
    Transmission line = silenceInAnswer(exchange);
    line.hangUp = true;
    return line;
}

/// The device does the request, and then knows no more than a restart leaves.
std::string serveAndForget(SimulatedDevice& device, const std::string& operation,
                           const std::string& request) {
    std::string answer = answerOf(device, operation, request);
    device.forgetSessions();
    return answer;
}

Transmission restart(const Exchange& exchange) { return {{}, true, std::chrono::seconds(exchange.number)}; }

std::string refuseAsBusy(SimulatedDevice& device, const std::string& operation, const std::string& request) {
    return device.busyAnswer(operation, request);
}

Transmission unspoilt(const Exchange& exchange) { return only(exchange.answer.toString()); }

Transmission late(const Exchange& exchange) {
    Transmission line;
    line.pieces.push_back({exchange.answer.toString(), std::chrono::seconds(exchange.number)});
    line.held = true;
    return line;
}

Transmission wrongCode(const Exchange& exchange) {
    pbs::Message wrong(exchange.answer);
    wrong.setCode(wrong.code() == "ConsultarSAT" ? "ExtrairLogs" : "ConsultarSAT");
    return before(exchange, wrong.toString(), exchange.number);
}

Transmission tooLarge(const Exchange& exchange) {
    pbs::Message large(exchange.answer);
    large.setBody(std::string(FISCORA_ANSWER_MAX_BYTES + 1, 'x'));
    large.compress();
    return before(exchange, large.toString(), exchange.number);
}

Transmission badChecksum(const Exchange& exchange) {
    std::string frame = exchange.answer.toString();
    frame.back() = static_cast<char>(~frame.back());
    return only(frame);
}

Transmission badHead(const Exchange& exchange) {
    std::string frame = exchange.answer.toString();
    frame[frame.find(pbs::HDR_FIELD_SEPARATOR)] = '?';
    return only(frame);
}

Transmission longHead(const Exchange& exchange) {
    return only(withHeader(exchange.answer, "padding", std::string(LONG_HEAD, 'x')));
}

Transmission missingBytes(const Exchange& exchange) {
    const std::string size = std::to_string(exchange.answer.bodySize() + MISSING_BYTES);
    return only(withHeader(exchange.answer, pbs::HDR_CONTENT_SIZE, size));
}

Transmission negativeSize(const Exchange& exchange) {
    return only(withHeader(exchange.answer, pbs::HDR_CONTENT_SIZE, "-1"));
}

Transmission badBody(const Exchange& exchange) {
    std::string body = exchange.answer.body();
    body.back() = static_cast<char>(~body.back());  // of zlib's own checksum
    return only(withCompressedBody(exchange.answer, body));
}

Transmission bomb(const Exchange& exchange) {
    static const std::string body = compressed(std::string(BOMB, 'x'));
    return only(withCompressedBody(exchange.answer, body));
}

/// Place of field `field` (from 0) in the text of an answer.
std::size_t placeOf(std::size_t field, const std::string& text) {
    std::size_t place = 0;
    while (field-- > 0) place = text.find('|', place) + 1;
    return place;
}

std::string textOf(const Exchange& exchange) {
    pbs::Message answer(exchange.answer);
    if (answer.isCompressed()) answer.uncompress();
    return answer.body();
}

Transmission withText(const Exchange& exchange, const std::string& text) {
    pbs::Message answer(exchange.answer);
    answer.setBody(text);
    answer.compress();
    return only(answer.toString());
}

Transmission badCode(const Exchange& exchange) {
    std::string text = textOf(exchange);
    return withText(exchange, text.erase(placeOf(1, text), 1));
}

Transmission hostileFields(const Exchange& exchange) {
    std::string text = textOf(exchange);
    return withText(exchange,
                    text.insert(std::min(text.find('|', placeOf(2, text)), text.size()), HOSTILE_TEXT));
}

Transmission junkBefore(const Exchange& exchange) { return only(JUNK + exchange.answer.toString()); }
Transmission junkBehind(const Exchange& exchange) { return only(exchange.answer.toString() + JUNK); }

Transmission twoAnswers(const Exchange& exchange) {
    const std::string frame = exchange.answer.toString();
    return only(frame + frame);
}

Transmission previousAnswer(const Exchange& exchange) {
    return before(exchange, exchange.previousFrame, exchange.previousFrame.empty() ? 0 : 1);
}

Transmission byteByByte(const Exchange& exchange) {
    Transmission line;
    for (const char byte : exchange.answer.toString())
        line.pieces.push_back({std::string(1, byte), BETWEEN_BYTES});
    return line;
}

}  // namespace

std::string answerOf(SimulatedDevice& device, const std::string& operation, const std::string& request) {
    return device.answer(operation, request);
}

const std::vector<Fault>& faults() {
    using tool::translatable;
    static const std::vector<Fault> table{
        {"silence", nullptr, 0, 32768, Answer::None,
         translatable("no answer until the operation's timeout; if that is over 50 s, status 2 after 50 s"),
         translatable(
             "ask the device (ConsultarNumeroSessao) before you send a document again: it may have booked "
             "it"),
         silence},
        {"silence-in-answer", nullptr, 0, 32768, Answer::None,
         translatable("half of the answer; the call waits for the rest as in silence"),
         translatable("half an answer counts as none: the result stays empty"), silenceInAnswer},
        {"hang-up", nullptr, 0, 2, Answer::None,
         translatable("the line fails instead of the answer; the next call finds the device again"),
         translatable("the device has done its work anyway: ask it before you send a document again"),
         hangUp},
        {"hang-up-in-answer", nullptr, 0, 2, Answer::None,
         translatable("the line fails after half of the answer; the next call finds the device again"),
         translatable("same as hang-up; the half that arrived is lost"), hangUpInAnswer},
        {"restart", translatable("SECONDS"), RESTART_SECONDS, 2, Answer::None,
         translatable(
             "the device restarts before it answers; for SECONDS (default 3) no call reaches it (status 1)"),
         translatable("it has booked the document but forgotten the session: compare the last document that "
                      "ConsultarStatusOperacional shows with the one before"),
         restart, serveAndForget},
        {"late", translatable("SECONDS"), LATE_SECONDS, 32768, Answer::Late,
         translatable(
             "the answer comes SECONDS after the request (default 15), or right before the next answer; a "
             "call with a longer timeout gets it"),
         translatable(
             "after a timeout, the next call can get the answer to this one: compare field 0 with your session "
             "number"),
         late},
        {"busy", nullptr, 0, 0, Answer::Busy,
         translatable("the device does nothing and answers that it is busy: EEEEE ends in 098"),
         translatable("try again later; the device has neither booked nor refused the document"), unspoilt,
         refuseAsBusy},
        {"refused-write", nullptr, 0, 2, Answer::None,
         translatable(
             "the line fails at the first bytes of the request; the rest of a large request is refused"),
         translatable(
             "it looks like hang-up, but the device never got the request: ask it which of the two it was"),
         nullptr},
        {"wrong-code", translatable("COUNT"), ONE_TOO_MANY, 4, Answer::None,
         translatable(
             "COUNT answers to another command (default 6), then the right one; up to 5 are ignored and "
             "the status is 0"),
         translatable("each ignored answer restarts the timeout: a call can last six times as long"),
         wrongCode},
        {"too-large", translatable("COUNT"), ONE_TOO_MANY, 4, Answer::None,
         translatable(
             "COUNT answers of 1,572,865 bytes, one byte too many, then the right one; otherwise the same "
             "as wrong-code"),
         translatable("an answer is never cut: you get all of it or nothing"), tooLarge},
        {"bad-checksum", nullptr, 0, 1, Answer::None,
         translatable("no answer: its checksum is wrong; the call ends at once"),
         translatable(
             "status 1 does not only mean that no device was found: ask it before you send a document again"),
         badChecksum},
        {"bad-head", nullptr, 0, 32768, Answer::None,
         translatable("no answer: a line in its head has no \":\"; the call waits as in silence"),
         translatable(
             "a device that answers can seem silent; on a slow line, where a read can end there, the "
             "status can be 1"),
         badHead},
        {"long-head", nullptr, 0, 32768, Answer::None,
         translatable("no answer: its head has more than 4097 bytes; the call waits as in silence"),
         translatable("same as bad-head"), longHead},
        {"negative-size", nullptr, 0, 32768, Answer::None,
         translatable("no answer: its head announces -1 bytes; the call waits as in silence"),
         translatable("same as bad-head"), negativeSize},
        {"missing-bytes", nullptr, 0, 32768, Answer::None,
         translatable(
             "no answer: its head announces more bytes than arrive; the call waits for them as in silence"),
         translatable("same as silence-in-answer"), missingBytes},
        {"bad-body", nullptr, 0, 0, Answer::Compressed,
         translatable("the answer cannot be decompressed; the result is its compressed bytes"),
         translatable(
             "status 0 is not enough: check that field 0 is your session number and field 1 has five digits"),
         badBody},
        {"bomb", nullptr, 0, 0, Answer::Compressed,
         translatable(
             "16 KiB that would inflate to 16 MiB, more than announced; the result is the compressed bytes"),
         translatable("same as bad-body"), bomb},
        {"bad-code", nullptr, 0, 0, Answer::BadCode,
         translatable("the answer's EEEEE lacks its first digit, as 6000 for 06000"),
         translatable(
             "such an answer proves nothing: ask the device (ConsultarNumeroSessao) whether it has booked the "
             "document"),
         badCode},
        {"hostile-fields", nullptr, 0, 0, Answer::Hostile,
         translatable("the answer's text has line breaks and control characters"),
         translatable("mask them before you show text from the device on a screen or write it to a log"),
         hostileFields},
        {"junk-before", nullptr, 0, 0, Answer::Own, translatable("stray bytes before the answer are skipped"),
         translatable("nothing to do"), junkBefore},
        {"junk-behind", nullptr, 0, 32768, Answer::Own,
         translatable(
             "stray bytes right after the answer: it is the result, but the call keeps waiting as in "
             "silence"),
         translatable("look at the result after a timeout too; on a slow line the status can be 0"),
         junkBehind},
        {"two-answers", nullptr, 0, 0, Answer::Own,
         translatable("the answer comes twice at once; the result has it once"),
         translatable("nothing to do"), twoAnswers},
        {"previous-answer", nullptr, 0, 0, Answer::Previous,
         translatable(
             "the answer to the previous exchange comes first, and is the result if both are of the same "
             "operation"),
         translatable(
             "compare field 0 with your session number (the first exchange comes after no other and is "
             "right)"),
         previousAnswer},
        {"byte-by-byte", nullptr, 0, 0, Answer::Own,
         translatable("the answer comes byte by byte, about a thousand per second"),
         translatable("nothing to do; a large answer (a log) can take longer than the operation's timeout"),
         byteByByte},
    };
    return table;
}

const Fault* findFault(std::string_view name) {
    const auto found = std::find_if(faults().begin(), faults().end(),
                                    [&](const Fault& fault) { return fault.name == name; });
    return found == faults().end() ? nullptr : &*found;
}

}  // namespace sim
