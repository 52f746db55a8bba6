#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../link/SerialCommChannel.h"
#include "../protocol/Message.h"

/// One command/answer exchange with the fiscal device. Call `run` once per object. The destructor takes one
/// second, the pause that the device needs between two exchanges.
class DoTransaction {
  public:
    DoTransaction();
    virtual ~DoTransaction();

    /// Connects, sends `request` under the name `command`, waits for the answer of that name and disconnects,
    /// with two lines in the debug log. `timeoutMs` counts from the start of the sending. `answer`, a fresh
    /// message, is filled if one was accepted, which can happen with a status other than 0. Returns the
    /// status of the exchange (the FISCORA_... constants of fiscora.h); throws nothing.
    int run(int timeoutMs, const char* command, const std::string& request, pbs::Message& answer);

    /// Sends `request` as a compressed message, or uncompressed if memory is short. 1 if that failed, else 0.
    int WriteMessageCommand(const char* command, const std::string& request);
    /// Waits for the answer on the connected link; returns the status.
    int ReadMessageAnswer(const char* command, pbs::Message& answer, int timeoutMs);

    /// `dumpExchange`, whose result is dropped.
    void fileDump(const char* code, const char* tx, std::uint32_t txSize, const char* rx,
                  std::uint32_t rxSize);

  private:
    int exchange(int timeoutMs, const char* command, const std::string& request, pbs::Message& answer);

    serial::SerialCommChannel m_channel;
};

/// The pieces of `text`, up to its first NUL, between the delimiters. A delimiter at the very end adds no
/// empty piece, and an empty text has none.
std::vector<std::string> split(const std::string& text, char delimiter);

/// Writes both sides of an exchange to the working directory for diagnosis: YYYYDDMMhhmmss_CODE_tx.bin,
/// ..._debug.txt and, if `rxSize` is not 0, ..._rx.bin (the day before the month, local time). Sizes in
/// bytes. The bytes are as given: a request holds the activation code. False if a file could not be written
/// completely, or is not a regular one; the others are tried all the same.
bool dumpExchange(const char* code, const char* tx, std::uint32_t txSize, const char* rx,
                  std::uint32_t rxSize);
