#pragma once

#include <mutex>
#include <string>

#include "Changes.h"
#include "Service.h"
#include "journal/Journal.h"

namespace fiscorad {

/// The running service's log: one line per event on standard error, with its time unless the system's journal
/// adds one. It holds neither activation codes nor documents. Safe for threads.
class Log {
  public:
    Log();

    void info(const std::string& text) { write(INFO, text); }
    void warn(const std::string& text) { write(WARNING, text); }

    /// Writes a line for each change of a document or of the device, until the subscription ends.
    [[nodiscard]] Changes::Subscription follow(Service& service);

    /// The device's state, as one line; empty while nothing is known.
    static std::string describe(const DeviceState& device);

  private:
    // Priorities of syslog (RFC 5424), which the system's journal reads from the start of a line.
    static constexpr int WARNING = 4;
    static constexpr int INFO = 6;

    void write(int priority, const std::string& text);
    void tellDocument(const Document& document);
    void tellDevice(Service& service);

    bool m_forSystemJournal;
    std::mutex m_mutex;
    DeviceState m_device;  ///< as it was told last
};

}  // namespace fiscorad
