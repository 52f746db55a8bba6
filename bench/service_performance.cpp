// What fiscorad adds to the device's own time, and what it takes, with a target for each figure.
//
//     service_performance [--quick]
//
//     --quick  only checks that everything runs and no figure is missing; targets do not matter
//
// Exit status 1 if a figure is missing or misses its target.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Changes.h"
#include "Service.h"
#include "dispatcher/ActivationCode.h"
#include "dispatcher/Dispatcher.h"
#include "fiscal/operations.h"
#include "http/Server.h"
#include "journal/Journal.h"
#include "sale_document.h"
#include "service/ServiceClient.h"
#include "service/StampedDevice.h"
#include "service/million.h"
#include "table.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr double MS = 1e3, GIB = 1024.0 * 1024 * 1024;
constexpr std::size_t LARGEST_SALE = 100'000;

/// How much is measured.
struct Extent {
    int queued = 1000;  ///< documents, which are multiplied afterwards
    int tills = 200;
    int salesEach = 5;
    long documents = 1'000'000;
    int repetitions = 9;
};
constexpr Extent QUICK{20, 20, 2, 2000, 1};

/// A service in this process, on a device that answers at once: far more work per second than a real one can
/// bring.
class Shop {
  public:
    Shop(const fs::path& journal, const fs::path& codeFile, const std::string& serial, milliseconds latency)
        : device(serial, latency),
          m_journal(journal),
          m_code(codeFile),
          m_dispatcher(m_journal, device, m_code, m_changes, {"bench"}),
          service(m_journal, m_dispatcher, m_changes, 10'000) {}
    Shop(const Shop&) = delete;
    Shop& operator=(const Shop&) = delete;
    ~Shop() {
        m_dispatcher.stop();
        if (m_thread.joinable()) m_thread.join();
    }

    void open() {
        m_thread = std::thread([this] { m_dispatcher.run(); });
    }

    StampedDevice device;
    fiscorad::CallHistory calls;

  private:
    fiscorad::Journal m_journal;
    fiscorad::ActivationCode m_code;
    fiscorad::Changes m_changes;
    fiscorad::Dispatcher m_dispatcher;
    std::thread m_thread;

  public:
    fiscorad::Service service;
};

/// The value that `part` of them do not exceed.
double percentile(std::vector<double> values, double part) {
    if (values.empty()) throw std::runtime_error("nothing was measured");
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

/// Sales of 2400 to 4400 bytes; signed, they have 1600 more.
std::string sale(int number) { return saleDocument(2400 + static_cast<std::size_t>(number * 37 % 2000)); }

fiscorad::Submission submission(const std::string& key, int number) {
    return {key, fiscorad::Kind::Sale, std::nullopt, sale(number), ""};
}

/// Seconds between two calls of the device while documents wait, by what the first of them was.
struct Pauses {
    std::vector<double> all, afterQuery, afterSale;
};

Pauses measurePauses(const fs::path& journal, const fs::path& codeFile, const std::string& serial,
                     int documents) {
    Shop shop(journal, codeFile, serial, milliseconds(5));
    for (int i = 0; i < documents; ++i) shop.service.submit(submission(serial + "." + std::to_string(i), i));
    shop.open();
    while (shop.service.queueLength() > 0) std::this_thread::sleep_for(milliseconds(20));

    Pauses pauses;
    const auto calls = shop.device.calls();
    for (std::size_t i = 1; i < calls.size(); ++i) {
        const double seconds = std::chrono::duration<double>(calls[i].began - calls[i - 1].ended).count();
        pauses.all.push_back(seconds);
        const bool query = calls[i - 1].operation == manipulaDados::CMD_CONSULTA_STATUS_OP;
        (query ? pauses.afterQuery : pauses.afterSale).push_back(seconds);
    }
    return pauses;
}

/// Seconds from the device's answer to a sale until its till has it, over HTTP.
std::vector<double> measureAnswers(const fs::path& journal, const fs::path& codeFile, const Extent& extent) {
    Shop shop(journal, codeFile, "900004001", milliseconds(20));
    fiscorad::http::Server::Settings settings;
    settings.maxDocumentBytes = LARGEST_SALE;
    const fiscorad::http::Server server(shop.service, shop.calls, settings);
    shop.open();

    std::mutex mutex;
    std::vector<double> seconds;
    const auto sell = [&](int till) {
        const ServiceClient client(server.port());
        for (int i = 0; i < extent.salesEach; ++i) {
            const auto answer = client.post(
                "/v1/vendas",
                {{"Idempotency-Key", std::to_string(till) + "." + std::to_string(i)}, {"Prefer", "wait=120"}},
                sale(till), "application/xml");
            const auto now = StampedDevice::Clock::now();
            if (!answer || answer->status != 201) return;
            const auto body = nlohmann::json::parse(answer->body);
            const std::lock_guard lock(mutex);
            seconds.push_back(
                std::chrono::duration<double>(now - shop.device.answered(body.at("chaveConsulta")).value())
                    .count());
        }
    };
    std::vector<std::thread> tills;
    for (int till = 0; till < extent.tills; ++till) tills.emplace_back(sell, till);
    for (std::thread& till : tills) till.join();
    if (seconds.size() != static_cast<std::size_t>(extent.tills) * static_cast<std::size_t>(extent.salesEach))
        throw std::runtime_error("a till was not told that its sale is booked");
    return seconds;
}

/// A figure that service_process prints, under `fiscora sim`.
double figureOf(const std::string& arguments) {
    FILE* const output =
        popen((FISCORA_TOOL " sim --latency 1000 -- " SERVICE_PROCESS " " + arguments).c_str(), "r");
    double figure = 0;
    const bool read = output != nullptr && std::fscanf(output, "%lf", &figure) == 1;
    const int status = output == nullptr ? -1 : pclose(output);
    if (!read || status != 0 || figure <= 0)
        throw std::runtime_error("service_process " + arguments + " failed");
    return figure;
}

double medianFigure(const std::string& arguments, int repetitions) {
    std::vector<double> figures;
    for (int i = 0; i < repetitions; ++i) figures.push_back(figureOf(arguments));
    return percentile(figures, 0.5);
}

std::vector<Row> measure(const Extent& extent, const fs::path& folder) {
    const fs::path code = folder / "code";
    std::ofstream(code) << "12345678\n";
    fs::permissions(code, fs::perms::owner_read | fs::perms::owner_write);

    const fs::path journal = folder / "journal.db";
    const Pauses pauses = measurePauses(journal, code, "900004001", extent.queued);
    const auto answers = measureAnswers(folder / "answers.db", code, extent);
    const double waiting = figureOf("waiting " + folder.string());

    const auto keys = multiplyDocuments(journal, extent.documents);
    const fs::path keyFile = folder / "keys";
    {
        std::ofstream lines(keyFile);
        for (const std::string& key : keys) lines << key << "\n";
    }
    const std::string place = folder.string() + " " + journal.string();
    const double start = medianFigure("start " + place, extent.repetitions);
    const double lookUp = medianFigure("look-up " + place + " <" + keyFile.string(), 1);
    const auto size = static_cast<double>(fs::file_size(journal));

    const Pauses laterPauses = measurePauses(journal, code, "900004002", extent.queued / 5);

    const std::string documents = std::to_string(extent.documents) + " documents";
    return {
        atMost(10, "pause between two calls, median", "%.2f ms", percentile(pauses.all, 0.5) * MS),
        detail("  after the query; after the sale",
               formatted("%.2f", percentile(pauses.afterQuery, 0.5) * MS) + "; " +
                   formatted("%.2f ms", percentile(pauses.afterSale, 0.5) * MS)),
        detail("  99th percentile", formatted("%.2f ms", percentile(pauses.all, 0.99) * MS)),
        atMost(25, "device's answer to till's, " + std::to_string(extent.tills) + " tills, p99", "%.1f ms",
               percentile(answers, 0.99) * MS),
        detail("  median", formatted("%.1f ms", percentile(answers, 0.5) * MS)),
        atMost(96, "resident at most, 256 tills waiting", "%.1f MiB", waiting),
        atMost(1000, documents + ": start", "%.0f ms", start * MS),
        atMost(2, "  look-up of a key over HTTP, median", "%.2f ms", lookUp * MS),
        atMost(10, "  pause between two calls, median", "%.2f ms", percentile(laterPauses.all, 0.5) * MS),
        atMost(4, "  size of the journal", "%.2f GiB", size / GIB),
    };
}

}  // namespace

int main(int argc, char** argv) try {
    bool isQuick = false;
    CLI::App application("What fiscorad adds to the device's own time, and what it takes");
    application.add_flag("--quick", isQuick, "Only check that everything runs; targets do not matter");
    CLI11_PARSE(application, argc, argv);

    const fs::path folder = fs::absolute("build/bench/shop");
    fs::remove_all(folder);
    fs::create_directories(folder);
    const auto table = measure(isQuick ? QUICK : Extent(), folder);
    fs::remove_all(folder);
    return print(table, isQuick ? Targets::Ignored : Targets::Judged) ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "service_performance: %s\n", failure.what());
    return EXIT_FAILURE;
}
