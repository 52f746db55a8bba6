// A whole `receive_data` on a line that the input controls. Its first character chooses the timeout; each
// further one is a step of the script:
//
//     a key of FRAMES   its bytes arrive              /   the read ends, and another begins
//     "..."             these bytes arrive            !   the read ends, and the next one fails
//     0 to 7            the clock moves on 10^n ms    q   the read ends, and the next 499 bring nothing
//     <                 ... moves back                any other character arrives as it is
//
// Status, answer, number of reads, time and port must match the model of the reception.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

#include "reception_model.h"
#include "require.h"

namespace {

using Script = std::deque<FakeLine::Reading>;

constexpr std::size_t MAX_SCRIPT_BYTES = 100;  // times 10^7 ms stays below 2^31
constexpr std::array<int, 4> TIMEOUTS_MS = {500, 2'000, 10'000, 60'000};

constexpr char CODE[] = "ConsultarSAT";
constexpr long SILENCE_MS = 100;
constexpr long LONG_SILENCE_MS = 10'000;  // so that most scripts end before 500 reads
constexpr int MAX_EMPTY_READS = 500;

std::map<char, std::string> makeFrames() {
    pbs::Message good(CODE, "9"), other("ConsultarSat", "9"), empty(CODE, "9"),
        corrupt = compressedMessage(CODE, "");
    for (auto* message : {&good, &other, &corrupt}) message->setBody("123456|08000|SAT em uso|");
    corrupt.addHeader(pbs::HDR_CONTENT_TYPE, pbs::HDR_CONTENT_COMPRESSED);
    empty.setBody("");
    const std::string text = good.toString();
    return {{'g', text},
            {'b', text.substr(0, 99)},                     // its beginning
            {'r', text.substr(99)},                        // the rest
            {'d', text.substr(0, text.size() - 1) + "?"},  // a damaged body
            {'h', "smx\r\n?\r\n\r\n\r\n"},                 // a bad head
            {'c', corrupt.toString()},                     // does not inflate
            {'e', empty.toString()},
            {'o', other.toString()},
            {'z', compressedMessage(CODE, text).toString()},
            {'L', compressedMessage(CODE, std::string(FISCORA_ANSWER_MAX_BYTES, 'x')).toString()},
            {'M', compressedMessage(CODE, std::string(FISCORA_ANSWER_MAX_BYTES + 1, 'x')).toString()}};
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

/// Keeps the library's log off the disk: while it lives, the working directory takes no files.
class WithoutLog {
  public:
    WithoutLog() { require(chdir("/proc") == 0, "/proc exists"); }
    WithoutLog(const WithoutLog&) = delete;
    WithoutLog& operator=(const WithoutLog&) = delete;
    ~WithoutLog() { require(fchdir(m_before) == 0, "the working directory still exists"); }

  private:
    inline static const int m_before = open(".", O_PATH | O_DIRECTORY);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0 || size > MAX_SCRIPT_BYTES) return -1;
    const int timeoutMs = TIMEOUTS_MS[bytes[0] % TIMEOUTS_MS.size()];
    const std::string steps(bytes + 1, bytes + size);
    if (steps.find_first_of("LM", 1) != std::string::npos)
        return -1;  // it takes milliseconds, so it comes first or not at all
    const WithoutLog withoutLog;
    FakeLine line;
    line.readings = readScript(steps);
    auto [seen, expected] = receive(line, CODE, timeoutMs);
    expected.events.clear();  // nothing is logged

    require(seen.answer == pbs::Message() ||
                (seen.answer.code() == CODE && seen.answer.bodySize() <= FISCORA_ANSWER_MAX_BYTES),
            "no answer to another command is accepted, and none too large");
    require(seen == expected, "status, answer, reads, time and port match the model");
    require(!line.open, "the port is closed in the end");
    return 0;
}
