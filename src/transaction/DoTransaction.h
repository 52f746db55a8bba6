#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../link/SerialCommChannel.h"
#include "../protocol/Message.h"

/// One command/answer exchange with the fiscal device. An object serves one exchange: build it, `run` it
/// once, let it go. Its destructor takes one second, the pause that the device needs between two exchanges.
class DoTransaction {
  public:
    DoTransaction();
    virtual ~DoTransaction();

    /// Connects, sends `request` under the name `command`, waits for the answer of that name and disconnects,
    /// with two lines in the debug log. `timeoutMs` counts from the start of the sending. `answer`, a fresh
    /// message, is filled where one was accepted, which may come with a status other than 0. Returns the
    /// status of the exchange (the FISCORA_... constants of fiscora.h); throws nothing.
    int run(int timeoutMs, const char* command, const std::string& request, pbs::Message& answer);

    /// Sends `request` as a compressed message. 1 when the sending failed, else 0.
    int WriteMessageCommand(const char* command, const std::string& request);
    /// Waits for the answer on the connected link; returns the status.
    int ReadMessageAnswer(const char* command, pbs::Message& answer, int timeoutMs);

    /// Writes both sides of an exchange to the working directory for diagnosis: YYYYDDMMhhmmss_CODE_tx.bin,
    /// ..._debug.txt and, where `rxSize` is not 0, ..._rx.bin (the day before the month, local time). Sizes
    /// in bytes. A file that cannot be opened is skipped. The bytes are as given: a request holds the
    /// activation code.
    void fileDump(const char* code, const char* tx, std::uint32_t txSize, const char* rx,
                  std::uint32_t rxSize);

  private:
    int exchange(int timeoutMs, const char* command, const std::string& request, pbs::Message& answer);

    serial::SerialCommChannel m_channel;
};

/// The pieces of `text`, as far as its first NUL, between the delimiters. A delimiter at the very end adds no
/// empty piece behind it, and an empty text has no piece.
std::vector<std::string> split(const std::string& text, char delimiter);
