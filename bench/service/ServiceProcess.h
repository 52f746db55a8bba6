#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

/// A fiscorad of our own, on 127.0.0.1. It ends with the thread that started it, however that ends.
class ServiceProcess {
  public:
    /// In the folder.
    static constexpr char CODE_FILE[] = "activation-code";

    struct Place {
        std::filesystem::path program;  ///< fiscorad
        std::filesystem::path folder;   ///< to run in: service.log, the code file, the library's log
        std::filesystem::path journal;
        int port = 0;
        std::string activationCode;
    };

    /// Writes the code file.
    explicit ServiceProcess(Place place);
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;
    /// Kills it.
    ~ServiceProcess();

    void start();
    /// Ends it by SIGKILL.
    void kill();
    /// Ends it by SIGTERM; returns its exit status, or 128 plus the signal that ended it.
    int terminate();
    /// Its exit status if it has ended by itself.
    std::optional<int> ended();
    /// Whether it answers within 10 s.
    bool isReady() const;

    pid_t pid() const { return m_pid; }
    const Place& place() const { return m_place; }

    /// Runs `fiscorad COMMAND` on the same journal; returns its exit status. What it prints goes to `output`.
    int run(const std::string& command, const std::filesystem::path& output) const;

    /// A port that nobody listens on, outside of the range from which the kernel takes ports for clients:
    /// while the service is down, none of them gets it.
    static int freePort(int from);

  private:
    pid_t spawn(const std::vector<std::string>& words, const std::filesystem::path& output) const;

    Place m_place;
    pid_t m_pid = -1;
};
