#pragma once

#include <sys/time.h>

#include <cstdint>
#include <string>

#include "../protocol/Message.h"

namespace serial {

/// USB vendor and product of the fiscal device, as the files below /sys/bus/usb/devices spell them.
extern const std::string SERIAL_VENDOR_ID;
extern const std::string SERIAL_PRODUCT_ID;

/// Results of `SerialCommChannel::statusErro`. Not statuses of an exchange.
enum PortStatus {
    PORT_OPEN = 0,
    PORT_FAILED = 5,  ///< any reason not listed here
    PORT_NO_DEVICE = 6,
    PORT_BAD_ADDRESS_OR_BUSY = 7
};

/// The connection to the fiscal device: one open terminal on a USB serial line, for one exchange. The line
/// runs at 38400 baud, 8 data bits, no parity, 1 stop bit, raw, without flow control.
///
/// Owns its descriptor. For one thread at a time.
class SerialCommChannel {
  public:
    SerialCommChannel();
    SerialCommChannel(const SerialCommChannel&) = delete;
    SerialCommChannel& operator=(const SerialCommChannel&) = delete;
    /// Disconnects; takes one second if the port is already closed.
    virtual ~SerialCommChannel();

    /// Finds the device and opens it. 0 if the port is open and configured, else another value.
    int connect_client();
    /// Flushes both directions and closes the port; takes one second if it is already closed.
    void disconnect_client();

    /// Starts the exchange's clock and writes the whole frame of `message` in pieces of at most 8192 bytes,
    /// then pauses 100 ms. Returns the result of the last `send`: above 0 if the whole frame went out, below
    /// 0 if not.
    int send_data(pbs::Message& message);
    /// Waits for the answer with code `code`, at most `timeoutMs` ms from the exchange's start; each of the
    /// first five refused messages restarts that clock. `answer` is assigned if a message is accepted, else
    /// left as it was. Returns the status of the exchange (the FISCORA_... constants of fiscora.h).
    int receive_data(const char* code, pbs::Message& answer, int timeoutMs);

    /// Path of the fiscal device's node, such as /dev/ttyACM0, by its name in /dev/serial/by-id; empty if
    /// there is none. Only the first digit of the node's number is read.
    std::string findUsbDevice();
    /// Path of the first terminal of the first USB device with the fiscal device's vendor, from malloc, to be
    /// freed by the caller; null if there is none. The library itself does not search this way.
    char* findUsbDeviceByVendorId();
    /// Opens and configures `path`. 0 if done; -1 for an empty path; else the `errno` of `isatty`. A file
    /// that is not a terminal stays open until the channel is disconnected.
    int openSerial(const std::string& path);

    /// Whether the port is open; takes one second if not.
    bool serialIsValid();
    /// Discards what was received but not yet read.
    void flushSerialIn();
    /// Discards what was written but not yet transmitted.
    void flushSerialOut();
    /// One write of up to `length` bytes. Returns the number of bytes accepted, which may be less, or 0 or
    /// -1. The 500th consecutive call of `send` and `receive` that moves nothing closes the port. Waits until
    /// the bytes are transmitted, 5 s in all per connection; once these are used up, a write waits at most a
    /// second for room in the driver.
    int send(const char* data, std::uint32_t length);
    /// One read of up to `capacity` bytes, for at most 0.1 s, with signals blocked. Returns the number of
    /// bytes read, or 0 or -1. Counts failures together with `send`.
    int receive(char* buffer, unsigned long capacity);
    /// PORT_OPEN if the port is open, else the PortStatus for `errno`.
    int statusErro();
    /// Local time as year, day, month, hour, minute, second in 14 digits (the day before the month), then a
    /// blank.
    std::string getTimer();

  private:
    struct Reception;

    int writePiece(const char* data, std::uint32_t length);
    int readPiece(char* buffer, unsigned long capacity);
    bool tooManyFailures();
    void awaitTransmission();
    void parseChunk(const char* code, const char* chunk, unsigned long size, Reception& reception);
    void judge(const char* code, Reception& reception);
    int elapsedMs() const;

    int fdSerial = -1;            ///< -1 when closed
    std::uint32_t failCount = 0;  ///< consecutive calls of send and receive that moved no byte
    timeval startTime{};          ///< the exchange's clock; started by send_data

    bool m_readsTimeOut = true;         ///< false if the port refused its settings
    std::int64_t m_transmissionWaitUs;  ///< what is left of the connection's time to wait for transmission
};

}  // namespace serial
