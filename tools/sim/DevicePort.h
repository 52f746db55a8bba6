#pragma once

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/Message.h"
#include "sim/Fault.h"

namespace sim {

class FrameTrace;
class SimulatedDevice;

struct PortSettings {
    int baud = 0;  ///< speed of the line in each direction, 10 bits per byte; 0: no limit
    std::chrono::milliseconds latency{0};  ///< between a request's last byte and its answer's first
    /// At most one for each exchange: the first that names it, or that chance takes. The percentages add up
    /// to at most 100, and each fault gets its own.
    std::vector<FaultPlan> faults;
    unsigned seed = 1;            ///< of chance: the same one brings the same faults in the same exchanges
    FrameTrace* trace = nullptr;  ///< prints frames; outlives the port
};

/// Plays a SimulatedDevice on the device's end of a serial line: reads requests, writes answers. The line is
/// any terminal in raw mode (VMIN 1), such as the master of a pty or a gadget's serial port.
///
/// One exchange at a time, like a device: a request that arrives ends an answer that is still going out. Only
/// a held one still goes out, before the answer to that request.
class DevicePort {
  public:
    /// `device` outlives the port.
    DevicePort(SimulatedDevice& device, PortSettings settings);

    /// Begins on a fresh line, which stays the caller's and is made non-blocking. Drops what was under way;
    /// the count of exchanges goes on.
    void attach(int fd);

    /// What to poll for, and at most how many milliseconds (-1: no limit), before the next `step`.
    struct Interest {
        pollfd line;
        int timeoutMs;
    };
    Interest interest() const;
    /// Reads and writes what the line takes now, without waiting. False when the line has ended: the other
    /// end has hung up, or a fault wants the caller to.
    bool step();
    /// After `step` returned false: how long the line must stay away before the next `attach`.
    std::chrono::milliseconds gone() const { return m_out.gone; }

    /// Plays on `fd` until the line has ended.
    void run(int fd);

  private:
    using Clock = std::chrono::steady_clock;

    /// Paces one direction of the line: how many bytes it may move by now.
    class Pace {
      public:
        explicit Pace(int baud) : m_baud(baud) {}
        std::size_t allowance(Clock::time_point now);
        void moved(std::size_t bytes);
        Clock::time_point next() const;

      private:
        Clock::duration duration(std::size_t bytes) const;

        int m_baud;
        Clock::time_point m_idleSince;  ///< when the last byte moved had passed
    };

    bool receive(Clock::time_point now);
    bool transmit(Clock::time_point now);
    void take(std::string_view bytes);
    void traceSent(std::string_view bytes);
    void exchange();
    void begin(Transmission out);
    Transmission afterTheRest(Transmission next) const;
    const FaultPlan* drawPlan();
    const FaultPlan* nextPlan();
    void traceFault(const FaultPlan& plan);
    bool sending() const { return m_piece < m_out.pieces.size(); }

    SimulatedDevice& m_device;
    PortSettings m_settings;
    int m_fd = -1;
    unsigned m_exchanges = 0;
    std::mt19937 m_chance;
    const FaultPlan* m_plan;  ///< for the next exchange; null for none
    Pace m_inward;
    Pace m_outward;
    pbs::Message m_request;  ///< the parser's target
    Clock::time_point m_lastInput;
    std::string m_previousFrame;  ///< the last answer's, even if something else was sent in its place
    Transmission m_out;
    std::size_t m_piece = 0;      ///< the one that is being sent
    std::size_t m_sent = 0;       ///< bytes of it
    pbs::Message m_tracedAnswer;  ///< the trace's parser's target
    Clock::time_point m_due;      ///< when the next piece may start; after the last one, when to hang up
};

}  // namespace sim
