// Whole calls, from the flat function's arguments to its result, with their time divided among the parts.

#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "calls.h"
#include "encoding/Base64.h"
#include "fiscora.h"
#include "link/discovery.h"
#include "platform.h"
#include "protocol/Message.h"
#include "protocol/pbs.h"
#include "sale_document.h"
#include "sim/DevicePort.h"
#include "sim/PtyLine.h"
#include "sim/SimulatedDevice.h"

namespace {

using benchmark::State;
using In = Stopwatch::In;

/// Fills the caches with other data, as other programs do between two calls and while the device works.
void chillCaches() {
    static std::vector<char> memory(std::size_t{64} * 1024 * 1024);
    for (std::size_t i = 0; i < memory.size(); i += 64) ++memory[i];
    benchmark::ClobberMemory();
}

/// Accepts requests and always gives the same answer, at once; there is no device, terminal or shell.
class InstantLine {
  public:
    InstantLine() {
        platform.usleep = [](useconds_t) { return 0; };
        platform.popen = [this](const char*) { return fmemopen(m_listing.data(), m_listing.size(), "r"); };
        platform.pclose = [](FILE* file) { return std::fclose(file); };
        platform.open = [this](const char*, int) {
            m_phase = REQUEST;
            m_given = 0;
            return FD;
        };
        platform.isatty = [](int) { return 1; };
        platform.tcgetattr = [](int, termios*) { return 0; };
        platform.tcsetattr = [](int, int, const termios*) { return 0; };
        platform.tcflush = [](int, int) { return 0; };
        platform.ioctl = [](int, unsigned long, void* queued) { return *static_cast<int*>(queued) = 0; };
        platform.write = [this](int fd, const void* bytes, std::size_t size) {
            if (fd != FD) return next<ssize_t(int, const void*, std::size_t)>("write")(fd, bytes, size);
            if (m_phase == REQUEST) {
                m_request = Stopwatch::stop();
                m_phase = SENDING;
                Stopwatch::start();
            }
            return static_cast<ssize_t>(size);
        };
        platform.read = [this](int fd, void* bytes, std::size_t size) {
            if (fd != FD) return next<ssize_t(int, void*, std::size_t)>("read")(fd, bytes, size);
            return give(bytes, size);
        };
        platform.close = [](int fd) { return fd == FD ? 0 : next<int(int)>("close")(fd); };
    }
    InstantLine(const InstantLine&) = delete;
    InstantLine& operator=(const InstantLine&) = delete;
    ~InstantLine() { platform = Platform(); }

    std::string answer;  ///< to the next call

    /// Time of the last call until its first write, and from there to its first read.
    const Times& request() const { return m_request; }
    const Times& sending() const { return m_sending; }

  private:
    enum Phase { REQUEST, SENDING, ANSWER };

    static constexpr int FD = 1'000'000;  // not open in this process, and never polled

    ssize_t give(void* bytes, std::size_t size) {
        if (m_phase == SENDING) {
            m_sending = Stopwatch::stop();
            m_phase = ANSWER;
            chillCaches();
            Stopwatch::start();
        }
        const In part(LINE);
        const std::size_t length = std::min(size, answer.size() - m_given);
        std::memcpy(bytes, answer.data() + m_given, length);
        m_given += length;
        return static_cast<ssize_t>(length);
    }

    std::string m_listing = "x-mfc+_with_musb-if00 -> ../../ttyACM0\n";
    Phase m_phase = REQUEST;
    std::size_t m_given = 0;  ///< of the answer
    Times m_request, m_sending;
};

/// The frame of an answer of `bytes` bytes, most of them a document in Base64.
std::string answerFrame(std::size_t bytes) {
    const std::string before = "000001|06000|0000|Emitido com sucesso|||";
    const std::string after = "|20261123120000|CFe35261114200166000166599000040190000011234567|100.00||QR";
    const std::size_t left = bytes - before.size() - after.size();
    const std::string sale = saleDocument(FISCORA_ANSWER_MAX_BYTES);
    const auto* const document = reinterpret_cast<const unsigned char*>(sale.data());
    std::string body = before + Base64::encode(document, static_cast<std::uint32_t>(left / 4 * 3)) + after;
    body.resize(bytes, 'A');
    pbs::Message answer("EnviarDadosVenda", "3");
    answer.setBody(body);
    answer.compress();
    return answer.toString();
}

/// The library's own time, with its log lines and checksums.
double own(const Times& times) { return times.cpu[OWN] + times.cpu[LOG]; }

/// CPU seconds that the checksum of `frame` takes, with the caches as a call leaves them.
double checksumSeconds(const std::string& frame) {
    Stopwatch::start();
    benchmark::DoNotOptimize(pbs::crc16_ccitt(frame.data(), static_cast<int>(frame.size())));
    return own(Stopwatch::stop());
}

/// A working directory with a folder for the log, which the library makes only once per process.
struct LogFolder : WorkingDirectory {
    LogFolder() { std::filesystem::create_directory("logsDrs"); }
};

/// CPU seconds of one sale, by counter.
using Costs = std::map<std::string, double>;

Costs sell(InstantLine& line, const std::string& document) {
    chillCaches();
    Stopwatch::start();
    const char* const text = EnviarDadosVenda(1, "12345678", document.c_str());
    const Times answer = Stopwatch::stop();
    if (CodigoErro() != 0 || std::strlen(text) != document.size()) throw std::runtime_error("a sale failed");
    return {{"request", own(line.request())},
            {"sending", own(line.sending())},
            {"answer", own(answer)},
            {"whole", own(line.request()) + own(line.sending()) + own(answer)},
            {"checksum", checksumSeconds(line.answer)},
            {"deflate", line.request().cpu[DEFLATE]},
            {"inflate", answer.cpu[INFLATE]}};
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void sale(State& state) {
    const LogFolder folder;
    InstantLine line;
    std::array<std::string, CALL_BYTES.size()> documents, answers;
    std::transform(CALL_BYTES.begin(), CALL_BYTES.end(), documents.begin(), saleDocument);
    std::transform(CALL_BYTES.begin(), CALL_BYTES.end(), answers.begin(), answerFrame);
    const auto sellOfSize = [&](std::size_t index) {
        line.answer = answers[index];
        return sell(line, documents[index]);
    };
    sellOfSize(CALL_BYTES.size() - 1);  // starts the day's log, and lets memory settle

    // Compares calls of the same turn, so that the machine's load affects both alike.
    std::map<std::string, std::vector<double>> aByte;
    while (state.KeepRunning()) {
        const Costs smallest = sellOfSize(0);
        for (std::size_t i = 0; i < CALL_BYTES.size(); ++i) {
            const auto more = static_cast<double>(CALL_BYTES[i] - CALL_BYTES[0]);
            for (const auto& [name, seconds] : i == 0 ? smallest : sellOfSize(i)) {
                const std::string counter = std::to_string(CALL_BYTES[i]) + " " + name;
                const auto [place, isNew] = state.counters.try_emplace(counter, seconds);
                if (!isNew) place->second.value = std::min(place->second.value, seconds);
                if (i > 0) aByte[counter + " a byte"].push_back((seconds - smallest.at(name)) / more);
            }
        }
    }
    for (const auto& [counter, costs] : aByte) state.counters[counter] = median(costs);
}

/// A simulated device on a pty, in a process of its own; the library finds it by the real search in a folder
/// that stands for /dev. The platform's functions do their real work, and their time is measured.
class SimulatedLine {
  public:
    SimulatedLine() : m_byId(m_line.folder() + "/serial") {
        std::filesystem::create_directory(m_byId);
        std::filesystem::create_symlink("../../ttyACM0", m_byId + "/usb-simulated-mfc+_with_musb-if00");
        m_device = fork();
        if (m_device == 0) play();
        if (m_device < 0) throw std::runtime_error("cannot start a process for the device");
        standIn();
    }
    SimulatedLine(const SimulatedLine&) = delete;
    SimulatedLine& operator=(const SimulatedLine&) = delete;
    ~SimulatedLine() {
        platform = Platform();
        kill(m_device, SIGTERM);
        waitpid(m_device, nullptr, 0);
    }

  private:
    [[noreturn]] void play() {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        sim::SimulatedDevice device;
        sim::DevicePort(device, {}).run(m_line.fd());
        std::_Exit(EXIT_SUCCESS);
    }

    std::string searched() const {
        const std::string real = "/dev/serial/by-id";
        std::string command = serial::DISCOVERY_COMMAND;
        for (auto at = command.find(real); at != std::string::npos; at = command.find(real, at))
            command.replace(at, real.size(), m_byId);
        return command;
    }

    void standIn() {
        platform.usleep = [](useconds_t us) {
            const In part(PAUSES);
            return next<int(useconds_t)>("usleep")(us);
        };
        platform.popen = [this](const char*) {
            m_search.emplace(SEARCH);  // until the shell has ended
            return realPopen(searched().c_str());
        };
        platform.pclose = [this](FILE* file) {
            const int result = next<int(FILE*)>("pclose")(file);
            m_search.reset();
            return result;
        };
        platform.open = [this](const char*, int flags) {
            const In part(LINE);
            return m_fd = next<int(const char*, int, ...)>("open")(m_line.path().c_str(), flags);
        };
        platform.time = [this] {
            if (!m_logLine) m_logLine.emplace(LOG);  // till its file is closed
            return next<std::time_t(std::time_t*)>("time")(nullptr);
        };
        platform.tcsetattr = [](int fd, int when, const termios* settings) {
            const In part(LINE);
            return next<int(int, int, const termios*)>("tcsetattr")(fd, when, settings);
        };
        // A pty would discard data that a real line would have sent by now.
        platform.tcflush = [](int fd, int queue) {
            const In part(LINE);
            return queue == TCOFLUSH ? 0 : next<int(int, int)>("tcflush")(fd, TCIFLUSH);
        };
        platform.write = [this](int fd, const void* bytes, std::size_t size) {
            const In part(fd == m_fd ? LINE : LOG);
            return next<ssize_t(int, const void*, std::size_t)>("write")(fd, bytes, size);
        };
        platform.read = [](int fd, void* bytes, std::size_t size) {
            const In part(LINE);
            return next<ssize_t(int, void*, std::size_t)>("read")(fd, bytes, size);
        };
        platform.close = [this](int fd) {
            const int result = [fd, this] {
                const In part(fd == m_fd ? LINE : LOG);
                return next<int(int)>("close")(fd);
            }();
            if (fd != m_fd) m_logLine.reset();
            return result;
        };
    }

    sim::PtyLine m_line;
    std::string m_byId;
    pid_t m_device = -1;
    int m_fd = -1;
    std::optional<In> m_search, m_logLine;
};

double elapsed(const Times& times) { return std::accumulate(times.wall.begin(), times.wall.end(), 0.0); }

void consultarSAT(State& state) {
    const LogFolder folder;
    SimulatedLine line;
    const auto call = [&] {
        Stopwatch::start();
        const std::string answer = ConsultarSAT(1);
        const Times times = Stopwatch::stop();
        if (answer.compare(0, 13, "000001|08000|") != 0) state.SkipWithError("a call failed");
        return times;
    };
    call();  // starts the day's log, and copies the memory shared with the device's process
    std::vector<Times> calls;
    while (state.KeepRunning()) calls.push_back(call());
    const auto median = calls.begin() + static_cast<std::ptrdiff_t>(calls.size() / 2);
    std::nth_element(calls.begin(), median, calls.end(),
                     [](const Times& a, const Times& b) { return elapsed(a) < elapsed(b); });
    for (int part = OWN; part < PARTS; ++part) state.counters[PART_NAMES[part]] = median->wall[part];
    state.counters["total"] = elapsed(*median);
}

benchmark::internal::Benchmark* const SALES = benchmark::RegisterBenchmark("sale", sale)->Repetitions(1);
benchmark::internal::Benchmark* const QUERIES =
    benchmark::RegisterBenchmark("ConsultarSAT", consultarSAT)->Repetitions(1);

}  // namespace

void setCalls(int turns, int queries) {
    SALES->Iterations(turns);
    QUERIES->Iterations(queries);
}
