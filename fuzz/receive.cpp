// A whole `receive_data` on a line that the input plays. Its first character chooses the timeout; each
// further one is a step of the script:
//
//     a key of FRAMES   its bytes come           /   the read ends, and another begins
//     "..."             these bytes come         !   the read ends, and the next one fails
//     0 to 7            the clock goes 10^n ms   q   the read ends, and the next 499 bring nothing
//     <                 ... back                 any other character comes as it is
//
// Status, answer, number of reads and the port must be those of a plain reading of the rules.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

#include "fiscora.h"
#include "link/SerialCommChannel.h"
#include "platform.h"
#include "require.h"

namespace {

using Script = std::deque<FakeLine::Reading>;

constexpr std::size_t MAX_SCRIPT_BYTES = 100;  // times 10^7 ms stays below 2^31
constexpr std::array<int, 4> TIMEOUTS_MS = {500, 2'000, 10'000, 60'000};

constexpr char CODE[] = "ConsultarSAT";
constexpr std::size_t READ_BYTES = 8192;
constexpr long AFTER_SEND_MS = 100;
constexpr long SILENCE_MS = 100;
constexpr long LONG_SILENCE_MS = 10'000;  // so that most scripts need not 500 reads to their end
constexpr int MAX_EMPTY_READS = 500;
constexpr int MAX_RESTARTS = 5;

std::map<char, std::string> makeFrames() {
    const auto compressed = [](const std::string& body) {
        pbs::Message message(CODE, "9");
        message.setBody(body);
        message.compress();
        return message;
    };
    pbs::Message good(CODE, "9"), other("ConsultarSat", "9"), empty(CODE, "9"), corrupt = compressed("");
    for (auto* message : {&good, &other, &corrupt}) message->setBody("123456|08000|SAT em uso|");
    corrupt.addHeader(pbs::HDR_CONTENT_TYPE, pbs::HDR_CONTENT_COMPRESSED);
    empty.setBody("");
    const std::string text = good.toString();
    return {{'g', text},
            {'b', text.substr(0, 99)},                     // the beginning of it
            {'r', text.substr(99)},                        // the rest
            {'d', text.substr(0, text.size() - 1) + "?"},  // a damaged body
            {'h', "smx\r\n?\r\n\r\n\r\n"},                 // a bad head
            {'c', corrupt.toString()},                     // does not inflate
            {'e', empty.toString()},
            {'o', other.toString()},
            {'z', compressed(text).toString()},
            {'L', compressed(std::string(FISCORA_ANSWER_MAX_BYTES, 'x')).toString()},
            {'M', compressed(std::string(FISCORA_ANSWER_MAX_BYTES + 1, 'x')).toString()}};
}
const std::map<char, std::string> FRAMES = makeFrames();

Script readScript(const std::string& text) {
    Script script(1);
    bool quoted = false;
    long direction = 1;
    for (const char step : text) {
        FakeLine::Reading& reading = script.back();
        if (step == '"') {
            quoted = !quoted;
        } else if (quoted) {
            reading.bytes += step;
        } else if (step == '/') {
            script.emplace_back();
        } else if (step == '!') {
            script.push_back({"", -1});
            script.emplace_back();
        } else if (step == '<') {
            direction = -1;
        } else if (step >= '0' && step <= '7') {
            long ms = direction;
            for (char digit = '0'; digit < step; ++digit) ms *= 10;
            reading.afterMs += ms;
            direction = 1;
        } else if (step == 'q' && script.size() < MAX_EMPTY_READS) {  // one is enough, and takes its time
            script.insert(script.end(), MAX_EMPTY_READS - 1, {"", 0, SILENCE_MS});
            script.emplace_back();
        } else if (const auto frame = FRAMES.find(step); frame != FRAMES.end()) {
            reading.bytes += frame->second;
        } else {
            reading.bytes += step;
        }
    }
    script.insert(script.end(), TIMEOUTS_MS.back() / LONG_SILENCE_MS + 1, {"", 0, LONG_SILENCE_MS});
    return script;
}

/// The next of the readings of the line, as one read gives it; silence behind the last.
FakeLine::Reading nextRead(Script& script) {
    if (script.empty()) return {"", 0, SILENCE_MS};
    FakeLine::Reading read = script.front();
    script.pop_front();
    if (read.bytes.size() <= READ_BYTES) return read;
    script.push_front({read.bytes.substr(READ_BYTES)});
    read.bytes.resize(READ_BYTES);
    return read;
}

struct Exchange {
    int status;
    pbs::Message answer;  ///< as given, if none was accepted
    long reads = 0;
    bool open = true;

    bool operator==(const Exchange& other) const {
        return status == other.status && answer == other.answer && reads == other.reads && open == other.open;
    }
};

/// The exchange by the rules in docs/protocol.md, a byte at a time.
Exchange plainExchange(Script script, int timeoutMs) {
    Exchange exchange{FISCORA_STATUS_NO_ANSWER, {}};
    pbs::Message message;
    long elapsedMs = AFTER_SEND_MS;
    int refused = 0, emptyReads = 0;
    for (;;) {
        const FakeLine::Reading read = nextRead(script);
        ++exchange.reads;
        elapsedMs += read.afterMs;
        auto result = pbs::Message::PARSER_IN_PROGRESS;
        for (const char byte : read.bytes) {
            result = message.parse(&byte, 1, nullptr);
            if (result != pbs::Message::PARSER_MESSAGE_READY) continue;
            if (message.isCompressed()) message.uncompress();
            if (message.code() == CODE && message.bodySize() <= FISCORA_ANSWER_MAX_BYTES) {
                exchange.status = FISCORA_STATUS_OK;
                exchange.answer = message;
                continue;
            }
            exchange.status = FISCORA_STATUS_REFUSED;
            if (++refused > MAX_RESTARTS) continue;
            elapsedMs = 0;
            result = pbs::Message::PARSER_IN_PROGRESS;
        }
        emptyReads = read.bytes.empty() ? emptyReads + 1 : 0;
        exchange.open = emptyReads < MAX_EMPTY_READS;
        const bool failed = read.bytes.empty() && read.result < 0;
        const bool waits = result == pbs::Message::PARSER_IN_PROGRESS && elapsedMs <= timeoutMs;
        if (failed || (waits && !exchange.open))
            exchange.status = FISCORA_STATUS_READ_ERROR;
        else if (waits)
            continue;
        else if (elapsedMs >= timeoutMs)
            exchange.status = FISCORA_STATUS_TIMEOUT;
        return exchange;
    }
}

/// Keeps the library's log from the disk: while it lives, the working directory is one that takes no files.
class WithoutLog {
  public:
    WithoutLog() { require(chdir("/proc") == 0, "there is a /proc"); }
    WithoutLog(const WithoutLog&) = delete;
    WithoutLog& operator=(const WithoutLog&) = delete;
    ~WithoutLog() { require(fchdir(m_before) == 0, "the working directory is there"); }

  private:
    inline static const int m_before = open(".", O_PATH | O_DIRECTORY);
};

Exchange libraryExchange(Script script, int timeoutMs) {
    const WithoutLog withoutLog;
    FakeLine line;
    line.readings = std::move(script);
    Exchange exchange{};
    {
        serial::SerialCommChannel channel;
        require(channel.openSerial("/dev/ttyACM0") == 0, "the port opens");
        pbs::Message command(CODE, "3");
        require(channel.send_data(command) > 0, "the command is sent");
        exchange.status = channel.receive_data(CODE, exchange.answer, timeoutMs);
        exchange.open = line.open;
        require(line.calls.back() == (line.open ? "tcflush 1000 2" : "tcflush -1 2"), "the line is emptied");
    }
    require(!line.open, "the port is closed in the end");
    exchange.reads = std::count(line.calls.begin(), line.calls.end(), "read 8192");
    return exchange;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0 || size > MAX_SCRIPT_BYTES) return -1;
    const int timeoutMs = TIMEOUTS_MS[bytes[0] % TIMEOUTS_MS.size()];
    const std::string steps(bytes + 1, bytes + size);
    if (steps.find_first_of("LM", 1) != std::string::npos)
        return -1;  // it takes milliseconds: first or not at all
    const Script script = readScript(steps);

    const Exchange exchange = libraryExchange(script, timeoutMs);
    require(exchange.answer == pbs::Message() ||
                (exchange.answer.code() == CODE && exchange.answer.bodySize() <= FISCORA_ANSWER_MAX_BYTES),
            "no other answer and none too large is accepted");
    require(exchange == plainExchange(script, timeoutMs), "status, answer, reads and port are by the rules");
    return 0;
}
