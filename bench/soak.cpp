// Thousands of calls of the library's flat functions in one process, as many as a till makes in months.
// A simulated device answers, the faults of `fiscora sim` and of the line strike at random, days pass, and
// the real tar archives the logs. The line is a stand-in, and the clock moves only when the library waits, so
// a timeout costs nothing. After each call its status, answer and time are compared with the model of the
// reception, and the request that reached the device and the open descriptors are checked; at the end, the
// logs and the memory.
//
//     soak [--exchanges N] [--seed S]
//
// The seed, printed first, repeats a run. Exit status 1 at the first difference.

#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Random.h"
#include "encoding/Base64.h"
#include "fiscal/operations.h"
#include "fiscora.h"
#include "local_time.h"
#include "platform.h"
#include "reception_model.h"
#include "sim/Fault.h"
#include "sim/SimulatedDevice.h"
#include "surroundings.h"
#include "transaction/DoTransaction.h"

namespace {

constexpr char CODE[] = "12345678";

// What the library promises.
constexpr long CLOSED_PAUSE_MS = 1'000;  ///< for closing a port that is already closed
constexpr std::size_t MAX_LOGS = 7;      ///< files, once a day has begun

constexpr long READ_MS = 100;                     ///< of a read that brings nothing
constexpr std::time_t FIRST_DAY = 1'795'046'400;  ///< 2026-11-19, 0 o'clock
constexpr long SECONDS_OF_DAY = 86'400;

/// A call of a flat function.
struct Call {
    std::string operation;
    std::string request;  ///< what must reach the device
    std::function<const char*()> make;
};

std::string textOf(int number) { return std::to_string(number); }
std::string textOf(const std::string& text) { return text; }
int argumentOf(int number) { return number; }
const char* argumentOf(const std::string& text) { return text.c_str(); }

/// Requires a session of six digits, and numbers without leading zeros in the request.
template <typename... Parameters, typename... Arguments>
Call callOf(const char* operation, char* (*function)(int, Parameters...), int session,
            const Arguments&... arguments) {
    std::string request = std::to_string(session);
    ((request += "|" + textOf(arguments)), ...);
    return {operation, request, [=] { return function(session, argumentOf(arguments)...); }};
}

/// A sale of about `size` bytes; of exactly as many if it is the largest.
std::string saleOf(Random& random, int bytes) {
    const auto size = static_cast<std::size_t>(bytes);
    constexpr std::size_t LARGEST = FISCORA_ANSWER_MAX_BYTES;
    const std::string end = "</infCFe></CFe>";
    std::string sale = "<CFe><infCFe><emit><CNPJ>14200166000166</CNPJ></emit>";
    do {
        sale += "<det><prod><cProd>" + random.digits(13) + "</cProd><qCom>" + random.digits(2) +
                ".0000</qCom><vUnCom>" + random.digits(3) + ".50</vUnCom></prod></det>";
    } while (sale.size() < size && sale.size() + 200 < LARGEST);
    sale += end;
    if (size == LARGEST) sale.resize(LARGEST, '\n');
    return sale;
}

Call anyCall(Random& random, int saleBytes) {
    const int session = random.number(100'000, 999'999);
    const std::string code = CODE;
    const std::string text = random.digits(random.number(0, 1000));
    const bool large = saleBytes == FISCORA_ANSWER_MAX_BYTES;
    switch (random.number(0, large ? 1 : 14)) {
        case 0: return callOf("EnviarDadosVenda", EnviarDadosVenda, session, code, saleOf(random, saleBytes));
        case 1: return callOf("TesteFimAFim", TesteFimAFim, session, code, saleOf(random, saleBytes));
        case 2: return callOf("AtivarSAT", AtivarSAT, session, 1, code, random.digits(14), 35);
        case 3:
            return callOf("ComunicarCertificadoICPBRASIL", ComunicarCertificadoICPBRASIL, session, code,
                          text);
        case 4:
            return callOf("CancelarUltimaVenda", CancelarUltimaVenda, session, code, random.digits(44), text);
        case 5: return callOf("ConsultarStatusOperacional", ConsultarStatusOperacional, session, code);
        case 6: {
            const int asked = random.number(100'000, 999'999);
            return callOf("ConsultarNumeroSessao", ConsultarNumeroSessao, session, code, asked);
        }
        case 7: return callOf("ConfigurarInterfaceDeRede", ConfigurarInterfaceDeRede, session, code, text);
        case 8:
            return callOf("AssociarAssinatura", AssociarAssinatura, session, code, random.digits(28), text);
        case 9: return callOf("AtualizarSoftwareSAT", AtualizarSoftwareSAT, session, code);
        case 10: return callOf("ExtrairLogs", ExtrairLogs, session, code);
        case 11: return callOf("BloquearSAT", BloquearSAT, session, code);
        case 12: return callOf("DesbloquearSAT", DesbloquearSAT, session, code);
        case 13:
            return callOf("TrocarCodigoDeAtivacao", TrocarCodigoDeAtivacao, session, code, 1, code, code);
        default: return callOf("ConsultarSAT", ConsultarSAT, session);
    }
}

/// The trouble that a call meets.
struct Trouble {
    std::string name;
    const sim::Fault* fault = nullptr;  ///< the device's, where it is one
    unsigned number = 0;                ///< of bad answers or seconds
};

Trouble anyTrouble(Random& random) {
    static const std::vector<std::string> others{"short writes", "idle writes", "failing write",
                                                 "no draining",  "no device",   "no terminal",
                                                 "bad request",  "held locks",  "full disk"};
    const int dice = random.number(1, 10);
    if (dice == 1) return {random.oneOf(others)};
    if (dice > 5) return {"none"};
    const sim::Fault& fault = random.oneOf(sim::faults());
    const auto number = fault.measure == nullptr ? 0 : random.number(1, 2 * static_cast<int>(fault.number));
    return {std::string(fault.name), &fault, static_cast<unsigned>(number)};
}

Call callUnder(const Trouble& trouble, Random& random) {
    const int session = random.number(100'000, 999'999);
    if (trouble.name == "bad request") {
        return callOf("ExtrairLogs", ExtrairLogs, session, random.digits(41));
    }
    // At one byte per millisecond a large answer would come too late.
    if (trouble.name == "byte-by-byte") return callOf("ConsultarSAT", ConsultarSAT, session);
    const int saleBytes = random.oneIn(400) ? FISCORA_ANSWER_MAX_BYTES : random.number(0, 20'000);
    return anyCall(random, saleBytes);
}

/// How a call must end.
struct Outcome {
    int status;
    std::string answer;
    long ms;
};

[[noreturn]] void differ(const std::string& what) { throw std::runtime_error(what); }

std::string beginning(const std::string& text) {
    return std::to_string(text.size()) + " bytes \"" + text.substr(0, 60) + "\"";
}

/// A second process that holds the log's folder and all its files locked while it lives.
class LockHolder {
  public:
    LockHolder() {
        std::array<int, 2> ready{}, over{};
        if (pipe(ready.data()) != 0 || pipe(over.data()) != 0) differ("no pipe");
        m_pid = fork();
        if (m_pid < 0) differ("no second process");
        char byte = 0;
        if (m_pid == 0) {
            close(over[1]);
            lockLogs();
            [[maybe_unused]] const bool told = write(ready[1], &byte, 1) == 1 && read(over[0], &byte, 1) == 0;
            _exit(0);
        }
        close(over[0]);
        close(ready[1]);
        m_over = over[1];
        if (read(ready[0], &byte, 1) != 1) differ("the second process does not start");
        close(ready[0]);
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;
    ~LockHolder() {
        close(m_over);
        waitpid(m_pid, nullptr, 0);
    }

  private:
    static void lockLogs() {
        const auto lock = [](const std::filesystem::path& path) {
            flock(openat(AT_FDCWD, path.c_str(), O_RDONLY), LOCK_EX);
        };
        lock("logsDrs");
        for (const auto& entry : std::filesystem::directory_iterator("logsDrs")) lock(entry.path());
    }

    pid_t m_pid;
    int m_over;  ///< its closing ends the process
};

/// The device on its line, and the clock.
class World {
  public:
    explicit World(Random& random) : m_random(random) {
        platform.time = [this] { return now(); };
        platform.write = [this, write = platform.write](int fd, const void* bytes, size_t length) {
            const ssize_t result = write(fd, bytes, length);
            if (fd == FakeLine::DESCRIPTOR && result > 0) {
                take(static_cast<const char*>(bytes), static_cast<unsigned long>(result));
            }
            return result;
        };
        platform.read = [this, read = platform.read](int fd, void* buffer, size_t capacity) {
            if (fd == FakeLine::DESCRIPTOR && m_reception.reads == 0) {
                m_reception = expectedReception(m_line.readings, m_call->operation, timeoutMs(),
                                                m_line.nowMs() - m_startMs, m_failures);
            }
            return read(fd, buffer, capacity);
        };
        platform.tcflush = [this](int, int queue) {
            if (queue != TCOFLUSH) discardInput();
            return 0;
        };
        m_line.writeResult = [this](size_t length) {
            const ssize_t result = accepted(length);
            m_failures = result > 0 ? 0 : m_failures + 1;
            return result;
        };
    }

    /// Makes the call and checks its outcome. Returns its duration in ms.
    long exchange(const Call& call, const Trouble& trouble);

    std::string date() const { return localTimeText("%Y%m%d", now()); }
    /// Moves the clock to the day's last seconds.
    void letTheDayPass() {
        const long left = SECONDS_OF_DAY - now() % SECONDS_OF_DAY - m_random.number(0, 4);
        m_line.advanceMs(1000 * std::max(0L, left));
        m_device = sim::SimulatedDevice();  // limits what it remembers
    }
    /// Frees what the device and its line keep of earlier calls.
    void forget() {
        m_device = sim::SimulatedDevice();
        m_reception = {};
        for (std::string* text : {&m_answer, &m_frame, &m_previousFrame, &m_line.written})
            std::string().swap(*text);
    }

  private:
    std::time_t now() const { return FIRST_DAY + m_line.nowMs() / 1000; }
    bool is(const char* trouble) const { return m_trouble.name == trouble; }

    void prepare(const Call& call, const Trouble& trouble);
    void discardInput();
    ssize_t accepted(size_t length);
    void take(const char* bytes, unsigned long length);
    void answer();
    void transmit(const sim::Transmission& transmission);

    bool isUnreachable() const {
        return is("no device") || is("no terminal") || is("bad request") || is("refused-write") ||
               m_writeFailed;
    }
    int timeoutMs() const { return manipulaDados::findOperation(m_call->operation)->timeoutMs; }
    Outcome expected() const;

    Random& m_random;
    WorkingDirectory m_folder;
    FakeLine m_line;
    sim::SimulatedDevice m_device;

    // Of the current call.
    const Call* m_call = nullptr;
    Trouble m_trouble;
    long m_startMs = 0;
    Reception m_reception;  ///< how it must go; predicted at the first read
    int m_writes = 0;
    int m_specialWrite = 0;  ///< the one that fails, or the first that accepts anything
    bool m_writeFailed = false;
    int m_failures = 0;      ///< writes in a row that took nothing
    pbs::Message m_request;  ///< the parser's target
    int m_requests = 0;      ///< that have arrived
    std::string m_answer;
    std::string m_frame;

    std::string m_previousFrame;  ///< of the last call that the device has answered
};

long World::exchange(const Call& call, const Trouble& trouble) {
    prepare(call, trouble);
    std::string result;
    {
        const std::optional<LockHolder> holder =
            is("held locks") ? std::optional<LockHolder>(std::in_place) : std::nullopt;
        const Undo undo = is("full disk") ? limit(RLIMIT_FSIZE, 0) : nullptr;
        result = call.make();
    }
    const long ms = m_line.nowMs() - m_startMs;

    const Outcome outcome = expected();
    if (CodigoErro() != outcome.status) {
        differ("status " + std::to_string(CodigoErro()) + " and not " + std::to_string(outcome.status));
    }
    if (result != outcome.answer) differ(beginning(result) + " and not " + beginning(outcome.answer));
    if (ms != outcome.ms) differ(std::to_string(ms) + " ms and not " + std::to_string(outcome.ms));
    if (m_requests != (isUnreachable() ? 0 : 1)) differ(std::to_string(m_requests) + " requests arrived");
    const bool same = m_request.code() == call.operation && m_request.body() == call.request;
    if (m_requests == 1 && !same) differ(beginning(m_request.body()) + " and not " + beginning(call.request));
    if (m_line.open) differ("the port stays open");

    const auto field = manipulaDados::findOperation(call.operation)->answer.decodedField;
    if (field > 0 && result == m_answer) {
        const auto fields = split(m_answer, '|');
        const std::string document = field < fields.size() ? Base64::decode(fields[field]) : "";
        if (Base64ToAscii() != document) differ("another document than the answer's");
    }
    if (m_requests == 1) {
        m_previousFrame = m_frame;
    }
    return ms;
}

void World::prepare(const Call& call, const Trouble& trouble) {
    static const std::string listing = m_line.listing;
    m_call = &call;
    m_trouble = trouble;
    m_startMs = m_line.nowMs();
    m_reception = {};
    m_failures = 0;
    m_writes = 0;
    m_specialWrite = m_random.oneIn(2) ? 0 : m_random.number(1, 20);
    m_writeFailed = false;
    m_request = pbs::Message();
    m_requests = 0;
    m_answer.clear();
    m_frame.clear();

    m_line.calls.clear();
    m_line.written.clear();
    m_line.listing = is("no device") ? "" : listing;
    m_line.isTerminal = !is("no terminal");
    m_line.queued = is("no draining") ? 1 : 0;
}

/// Discards what has arrived: at the start of a call, everything left over from the previous one.
void World::discardInput() {
    auto& readings = m_line.readings;
    while (!readings.empty() && (m_writes == 0 || readings.front().afterMs == 0)) readings.pop_front();
}

/// The result of a write.
ssize_t World::accepted(size_t length) {
    const int number = m_writes++;
    const auto part = [&](size_t most) { return m_random.number(1, std::max(1, static_cast<int>(most))); };
    if (is("short writes")) return part(length);
    if (is("idle writes") && number < m_specialWrite) return 0;
    if (is("failing write") && number == m_specialWrite) {
        m_writeFailed = true;
        return -1;
    }
    if (is("refused-write")) {
        if (number > 0) return -1;
        m_line.readings.push_back({"", -1});
        return part(length - 1);
    }
    return static_cast<ssize_t>(length);
}

void World::take(const char* bytes, unsigned long length) {
    unsigned long taken = 0;
    while (taken < length) {
        const auto state = m_request.parse(bytes + taken, length - taken, &taken);
        if (state == pbs::Message::PARSER_IN_PROGRESS) continue;
        if (state != pbs::Message::PARSER_MESSAGE_READY) differ("a damaged request");
        ++m_requests;
        m_request.uncompress();
        answer();
    }
}

void World::answer() {
    const auto serve = m_trouble.fault == nullptr ? sim::answerOf : m_trouble.fault->serve;
    m_answer = serve(m_device, m_request.code(), m_request.body());
    pbs::Message answer(m_request.code(), m_request.sourceId());
    answer.setBody(m_answer);
    answer.compress();
    m_frame = answer.toString();
    if (m_trouble.fault != nullptr) {
        return transmit(m_trouble.fault->spoil({answer, m_previousFrame, m_trouble.number}));
    }
    sim::Transmission transmission;
    for (std::size_t start = 0, end = 0; start < m_frame.size(); start = end) {
        end = start + static_cast<std::size_t>(m_random.number(1, 2 * static_cast<int>(m_frame.size())));
        transmission.pieces.push_back({m_frame.substr(start, end - start)});
    }
    transmit(transmission);
}

/// Each piece comes in a read of its own, or in several if it is larger.
void World::transmit(const sim::Transmission& transmission) {
    for (const auto& [bytes, before] : transmission.pieces) {
        const long pauseMs = before.count();
        for (long ms = READ_MS; ms <= pauseMs; ms += READ_MS) m_line.readings.push_back({"", 0, READ_MS});
        m_line.readings.push_back({bytes, 0, pauseMs % READ_MS});
    }
    if (!transmission.hangUp) return;
    // The way an unplugged line or a pty fails.
    if (m_random.oneIn(2)) {
        m_line.readings.push_back({"", -1});
    } else {
        m_line.readings.insert(m_line.readings.end(), 500, {});
    }
}

Outcome World::expected() const {
    if (is("bad request")) return {FISCORA_STATUS_BAD_REQUEST, "", 0};
    if (is("no device")) return {FISCORA_STATUS_NO_ANSWER, "", CLOSED_PAUSE_MS};
    if (is("no terminal")) return {FISCORA_STATUS_NO_ANSWER, "", 0};
    const long pausesMs = m_reception.open ? CLOSED_PAUSE_MS : 2 * CLOSED_PAUSE_MS;
    return {m_reception.status, m_reception.answer.bodyAsCString(), m_reception.endMs + pausesMs};
}

/// Checks the logs against the calls of each day.
std::size_t checkLogs(std::map<std::string, long> callsOfDay) {
    constexpr std::size_t DATE_POSITION = 6, DATE_SIZE = 8;  // logDrsYYYYMMDD
    constexpr std::string_view mark = "info, txCode: ";
    constexpr std::size_t TEXT_POSITION = 25;  // [YYYY-MM-DD.HH:MM:SS] - [
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator("logsDrs")) {
        ++files;
        const std::string path = entry.path();
        std::istringstream log(readLog(path));
        long lines = 0;
        for (std::string line; std::getline(log, line);)
            lines += line.compare(TEXT_POSITION, mark.size(), mark) == 0 ? 1 : 0;
        const long calls = callsOfDay[entry.path().filename().string().substr(DATE_POSITION, DATE_SIZE)];
        if (lines != calls) {
            differ(path + " tells of " + std::to_string(lines) + " calls and not " + std::to_string(calls));
        }
    }
    const std::size_t wanted = std::min(callsOfDay.size(), MAX_LOGS);
    if (files != wanted) differ(std::to_string(files) + " log files and not " + std::to_string(wanted));
    return files;
}

long residentKiB() {
    malloc_trim(0);
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

/// The calls under one kind of trouble.
struct Row {
    std::map<int, long> calls;  ///< by status
    long worstMs = 0;
    double worstRealMs = 0;
};

class Soak {
  public:
    explicit Soak(unsigned seed) : m_seed(seed), m_random(seed), m_world(m_random) {}

    /// Makes one more call; throws if anything differs.
    void call() {
        ++m_calls;
        if (m_random.oneIn(150)) m_world.letTheDayPass();
        // The second call is the largest possible.
        const Trouble trouble = m_calls == 2 ? Trouble{"none"} : anyTrouble(m_random);
        const Call call =
            m_calls == 2 ? anyCall(m_random, FISCORA_ANSWER_MAX_BYTES) : callUnder(trouble, m_random);
        try {
            const std::string date = m_world.date();
            count(m_rows[trouble.name], call, trouble);
            if (trouble.name != "bad request") m_callsOfDay[date] += trouble.name == "full disk" ? 0 : 1;
            if (m_calls == 1) m_descriptors = openDescriptors();
            if (openDescriptors() != m_descriptors) differ("a descriptor stays open");
        } catch (const std::exception& difference) {
            differ("seed " + std::to_string(m_seed) + ", call " + std::to_string(m_calls) + ", " +
                   call.operation + ", " + trouble.name + ": " + difference.what());
        }
    }
    /// Resident memory, without the device's.
    long memoryKiB() {
        m_world.forget();
        return residentKiB();
    }
    /// Also checks the logs.
    void print(FILE* report) const {
        std::fprintf(report, "%-18s %10s %10s  %s\n", "TROUBLE", "WORST ms", "(REAL)", "CALLS BY STATUS");
        for (const auto& [name, row] : m_rows) {
            std::fprintf(report, "%-18s %10ld %10.1f ", name.c_str(), row.worstMs, row.worstRealMs);
            for (const auto& [status, calls] : row.calls) std::fprintf(report, " %d: %ld ", status, calls);
            std::fprintf(report, "\n");
        }
        std::fprintf(report, "open descriptors: %ld, as after the first call\n", m_descriptors);
        std::fprintf(report, "log files: %zu of %zu days, with every call of those days\n",
                     checkLogs(m_callsOfDay), m_callsOfDay.size());
    }

  private:
    void count(Row& row, const Call& call, const Trouble& trouble) {
        const auto start = std::chrono::steady_clock::now();
        row.worstMs = std::max(row.worstMs, m_world.exchange(call, trouble));
        const std::chrono::duration<double, std::milli> real = std::chrono::steady_clock::now() - start;
        row.worstRealMs = std::max(row.worstRealMs, real.count());
        ++row.calls[CodigoErro()];
    }

    unsigned m_seed;
    Random m_random;
    World m_world;
    long m_calls = 0;
    long m_descriptors = 0;
    std::map<std::string, Row> m_rows;  ///< by the name of the trouble
    std::map<std::string, long> m_callsOfDay;
};

#ifdef __SANITIZE_ADDRESS__  // keeps freed memory, and finds leaks itself
constexpr long MOST_GROWTH_KIB = std::numeric_limits<long>::max();
#else
constexpr long MOST_GROWTH_KIB = 512;
#endif

void run(FILE* report, long exchanges, unsigned seed) {
    constexpr long WARM_UP = 500;  // until memory has settled
    Soak soak(seed);
    const long warmUp = std::min(WARM_UP, exchanges);
    for (long i = 0; i < warmUp; ++i) soak.call();
    const long before = soak.memoryKiB();
    for (long i = warmUp; i < exchanges; ++i) soak.call();
    const long after = soak.memoryKiB();
    soak.print(report);
    std::fprintf(report, "resident memory: %ld KiB after %ld calls, %ld KiB after %ld\n", before, warmUp,
                 after, exchanges);
    if (after - before > MOST_GROWTH_KIB) differ("memory grows");
}

}  // namespace

int main(int argc, char** argv) try {
    long exchanges = 20'000;
    unsigned seed = std::random_device()();
    CLI::App application("Thousands of calls of the library, with faults at random");
    application.add_option("--exchanges", exchanges, "Number of calls (default 20000)")
        ->check(CLI::Range(1, 100'000'000));
    application.add_option("--seed", seed, "Seed of the random choices (default: different each time)");
    CLI11_PARSE(application, argc, argv);

    setenv("TZ", "UTC0", 1);
    // The library prints too: the fields of answers, and tar's output.
    FILE* const report = fdopen(dup(STDOUT_FILENO), "w");
    if (report == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) return EXIT_FAILURE;
    setlinebuf(report);
    std::fprintf(report, "%ld calls, seed %u\n", exchanges, seed);
    run(report, exchanges, seed);
    std::fprintf(report, "nothing lost, nothing mixed up\n");
    return EXIT_SUCCESS;
} catch (const std::exception& difference) {
    std::fprintf(stderr, "soak: %s\n", difference.what());
    return EXIT_FAILURE;
}
