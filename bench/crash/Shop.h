#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Random.h"
#include "crash/told.h"
#include "service/ServiceProcess.h"

namespace crash {

/// What the tills of a shop share.
class Counter {
  public:
    explicit Counter(int port, std::string secret) : m_port(port), m_secret(std::move(secret)) {}

    int port() const { return m_port; }

    /// Something was sent to the service, or came from it.
    void stir();
    /// Returns at the next stir, or after `patience`.
    void awaitStir(std::chrono::milliseconds patience);

    /// The tills take no new customers, and find out what became of the documents that they have handed in.
    void close();
    bool isClosed() const;

    /// At times only one till has customers, so that a sale may be cancelled before another follows.
    bool isQuiet() const;

    /// Counts `what`, for the summary.
    void count(const std::string& what);
    /// Something is not as it must be.
    void differ(const std::string& what);
    /// Each answer passes here: none may hold the activation code.
    void inspect(const std::string& answer);

    std::map<std::string, long> counts() const;
    std::vector<std::string> differences() const;

  private:
    const std::chrono::steady_clock::time_point m_opened = std::chrono::steady_clock::now();
    const int m_port;
    const std::string m_secret;
    mutable std::mutex m_mutex;
    std::condition_variable m_news;
    unsigned long m_stirs = 0;
    bool m_closed = false;
    std::map<std::string, long> m_counts;
    std::vector<std::string> m_differences;
};

struct ShopSettings {
    std::filesystem::path program;  ///< fiscorad
    std::filesystem::path folder;   ///< of this shop; with the ledger of its device
    std::filesystem::path journal;
    int kills = 0;
    int fillings = 0;  ///< of the disk on which the journal is
    unsigned seed = 0;
};

/// The names of the files in a shop's folder.
constexpr char LEDGER_FILE[] = "ledger";
constexpr char TRACE_FILE[] = "trace";    ///< what `fiscora sim --trace` prints
constexpr char REPORT_FILE[] = "report";  ///< counts and differences, for the program that started the shops

/// The code of all simulated devices. It occurs in nothing else.
constexpr char ACTIVATION_CODE[] = "segredo-7531-da-loja";

/// Opens the shop, kills the service or fills its disk, closes, compares, and writes the report. Under
/// `fiscora sim`.
void runShop(const ShopSettings& settings);

}  // namespace crash
