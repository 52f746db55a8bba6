// fiscorad under crashes. In each of several shops a simulated device fails in all its ways, tills sell,
// cancel, withdraw and repeat themselves, and fiscorad is killed at random moments and started again. At the
// end the faults stop, everything settles, and three records are compared: the device's ledger, the journal,
// and what the tills were told. They must agree on each document.
//
//     crash [--kills N] [--shops N] [--seed N]
//     crash --fill DISK [--seed N]     fills the disk with the journal instead, again and again
//
// What a shop leaves stays in FOLDER/shop-N (see --folder). The seed, printed first, chooses what tills and
// devices do, not when it meets. Exit status 1 if anything differs.

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Random.h"
#include "crash/Shop.h"
#include "sim/Fault.h"

namespace {

namespace fs = std::filesystem;

/// Exchanges between two kills, about.
constexpr int EXCHANGES_PER_KILL = 9;
constexpr int EXCHANGES_PER_FILLING = 12;
constexpr int FILLINGS = 5;
constexpr int EXCHANGES_PER_FAULT = 4;
/// That the devices remember, in turns: mostly so few that a session is often forgotten before it is asked
/// for.
constexpr std::array REMEMBERED_SESSIONS{3, 1, 32};
constexpr std::size_t SHOWN_DIFFERENCES = 20;

struct Options {
    int kills = 500;
    int shops = 6;
    unsigned seed = std::random_device{}() % 1'000'000;
    fs::path disk;
    fs::path folder = "build/crash/shops";
    int shop = 0;  ///< of the program's second role: to be that shop, under `fiscora sim`
};

/// Random faults in the device's first exchanges: none after these.
std::vector<std::string> faultOptions(unsigned seed, int exchanges) {
    Random random(seed);
    std::vector<std::string> options;
    for (int exchange = 1; exchange <= exchanges; ++exchange) {
        if (!random.oneIn(EXCHANGES_PER_FAULT)) continue;
        const sim::Fault& fault = random.oneOf(sim::faults());
        std::string text(fault.name);
        if (fault.measure != nullptr)
            text += "=" + std::to_string(random.number(1, static_cast<int>(fault.number)));
        options.insert(options.end(), {"--fault", text + "@" + std::to_string(exchange)});
    }
    return options;
}

/// The kills of that shop: as many as of the others, or one more.
int killsOf(const Options& options, int shop) {
    return options.kills / options.shops + (shop <= options.kills % options.shops ? 1 : 0);
}

unsigned seedOf(const Options& options, int shop) { return options.seed * 100 + static_cast<unsigned>(shop); }

fs::path folderOf(const Options& options, int shop) {
    return options.folder / ("shop-" + std::to_string(shop));
}

/// Starts this program once more, as that shop.
pid_t open(const Options& options, int shop) {
    const fs::path folder = folderOf(options, shop);
    fs::remove_all(folder);
    fs::create_directories(folder);
    const unsigned seed = seedOf(options, shop);
    const int exchanges =
        options.disk.empty() ? killsOf(options, shop) * EXCHANGES_PER_KILL : FILLINGS * EXCHANGES_PER_FILLING;
    std::vector<std::string> words{
        FISCORA_TOOL,
        "sim",
        "--trace",
        "--activation-code",
        crash::ACTIVATION_CODE,
        "--serial",
        std::to_string(900004000 + shop),
        "--memory",
        std::to_string(REMEMBERED_SESSIONS.at(static_cast<std::size_t>(shop) % REMEMBERED_SESSIONS.size())),
        "--ledger",
        folder / crash::LEDGER_FILE};
    const auto faults = faultOptions(seed, exchanges);
    words.insert(words.end(), faults.begin(), faults.end());
    const std::vector<std::string> rest{"--",       fs::read_symlink("/proc/self/exe"),
                                        "--shop",   std::to_string(shop),
                                        "--shops",  std::to_string(options.shops),
                                        "--kills",  std::to_string(options.kills),
                                        "--seed",   std::to_string(options.seed),
                                        "--folder", options.folder,
                                        "--fill",   options.disk};
    words.insert(words.end(), rest.begin(), rest.end());
    if (options.disk.empty()) words.resize(words.size() - 2);

    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::ofstream ledger(folder / crash::LEDGER_FILE);  // also if nothing is ever booked
    ledger.close();
    const fs::path trace = folder / crash::TRACE_FILE;
    const pid_t pid = fork();
    if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    setenv("LC_ALL", "C", 1);  // the trace is read by crash/trace.cpp
    if (std::freopen(trace.c_str(), "w", stderr) == nullptr) _exit(126);
    execv(arguments.front(), arguments.data());
    _exit(127);
}

struct Report {
    std::map<std::string, long> counts;
    std::vector<std::string> differences;
};

void add(Report& all, const Options& options, int shop) {
    const std::string name = "shop " + std::to_string(shop) + ": ";
    std::ifstream file(folderOf(options, shop) / crash::REPORT_FILE);
    const auto report = nlohmann::json::parse(file, nullptr, false);
    if (!report.is_object()) {
        all.differences.push_back(name + "it has left no report; see " + folderOf(options, shop).string());
        return;
    }
    for (const auto& [what, count] : report.at("counts").items()) all.counts[what] += count.get<long>();
    for (const auto& what : report.at("differences"))
        all.differences.push_back(name + what.get<std::string>());
}

/// What makes the run worth something: a run in which none of these happened proves nothing.
void requireEvents(Report& all, const Options& options) {
    const auto require = [&](const std::string& what, long least) {
        if (all.counts[what] < least)
            all.differences.push_back(std::to_string(all.counts[what]) + " " + what + ", and not " +
                                      std::to_string(least));
    };
    const bool fills = !options.disk.empty();
    require(fills ? "fillings" : "kills", fills ? FILLINGS : options.kills);
    require("faults of the device", fills ? FILLINGS : options.kills / 2);
    require("documents emitida", fills ? FILLINGS : options.kills / 4);
    require("signed documents compared", all.counts["documents emitida"]);
    require("fiscorad check", 2L * options.shops);
}

int print(const Report& all) {
    for (const auto& [what, count] : all.counts) std::printf("%8ld  %s\n", count, what.c_str());
    std::printf("%8zu  differences\n", all.differences.size());
    for (std::size_t i = 0; i < std::min(all.differences.size(), SHOWN_DIFFERENCES); ++i)
        std::printf("    %s\n", all.differences[i].c_str());
    return all.differences.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

int runShops(const Options& options) {
    std::printf("%s, %d shops, seed %u\n",
                options.disk.empty() ? (std::to_string(options.kills) + " kills").c_str() : "a full disk",
                options.shops, options.seed);
    std::fflush(stdout);
    std::vector<pid_t> shops;
    for (int shop = 1; shop <= options.shops; ++shop) shops.push_back(open(options, shop));
    Report all;
    for (int shop = 1; shop <= options.shops; ++shop) {
        int status = 0;
        while (waitpid(shops[static_cast<std::size_t>(shop) - 1], &status, 0) < 0 && errno == EINTR) continue;
        if (status != 0)
            all.differences.push_back("shop " + std::to_string(shop) + " ends with status " +
                                      std::to_string(status));
        add(all, options, shop);
    }
    requireEvents(all, options);
    return print(all);
}

}  // namespace

int main(int argc, char** argv) try {
    Options options;
    CLI::App application("fiscorad under crashes");
    application
        .add_option("--kills", options.kills, "How often fiscorad is killed, over all shops (default 500)")
        ->check(CLI::Range(1, 1'000'000));
    application
        .add_option("--shops", options.shops,
                    "Shops, each with a device of its own, at the same time (default 6)")
        ->check(CLI::Range(1, 100));
    application.add_option("--seed", options.seed, "Repeat what tills and devices do")
        ->check(CLI::Range(0, 999'999));
    application.add_option("--fill", options.disk,
                           "Instead of killing: fill this small disk with the journal on it");
    application.add_option("--folder", options.folder, "What the shops leave (default build/crash/shops)");
    application.add_option("--shop", options.shop)->group("");
    CLI11_PARSE(application, argc, argv);
    options.folder = fs::absolute(options.folder);
    if (!options.disk.empty()) options.shops = 1;
    if (options.shop == 0) return runShops(options);

    const fs::path folder = folderOf(options, options.shop);
    const bool fills = !options.disk.empty();
    crash::runShop({FISCORAD, folder, (fills ? options.disk : folder) / "journal.db",
                    fills ? 0 : killsOf(options, options.shop), fills ? FILLINGS : 0,
                    seedOf(options, options.shop)});
    return EXIT_SUCCESS;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "crash: %s\n", failure.what());
    return EXIT_FAILURE;
}
