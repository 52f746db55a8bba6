#include "link/SerialCommChannel.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <limits>

#include "diagnostics/logdebug.h"
#include "fiscora.h"
#include "kept_to_itself.h"
#include "local_time.h"
#include "protocol/Message.h"

namespace serial {

namespace {

/// One transfer of the line, in either direction.
constexpr unsigned long PIECE_BYTES = 8192;

constexpr std::uint32_t MAX_FAILURES = 500;
constexpr int MAX_RESTARTS = 5;

constexpr useconds_t CLOSED_PAUSE_US = 1'000'000;
constexpr useconds_t AFTER_SEND_PAUSE_US = 100'000;
constexpr useconds_t TRANSMISSION_POLL_US = 1'000;
constexpr std::int64_t MAX_TRANSMISSION_WAIT_US = 5'000'000;
constexpr std::int64_t MAX_WAIT_FOR_ROOM_US = 1'000'000;

constexpr cc_t READ_TIMEOUT_TENTHS = 1;
constexpr int READ_TIMEOUT_MS = READ_TIMEOUT_TENTHS * 100;

std::int64_t microsecondsSince(const timeval& start) {
    timeval now;
    gettimeofday(&now, nullptr);
    return std::int64_t{now.tv_sec - start.tv_sec} * 1'000'000 + (now.tv_usec - start.tv_usec);
}

void info(const char* text) {
    logOrDrop([&](LogDebug& log) { log.saveLog("info", text); });
}
void error(const char* text) {
    logOrDrop([&](LogDebug& log) { log.saveLog("error", text); });
}

/// Blocks signals in the calling thread while it lives, except those that the thread's own faults raise. A
/// handler would cut a pause short, and end a read or (SA_RESTART) restart its tenth of a second: with
/// signals more frequent than that, a silent device would block the caller forever.
class SignalsHeldBack {
  public:
    SignalsHeldBack() {
        sigset_t held;
        sigfillset(&held);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT}) sigdelset(&held, fault);
        pthread_sigmask(SIG_BLOCK, &held, &m_before);
    }
    SignalsHeldBack(const SignalsHeldBack&) = delete;
    SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;
    ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

  private:
    sigset_t m_before{};
};

/// Keeps a descriptor from blocking while it lives.
class NotBlocking {
  public:
    explicit NotBlocking(int fd) : m_fd(fd), m_before(fcntl(fd, F_GETFL)) {
        fcntl(m_fd, F_SETFL, m_before | O_NONBLOCK);
    }
    NotBlocking(const NotBlocking&) = delete;
    NotBlocking& operator=(const NotBlocking&) = delete;
    ~NotBlocking() { fcntl(m_fd, F_SETFL, m_before); }

  private:
    int m_fd;
    int m_before;
};

void pauseFor(useconds_t us) {
    const SignalsHeldBack guard;
    usleep(us);
}

/// A write that waits at most a second for room in the driver.
int writeIfThereIsRoom(int fd, const char* data, std::uint32_t length) {
    const NotBlocking guard(fd);
    for (std::int64_t waitedUs = 0;; waitedUs += TRANSMISSION_POLL_US) {
        const auto result = static_cast<int>(write(fd, data, length));
        if (result >= 0 || errno != EAGAIN || waitedUs >= MAX_WAIT_FOR_ROOM_US) return result;
        usleep(TRANSMISSION_POLL_US);
    }
}

}  // namespace

/// The state of one call of receive_data.
struct SerialCommChannel::Reception {
    pbs::Message& answer;
    pbs::Message message{};  ///< the parser's target: a frame may span many chunks
    pbs::Message::ParserState lastResult = pbs::Message::PARSER_IN_PROGRESS;
    int status = FISCORA_STATUS_NO_ANSWER;
    int wrongAnswers = 0;
};

SerialCommChannel::SerialCommChannel() : m_transmissionWaitUs(MAX_TRANSMISSION_WAIT_US) {}

SerialCommChannel::~SerialCommChannel() { disconnect_client(); }

int SerialCommChannel::connect_client() {
    const std::string path = findUsbDevice();
    if (path.empty()) return -1;
    return openSerial(path);
}

int SerialCommChannel::openSerial(const std::string& path) {
    if (path.empty()) return -1;
    fdSerial = keptToItself(open(path.c_str(), O_RDWR | O_NOCTTY));
    m_transmissionWaitUs = MAX_TRANSMISSION_WAIT_US;
    if (isatty(fdSerial) == 0) return errno;
    if (const int status = statusErro(); status != PORT_OPEN) return status;

    termios settings{};
    tcgetattr(fdSerial, &settings);
    settings.c_cflag = B38400 | CREAD | CLOCAL;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ECHOE | ECHOK | ECHONL | ECHOCTL | ECHOPRT);
    settings.c_iflag = 0;
    settings.c_oflag = 0;
    cfmakeraw(&settings);                        // also sets CS8
    settings.c_cc[VTIME] = READ_TIMEOUT_TENTHS;  // after cfmakeraw, which sets both
    settings.c_cc[VMIN] = 0;
    tcflush(fdSerial, TCIOFLUSH);
    m_readsTimeOut = tcsetattr(fdSerial, TCSANOW, &settings) == 0;
    return 0;
}

bool SerialCommChannel::serialIsValid() {
    if (fdSerial != -1) return true;
    pauseFor(CLOSED_PAUSE_US);
    return false;
}

void SerialCommChannel::disconnect_client() {
    if (!serialIsValid()) return;
    flushSerialIn();
    flushSerialOut();
    close(fdSerial);
    fdSerial = -1;
}

void SerialCommChannel::flushSerialIn() { tcflush(fdSerial, TCIFLUSH); }
void SerialCommChannel::flushSerialOut() { tcflush(fdSerial, TCOFLUSH); }

int SerialCommChannel::send(const char* data, std::uint32_t length) {
    const int result = writePiece(data, length);
    if (result > 0)
        failCount = 0;
    else if (tooManyFailures())
        pauseFor(CLOSED_PAUSE_US);
    awaitTransmission();
    flushSerialOut();
    return result;
}

int SerialCommChannel::writePiece(const char* data, std::uint32_t length) {
    if (fdSerial == -1) return -1;
    if (m_transmissionWaitUs > 0) return static_cast<int>(write(fdSerial, data, length));
    // The time for waits is used up, so the line may have stopped, and a plain write could block forever.
    return writeIfThereIsRoom(fdSerial, data, length);
}

int SerialCommChannel::readPiece(char* buffer, unsigned long capacity) {
    if (fdSerial == -1) return -1;
    const SignalsHeldBack guard;
    pollfd input{fdSerial, POLLIN, 0};
    if (!m_readsTimeOut && poll(&input, 1, READ_TIMEOUT_MS) == 0) return 0;
    return static_cast<int>(read(fdSerial, buffer, capacity));
}

int SerialCommChannel::receive(char* buffer, unsigned long capacity) {
    const int result = readPiece(buffer, capacity);
    if (result > 0)
        failCount = 0;
    else
        tooManyFailures();
    return result;
}

/// Counts a transfer that moved nothing. True if it reached the limit, which closes the port.
bool SerialCommChannel::tooManyFailures() {
    if (++failCount < MAX_FAILURES) return false;
    disconnect_client();
    failCount = 0;
    return true;
}

/// Waits until the kernel has sent what was written, or the connection's time for that is used up. In current
/// kernels, discarding the output cancels transfers in flight, and the request would never arrive.
void SerialCommChannel::awaitTransmission() {
    int queued = 0;
    while (m_transmissionWaitUs > 0 && ioctl(fdSerial, TIOCOUTQ, &queued) == 0 && queued > 0) {
        timeval start;
        gettimeofday(&start, nullptr);
        usleep(TRANSMISSION_POLL_US);
        // A clock that was set back must not stretch the wait.
        m_transmissionWaitUs -= std::max<std::int64_t>(microsecondsSince(start), TRANSMISSION_POLL_US);
    }
}

int SerialCommChannel::statusErro() {
    if (fdSerial >= 0) return PORT_OPEN;
    switch (errno) {
        case ENODEV: return PORT_NO_DEVICE;
        case EFAULT:
        case ETXTBSY: return PORT_BAD_ADDRESS_OR_BUSY;
        default: return PORT_FAILED;
    }
}

std::string SerialCommChannel::getTimer() { return localTimeText("%Y%d%m%H%M%S "); }

int SerialCommChannel::send_data(pbs::Message& message) {
    gettimeofday(&startTime, nullptr);
    const std::string text = message.toString();
    const unsigned long size = text.size();
    unsigned long offset = 0;
    int result = 0;
    while (offset < size) {
        unsigned long pending = size - offset;
        result = send(&text.at(offset), static_cast<std::uint32_t>(std::min(pending, PIECE_BYTES)));
        // Logs the bytes that remain after a full piece; off by one after a failed write, as the log has
        // always shown it. For the last piece, logs its length.
        if (pending >= PIECE_BYTES) pending -= static_cast<unsigned long>(result);
        logOrDrop([&](LogDebug& log) {
            log.saveLog("info", "[SerialCommChannel::send_data] Bytes enviados: " + std::to_string(pending) +
                                    "Bytes Totais: " + std::to_string(size));
        });
        if (result < 0) break;
        offset += static_cast<unsigned long>(result);
    }
    pauseFor(AFTER_SEND_PAUSE_US);
    info(offset < size ? "[SerialCommChannel::send_data] Falha no envio."
                       : "[SerialCommChannel::send_data] Enviado com sucesso");
    return result;
}

int SerialCommChannel::receive_data(const char* code, pbs::Message& answer, int timeoutMs) {
    Reception reception{answer};
    std::array<char, PIECE_BYTES> chunk{};
    int bytesRead = 0;
    int elapsed = 0;
    do {
        bytesRead = receive(chunk.data(), chunk.size());
        if (bytesRead > 0) parseChunk(code, chunk.data(), static_cast<unsigned long>(bytesRead), reception);
        elapsed = elapsedMs();
    } while (reception.lastResult == pbs::Message::PARSER_IN_PROGRESS && elapsed <= timeoutMs &&
             bytesRead >= 0);

    if (bytesRead < 0) {
        error(" [SerialCommChannel::receive_data] __READERROR__");
        reception.status = FISCORA_STATUS_READ_ERROR;
    } else if (elapsed >= timeoutMs) {
        error(" [SerialCommChannel::receive_data] __TIMEOUT__");
        reception.status = FISCORA_STATUS_TIMEOUT;
    }
    tcflush(fdSerial, TCIOFLUSH);
    return reception.status;
}

void SerialCommChannel::parseChunk(const char* code, const char* chunk, unsigned long size,
                                   Reception& reception) {
    unsigned long consumed = 0;
    while (consumed < size) {
        reception.lastResult = reception.message.parse(chunk + consumed, size - consumed, &consumed);
        switch (reception.lastResult) {
            case pbs::Message::PARSER_SYNTAX_ERROR:
                error("[SerialCommChannel::receive_data] PARSER_SYNTAX_ERROR");
                break;
            case pbs::Message::PARSER_CHECKSUM_ERROR:
                error("[SerialCommChannel::receive_data] PARSER_CHECKSUM_ERROR");
                break;
            case pbs::Message::PARSER_MESSAGE_READY: judge(code, reception); break;
            case pbs::Message::PARSER_IN_PROGRESS: break;
        }
    }
}

/// Accepts the complete message as the answer, or refuses it; the first five refusals restart the clock.
void SerialCommChannel::judge(const char* code, Reception& reception) {
    pbs::Message& message = reception.message;
    if (message.isCompressed()) message.uncompress();
    if (message.bodySize() <= FISCORA_ANSWER_MAX_BYTES && message.code() == code) {
        reception.answer = message;
        info("[SerialCommChannel::receive_data] __NOERROR__");
        reception.status = FISCORA_STATUS_OK;
        return;
    }
    info("Comando invalido");
    if (reception.wrongAnswers < MAX_RESTARTS) {
        info("Reinicio do timeout");
        gettimeofday(&startTime, nullptr);
        reception.lastResult = pbs::Message::PARSER_IN_PROGRESS;
    }
    ++reception.wrongAnswers;
    reception.status = FISCORA_STATUS_REFUSED;
}

int SerialCommChannel::elapsedMs() const {
    timeval now;
    gettimeofday(&now, nullptr);
    const std::int64_t elapsed =
        std::int64_t{now.tv_sec - startTime.tv_sec} * 1000 + (now.tv_usec - startTime.tv_usec) / 1000;
    // Clamped, so that a clock set forward by weeks does not look like one set back.
    using Limits = std::numeric_limits<int>;
    return static_cast<int>(std::clamp<std::int64_t>(elapsed, Limits::min(), Limits::max()));
}

}  // namespace serial
