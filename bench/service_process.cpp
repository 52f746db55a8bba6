// Measures fiscorad as a process of its own, and prints the figure. Under `fiscora sim`, which gives it a
// device.
//
// clang-format off
//     service_process waiting FOLDER           prints the peak resident MiB while 256 tills wait at once
//     service_process start FOLDER JOURNAL     prints the seconds from its start until it answers
//     service_process look-up FOLDER JOURNAL   prints the median seconds to look up a key; reads keys from
//                                              standard input, one per line
// clang-format on

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sale_document.h"
#include "service/ServiceClient.h"
#include "service/ServiceProcess.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int FIRST_PORT = 18000;
constexpr int TILLS = 256;
constexpr std::size_t SALE_BYTES = 3000;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double peakMiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; status >> word;)
        if (word == "VmHWM:" && status >> word) return std::stod(word) / 1024;
    throw std::runtime_error("no VmHWM");
}

long queueLength(const ServiceClient& client) {
    const auto answer = client.get("/v1/equipamento");
    if (!answer) throw std::runtime_error("fiscorad does not answer");
    return nlohmann::json::parse(answer->body).at("fila").get<long>();
}

/// What was resident at most when all tills wait: each on its connection, with its document in the queue.
double waitingMiB(const ServiceProcess& service, const ServiceClient& client) {
    std::vector<std::thread> tills;
    for (int i = 0; i < TILLS; ++i)
        tills.emplace_back([&client, i] {
            client.post("/v1/vendas",
                        {{"Idempotency-Key", "till-" + std::to_string(i)}, {"Prefer", "wait=10"}},
                        saleDocument(SALE_BYTES), "application/xml");
        });
    // All wait for 10 s at least; the device takes one of them away every two seconds.
    const auto start = Clock::now();
    while (queueLength(client) < TILLS - 5 && secondsSince(start) < 8)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const bool allWait = queueLength(client) >= TILLS - 5;
    for (std::thread& till : tills) till.join();
    if (!allWait) throw std::runtime_error("the tills did not all wait at once");
    return peakMiB(service.pid());
}

double lookUpSeconds(const ServiceClient& client) {
    std::vector<double> seconds;
    for (std::string key; std::getline(std::cin, key);) {
        const auto start = Clock::now();
        const auto answer = client.get("/v1/vendas/" + key);
        seconds.push_back(secondsSince(start));
        if (!answer || answer->status != 200) throw std::runtime_error(key + " is not found");
    }
    if (seconds.empty()) throw std::runtime_error("no keys");
    std::sort(seconds.begin(), seconds.end());
    return seconds[seconds.size() / 2];
}

}  // namespace

int main(int argc, char** argv) try {
    std::string figure;
    fs::path folder;
    fs::path journal;
    CLI::App application("Measures fiscorad as a process of its own");
    application.add_option("figure", figure)
        ->required()
        ->check(CLI::IsMember({"waiting", "start", "look-up"}));
    application.add_option("folder", folder)->required();
    application.add_option("journal", journal);
    CLI11_PARSE(application, argc, argv);

    ServiceProcess service({FISCORAD, folder, journal.empty() ? folder / "waiting.db" : journal,
                            ServiceProcess::freePort(FIRST_PORT), "12345678"});
    const ServiceClient client(service.place().port);
    const auto start = Clock::now();
    service.start();
    if (!service.isReady()) throw std::runtime_error("fiscorad does not start");
    const double startSeconds = secondsSince(start);
    const double result = figure == "waiting"   ? waitingMiB(service, client)
                          : figure == "look-up" ? lookUpSeconds(client)
                                                : startSeconds;
    std::printf("%.6f\n", result);
    return service.terminate();
} catch (const std::exception& failure) {
    std::fprintf(stderr, "service_process: %s\n", failure.what());
    return EXIT_FAILURE;
}
