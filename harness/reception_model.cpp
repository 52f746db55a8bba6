#include "reception_model.h"

#include <algorithm>
#include <ostream>

#include "link/SerialCommChannel.h"

namespace {

constexpr std::size_t READ_BYTES = 8192;
constexpr long SILENCE_MS = 100;
constexpr int MAX_FAILURES = 500;
constexpr int MAX_RESTARTS = 5;

using Script = std::deque<FakeLine::Reading>;

/// The result of the next read.
FakeLine::Reading nextRead(Script& script) {
    if (script.empty()) return {"", 0, SILENCE_MS};
    FakeLine::Reading read = script.front();
    script.pop_front();
    if (read.bytes.size() <= READ_BYTES) return read;
    script.push_front({read.bytes.substr(READ_BYTES)});
    read.bytes.resize(READ_BYTES);
    return read;
}

}  // namespace

std::string logEvents(const std::vector<std::string>& lines) {
    static const std::map<std::string, char> events = {
        {"info, [SerialCommChannel::send_data] Enviado com sucesso", 's'},
        {"info, [SerialCommChannel::send_data] Falha no envio.", 'f'},
        {"info, [SerialCommChannel::receive_data] __NOERROR__", 'A'},
        {"info, Comando invalido", 'R'},
        {"info, Reinicio do timeout", 'r'},
        {"error, [SerialCommChannel::receive_data] PARSER_SYNTAX_ERROR", 'S'},
        {"error, [SerialCommChannel::receive_data] PARSER_CHECKSUM_ERROR", 'C'},
        {"error,  [SerialCommChannel::receive_data] __READERROR__", 'E'},
        {"error,  [SerialCommChannel::receive_data] __TIMEOUT__", 'T'}};
    std::string result;
    for (const auto& line : lines) result += events.count(line) > 0 ? events.at(line) : '.';
    return result;
}

bool operator==(const Reception& one, const Reception& other) {
    return one.status == other.status && one.answer == other.answer && one.reads == other.reads &&
           one.open == other.open && one.endMs == other.endMs && one.events == other.events;
}

std::ostream& operator<<(std::ostream& stream, const Reception& reception) {
    return stream << "status " << reception.status << ", answer of " << reception.answer.bodySize()
                  << " bytes \"" << reception.answer.body().substr(0, 30) << "\", " << reception.reads
                  << " reads, port " << (reception.open ? "open" : "closed") << " after " << reception.endMs
                  << " ms, log " << reception.events;
}

Reception expectedReception(Script script, const std::string& command, int timeoutMs, std::int64_t elapsedMs,
                            int failures) {
    Reception reception;
    reception.endMs = elapsedMs;
    pbs::Message message;
    std::int64_t startMs = 0;
    int refused = 0;
    for (;;) {
        const FakeLine::Reading read = nextRead(script);
        ++reception.reads;
        reception.endMs += read.afterMs;
        auto result = pbs::Message::PARSER_IN_PROGRESS;
        for (const char byte : read.bytes) {
            result = message.parse(&byte, 1, nullptr);
            if (result == pbs::Message::PARSER_SYNTAX_ERROR) reception.events += 'S';
            if (result == pbs::Message::PARSER_CHECKSUM_ERROR) reception.events += 'C';
            if (result != pbs::Message::PARSER_MESSAGE_READY) continue;
            if (message.isCompressed()) message.uncompress();
            if (message.code() == command && message.bodySize() <= FISCORA_ANSWER_MAX_BYTES) {
                reception.status = FISCORA_STATUS_OK;
                reception.answer = message;
                reception.events += 'A';
                continue;
            }
            reception.status = FISCORA_STATUS_REFUSED;
            reception.events += 'R';
            if (++refused > MAX_RESTARTS) continue;
            startMs = reception.endMs;
            reception.events += 'r';
            result = pbs::Message::PARSER_IN_PROGRESS;
        }
        failures = read.bytes.empty() ? failures + 1 : 0;
        reception.open = failures < MAX_FAILURES;
        const bool failed = read.bytes.empty() && read.result < 0;
        const std::int64_t waitedMs = reception.endMs - startMs;
        const bool waits = result == pbs::Message::PARSER_IN_PROGRESS && waitedMs <= timeoutMs;
        if (failed || (waits && !reception.open)) {
            reception.status = FISCORA_STATUS_READ_ERROR;
            reception.events += 'E';
        } else if (waits) {
            continue;
        } else if (waitedMs >= timeoutMs) {
            reception.status = FISCORA_STATUS_TIMEOUT;
            reception.events += 'T';
        }
        return reception;
    }
}

JudgedReception receive(FakeLine& line, const std::string& command, int timeoutMs) {
    const Script script = line.readings;
    const std::int64_t startMs = line.nowMs();
    serial::SerialCommChannel channel;
    channel.openSerial("/dev/ttyACM0");
    pbs::Message request(command, "3");
    const int failures = channel.send_data(request) < 0 ? 1 : 0;
    const std::int64_t elapsedMs = line.nowMs() - startMs;

    Reception seen;
    seen.status = channel.receive_data(command.c_str(), seen.answer, timeoutMs);
    seen.reads = std::count(line.calls.begin(), line.calls.end(), "read " + std::to_string(READ_BYTES));
    seen.open = line.open;
    seen.endMs = line.nowMs() - startMs;
    return {seen, expectedReception(script, command, timeoutMs, elapsedMs, failures)};
}
