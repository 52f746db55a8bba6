#pragma once

#include <string>

#include "Descriptor.h"
#include "sim/SimulatedDevice.h"

namespace sim {

/// A file with one line for each document that the simulated device has booked, for tests of applications:
///
///     2026-11-18T12:00:00-03:00 TAB EnviarDadosVenda TAB 000001 TAB CFe3526... TAB 9f86d081... LF
///
/// local time (RFC 3339), operation, session, access key ("CFe" and 44 digits), and SHA-256 of the document
/// that was sent, in lower-case hexadecimal.
class Ledger {
  public:
    /// Appends to `path`, which is created (mode 0600) if it does not exist. Throws CLI::ValidationError,
    /// with a text in the user's language, if it cannot be opened.
    explicit Ledger(const std::string& path);

    /// Hands the line to the kernel, in one write. False if the file does not take all of it; nothing of it
    /// stays in the file then, and the first time standard error says why.
    bool add(const BookedDocument& document);

  private:
    std::string m_path;
    tool::Descriptor m_file;
    bool m_hasFailed = false;
};

}  // namespace sim
