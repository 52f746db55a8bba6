#pragma once

#include <sys/signalfd.h>
#include <sys/types.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "sim/PtyLine.h"

namespace sim {

// Exit statuses of shells, env and timeout.
constexpr int CANNOT_EXECUTE = 126;
constexpr int NOT_FOUND = 127;
constexpr int KILLED_BY_SIGNAL = 128;

/// Holds back the signals that concern `fiscora sim`, so that they are read one by one and none ends it
/// before it has cleaned up. Throws std::system_error if the machine cannot do that.
class Signals {
  public:
    Signals();

    /// To poll for input.
    int fd() const { return m_fd.get(); }
    /// For the command, which starts with the signals that `fiscora sim` was started with.
    void restore() const;
    /// The next signal that has come, if any.
    std::optional<signalfd_siginfo> next() const;

  private:
    sigset_t m_before{};
    tool::Descriptor m_fd;
};

/// A command that runs in the simulation: it meets the simulated line, and no real device.
class Child {
  public:
    /// Starts `program` with `words` as its arguments (the first one its name). Throws std::runtime_error
    /// with a text in the user's language if it cannot; a program that cannot be executed ends at once
    /// instead, with CANNOT_EXECUTE or NOT_FOUND.
    Child(const std::filesystem::path& program, const std::vector<std::string>& words, const PtyLine& line,
          const Signals& signals);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    /// Ends the command if it still runs, and waits for that.
    ~Child();

    /// Sends `signal` to the command, and wakes it if it is stopped.
    void pass(int signal) const;
    /// The exit status, once the command has ended.
    std::optional<int> ended();

  private:
    pid_t m_pid = -1;
};

}  // namespace sim
