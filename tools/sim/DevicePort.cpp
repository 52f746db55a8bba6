#include "sim/DevicePort.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "i18n.h"
#include "sim/FrameTrace.h"
#include "sim/SimulatedDevice.h"

namespace sim {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t CHUNK = 16384;
constexpr int BITS_PER_BYTE = 10;
/// A paced line moves bytes in slices of this length, and makes up for this much time lost by a late wake-up.
constexpr milliseconds SLICE{10};
constexpr milliseconds LONGEST_LAG{50};
/// A request that stops halfway is forgotten after this silence, so that it cannot swallow the next one.
constexpr milliseconds REQUEST_TIMEOUT{2000};
/// Between an answer's last byte and a hang-up, which would discard what the application has not read yet.
constexpr milliseconds BEFORE_HANG_UP{100};

bool wouldBlock() { return errno == EAGAIN || errno == EINTR; }

/// Feeds `bytes` to the parser of `message`; calls `ended` with its state at the end of each frame.
template <typename Ended>
void parseFrames(pbs::Message& message, std::string_view bytes, Ended ended) {
    unsigned long taken = 0;
    while (taken < bytes.size()) {
        const auto state = message.parse(bytes.data() + taken, bytes.size() - taken, &taken);
        if (state != pbs::Message::PARSER_IN_PROGRESS) ended(state);
    }
}

}  // namespace

std::size_t DevicePort::Pace::allowance(Clock::time_point now) {
    if (m_baud == 0) return CHUNK;
    if (now - m_idleSince > LONGEST_LAG) m_idleSince = now - duration(1);  // an idle line earns one byte
    if (now < m_idleSince) return 0;
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now - m_idleSince).count();
    return std::min<std::size_t>(CHUNK,
                                 static_cast<std::size_t>(ns * m_baud / BITS_PER_BYTE / 1'000'000'000));
}

void DevicePort::Pace::moved(std::size_t bytes) {
    if (m_baud != 0) m_idleSince += duration(bytes);
}

DevicePort::Clock::time_point DevicePort::Pace::next() const {
    return m_baud == 0 ? m_idleSince : m_idleSince + std::max<Clock::duration>(SLICE, duration(1));
}

DevicePort::Clock::duration DevicePort::Pace::duration(std::size_t bytes) const {
    const std::chrono::duration<double> seconds(static_cast<double>(bytes) * BITS_PER_BYTE / m_baud);
    return std::chrono::duration_cast<Clock::duration>(seconds) + Clock::duration(1);
}

DevicePort::DevicePort(SimulatedDevice& device, PortSettings settings)
    : m_device(device),
      m_settings(std::move(settings)),
      m_chance(m_settings.seed),
      m_plan(drawPlan()),
      m_inward(m_settings.baud),
      m_outward(m_settings.baud) {}

void DevicePort::attach(int fd) {
    m_fd = fd;
    m_request = pbs::Message();
    m_out = {};
    begin({});
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

DevicePort::Interest DevicePort::interest() const {
    const Clock::time_point now = Clock::now();
    short events = 0;
    if (m_inward.next() <= now) events |= POLLIN;
    if (sending() && m_due <= now && m_outward.next() <= now) events |= POLLOUT;

    Clock::time_point wake = Clock::time_point::max();
    const auto wakeAt = [&](Clock::time_point time) {
        if (time > now) wake = std::min(wake, time);
    };
    wakeAt(m_inward.next());
    if (sending()) wakeAt(std::max(m_due, m_outward.next()));
    if (!sending() && m_out.hangUp) wake = std::min(wake, std::max(m_due, now));
    const int timeoutMs = wake == Clock::time_point::max()
                              ? -1
                              : static_cast<int>(std::chrono::ceil<milliseconds>(wake - now).count());
    // A line that has hung up would wake the poll even if there is nothing to read or write yet.
    return {{events == 0 ? -1 : m_fd, events, 0}, timeoutMs};
}

bool DevicePort::step() {
    const Clock::time_point now = Clock::now();
    if (!receive(now) || !transmit(now)) return false;
    return !(m_out.hangUp && !sending() && m_due <= now);
}

void DevicePort::run(int fd) {
    attach(fd);
    do {
        auto [line, timeoutMs] = interest();
        poll(&line, 1, timeoutMs);
    } while (step());
}

bool DevicePort::receive(Clock::time_point now) {
    const std::size_t allowed = m_inward.allowance(now);
    if (allowed == 0) return true;
    std::string bytes(std::min(allowed, CHUNK), '\0');
    const ssize_t count = read(m_fd, bytes.data(), bytes.size());
    if (count < 0) return wouldBlock();
    if (count == 0) return false;
    m_inward.moved(static_cast<std::size_t>(count));
    bytes.resize(static_cast<std::size_t>(count));

    if (m_plan != nullptr && m_plan->fault->spoil == nullptr) {
        traceFault(*nextPlan());
        return false;
    }
    if (now - m_lastInput > REQUEST_TIMEOUT) m_request = pbs::Message();
    m_lastInput = now;
    take(bytes);
    return true;
}

void DevicePort::take(std::string_view bytes) {
    parseFrames(m_request, bytes, [this](pbs::Message::ParserState state) {
        if (state == pbs::Message::PARSER_MESSAGE_READY) {
            exchange();
        } else if (m_settings.trace != nullptr) {
            m_settings.trace->note(std::string("--> ") + tool::tr("damaged request, not answered") + ": " +
                                   pbs::Message::parserStateName(state));
        }
    });
}

void DevicePort::traceSent(std::string_view bytes) {
    if (m_settings.trace == nullptr) return;
    parseFrames(m_tracedAnswer, bytes, [this](pbs::Message::ParserState state) {
        if (state == pbs::Message::PARSER_MESSAGE_READY) {
            m_settings.trace->answer(m_tracedAnswer);
        } else {
            m_settings.trace->note(std::string("<-- ") + tool::tr("damaged answer") + ": " +
                                   pbs::Message::parserStateName(state));
        }
    });
}

const FaultPlan* DevicePort::drawPlan() {
    unsigned draw = m_chance() % 100;  // for every exchange, so that a plan does not shift those after it
    for (const FaultPlan& plan : m_settings.faults) {
        const bool named = plan.exchange == 0 || plan.exchange == m_exchanges + 1;
        if (plan.percent == 0 ? named : draw < plan.percent) return &plan;
        draw -= plan.percent;
    }
    return nullptr;
}

/// Counts one more exchange; returns its plan.
const FaultPlan* DevicePort::nextPlan() {
    ++m_exchanges;
    return std::exchange(m_plan, drawPlan());
}

void DevicePort::traceFault(const FaultPlan& plan) {
    if (m_settings.trace != nullptr)
        m_settings.trace->note(tool::tr("fault: ") + std::string(plan.fault->name));
}

void DevicePort::exchange() {
    const FaultPlan* const plan = nextPlan();
    const Fault* const fault = plan != nullptr && plan->fault->spoil != nullptr ? plan->fault : nullptr;
    if (m_settings.trace != nullptr) m_settings.trace->request(m_request);
    pbs::Message request(m_request);
    if (request.isCompressed()) request.uncompress();

    const auto serve = fault != nullptr ? fault->serve : answerOf;
    pbs::Message answer(request.code(), request.sourceId());
    answer.setBody(serve(m_device, request.code(), request.body()));
    answer.compress();
    std::string frame = answer.toString();
    Transmission out;
    if (fault != nullptr) {
        out = fault->spoil({answer, m_previousFrame, plan->number});
        traceFault(*plan);
    } else {
        out.pieces.push_back({frame});
    }
    m_previousFrame = std::move(frame);
    begin(std::move(out));
}

/// What is still going out is dropped, or goes out at once before `out` if it is held.
void DevicePort::begin(Transmission out) {
    if (m_out.held && sending()) {
        out = afterTheRest(std::move(out));
    } else {
        m_tracedAnswer = pbs::Message();
    }
    m_out = std::move(out);
    m_piece = 0;
    m_sent = 0;
    m_due = Clock::now() + m_settings.latency;
    if (sending()) m_due += m_out.pieces.front().before;
}

Transmission DevicePort::afterTheRest(Transmission next) const {
    std::vector<Piece> pieces(m_out.pieces.begin() + static_cast<std::ptrdiff_t>(m_piece),
                              m_out.pieces.end());
    pieces.front().bytes.erase(0, m_sent);
    pieces.front().before = milliseconds(0);
    if (!next.pieces.empty())
        next.pieces.front().before = std::max(next.pieces.front().before, BETWEEN_ANSWERS);
    pieces.insert(pieces.end(), next.pieces.begin(), next.pieces.end());
    next.pieces = std::move(pieces);
    next.held = true;
    return next;
}

bool DevicePort::transmit(Clock::time_point now) {
    if (!sending() || now < m_due) return true;
    const std::string& piece = m_out.pieces[m_piece].bytes;
    const std::size_t allowed = std::min(m_outward.allowance(now), piece.size() - m_sent);
    if (allowed == 0) return true;
    const ssize_t count = write(m_fd, piece.data() + m_sent, allowed);
    if (count < 0) return wouldBlock();
    traceSent(std::string_view(piece).substr(m_sent, static_cast<std::size_t>(count)));
    m_outward.moved(static_cast<std::size_t>(count));
    m_sent += static_cast<std::size_t>(count);
    if (m_sent < piece.size()) return true;
    ++m_piece;
    m_sent = 0;
    m_due = now + (sending() ? m_out.pieces[m_piece].before : BEFORE_HANG_UP);
    return true;
}

}  // namespace sim
