#include "crash/Shop.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "Descriptor.h"
#include "crash/Till.h"
#include "crash/audit.h"
#include "service/ServiceClient.h"

namespace crash {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// Far from those of other shops, of this run or another one.
constexpr int FIRST_PORT = 18100;
constexpr int PORTS = 12000;
constexpr seconds QUIET_EVERY{60};
constexpr seconds QUIET_FOR{20};

/// What is left when the tills go home may take as long.
constexpr seconds SETTLING{300};

/// Between two kills, unless the second follows at once.
constexpr int LONGEST_LIFE_MS = 50'000;
constexpr int START_MS = 1500;  ///< a restart and what it does first
constexpr int WRITE_MS = 15;    ///< around the moment at which something was sent or answered

/// Tills at work, each on a thread of its own.
class Staff {
  public:
    Staff(Counter& counter, Random& random) {
        const std::vector ways{Till::Way::Keys, Till::Way::Keys, Till::Way::FormWithKeys, Till::Way::Form};
        for (std::size_t i = 0; i < ways.size(); ++i)
            m_tills.push_back(std::make_unique<Till>(counter, static_cast<int>(i) + 1, ways[i],
                                                     static_cast<unsigned>(random.number(0, 1 << 30))));
        for (const auto& till : m_tills)
            m_threads.emplace_back([&counter, till = till.get()] {
                try {
                    till->work();
                } catch (const std::exception& failure) {
                    counter.differ(std::string("a till: ") + failure.what());
                }
            });
    }

    /// Waits until all know what became of their documents; returns these.
    Records goHome() {
        Records all;
        for (std::thread& thread : m_threads) thread.join();
        for (const auto& till : m_tills)
            all.insert(all.end(), till->records().begin(), till->records().end());
        return all;
    }

  private:
    std::vector<std::unique_ptr<Till>> m_tills;
    std::vector<std::thread> m_threads;
};

/// Notes that it has ended by itself, which it never may.
void requireAlive(ServiceProcess& service, Counter& counter) {
    const auto status = service.ended();
    if (!status) return;
    counter.differ("fiscorad has ended by itself with status " + std::to_string(*status));
    service.start();
}

/// Lets the service live for a random time, which ends at a random moment, soon after its start, or right
/// when a till and it speak to each other: then it writes.
void letLive(Counter& counter, Random& random) {
    const auto sleep = [&](int mostMs) {
        std::this_thread::sleep_for(milliseconds(random.number(0, mostMs)));
    };
    switch (random.number(1, 4)) {
        case 1: return sleep(START_MS);
        case 2: return sleep(LONGEST_LIFE_MS);
        default:
            sleep(LONGEST_LIFE_MS);
            counter.awaitStir(seconds(3));
            std::this_thread::sleep_for(std::chrono::microseconds(random.number(0, WRITE_MS * 1000)));
    }
}

void killAgainAndAgain(ServiceProcess& service, Counter& counter, Random& random, int kills) {
    for (int i = 0; i < kills; ++i) {
        letLive(counter, random);
        requireAlive(service, counter);
        service.kill();
        counter.count("kills");
        if (random.oneIn(4)) std::this_thread::sleep_for(milliseconds(random.number(0, 2000)));
        service.start();
    }
}

/// Takes all space of the file system that the file is on.
void fill(const fs::path& file) {
    const tool::Descriptor ballast(
        open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR));
    for (std::string block(1 << 16, 'x'); !block.empty();) {
        if (write(ballast.get(), block.data(), block.size()) > 0) continue;
        if (errno != ENOSPC) throw std::system_error(errno, std::generic_category(), file);
        block.resize(block.size() / 2);
    }
}

/// Fills the disk again and again, and sees that a document is refused, and one booked after each.
void fillAgainAndAgain(ServiceProcess& service, Counter& counter, Random& random,
                       const ShopSettings& settings) {
    const fs::path ballast = settings.journal.parent_path() / "ballast";
    const auto await = [&](const std::string& what) {
        const long before = counter.counts()[what];
        const auto end = std::chrono::steady_clock::now() + seconds(90);
        while (counter.counts()[what] == before && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(milliseconds(100));
        if (counter.counts()[what] == before) counter.differ("no \"" + what + "\" within 90 s");
    };
    for (int i = 0; i < settings.fillings; ++i) {
        await("documents told as booked");
        std::this_thread::sleep_for(milliseconds(random.number(0, 3000)));
        // Its end leaves no write-ahead log, whose space would do for a long time.
        if (const int status = service.terminate(); status != 0)
            counter.differ("fiscorad ends with " + std::to_string(status));
        service.start();
        if (!service.isReady()) counter.differ("fiscorad does not start again");
        fill(ballast);
        counter.count("fillings");
        await("answers 503 and 504");
        const auto end = std::chrono::steady_clock::now() + milliseconds(random.number(0, 8000));
        while (std::chrono::steady_clock::now() < end) {
            fill(ballast);  // also what a commit has given back
            std::this_thread::sleep_for(milliseconds(50));
        }
        requireAlive(service, counter);
        fs::remove(ballast);
    }
    await("documents told as booked");
}

/// Waits until the service has nothing left to do: also with documents whose till does not know their key.
void awaitRest(const Counter& counter) {
    const ServiceClient client(counter.port());
    const auto isEmpty = [&](const std::string& list) {
        const auto page = client.get(list + "&limite=1");
        return page && page->status == 200 && nlohmann::json::parse(page->body).at("documentos").empty();
    };
    const std::vector<std::string> lists{
        "/v1/vendas?estado=na-fila",        "/v1/vendas?estado=enviada",
        "/v1/vendas?estado=incerta",        "/v1/cancelamentos?estado=na-fila",
        "/v1/cancelamentos?estado=enviada", "/v1/cancelamentos?estado=incerta"};
    const auto end = std::chrono::steady_clock::now() + SETTLING;
    // Twice, since a document can go from one list to another between two looks.
    for (int quiet = 0; quiet < 2 && std::chrono::steady_clock::now() < end;) {
        quiet = std::all_of(lists.begin(), lists.end(), isEmpty) ? quiet + 1 : 0;
        std::this_thread::sleep_for(milliseconds(200));
    }
}

void writeReport(const fs::path& file, const Counter& counter) {
    std::ofstream(file)
        << nlohmann::json{{"counts", counter.counts()}, {"differences", counter.differences()}}.dump(1);
}

}  // namespace

void Counter::stir() {
    const std::lock_guard lock(m_mutex);
    ++m_stirs;
    m_news.notify_all();
}

void Counter::awaitStir(milliseconds patience) {
    std::unique_lock lock(m_mutex);
    m_news.wait_for(lock, patience, [this, before = m_stirs] { return m_stirs != before; });
}

void Counter::close() {
    const std::lock_guard lock(m_mutex);
    m_closed = true;
}

bool Counter::isClosed() const {
    const std::lock_guard lock(m_mutex);
    return m_closed;
}

bool Counter::isQuiet() const {
    return (std::chrono::steady_clock::now() - m_opened) % QUIET_EVERY < QUIET_FOR;
}

void Counter::count(const std::string& what) {
    const std::lock_guard lock(m_mutex);
    ++m_counts[what];
}

void Counter::differ(const std::string& what) {
    const std::lock_guard lock(m_mutex);
    m_differences.push_back(what);
}

void Counter::inspect(const std::string& answer) {
    if (answer.find(m_secret) != std::string::npos)
        differ("an answer has the activation code: " + answer.substr(0, 200));
}

std::map<std::string, long> Counter::counts() const {
    const std::lock_guard lock(m_mutex);
    return m_counts;
}

std::vector<std::string> Counter::differences() const {
    const std::lock_guard lock(m_mutex);
    return m_differences;
}

void runShop(const ShopSettings& settings) {
    Random random(settings.seed);
    Counter counter(ServiceProcess::freePort(FIRST_PORT + getpid() % PORTS), ACTIVATION_CODE);
    ServiceProcess service(
        {settings.program, settings.folder, settings.journal, counter.port(), ACTIVATION_CODE});
    service.start();
    if (!service.isReady()) counter.differ("fiscorad does not start");

    Staff staff(counter, random);
    if (settings.fillings > 0) fillAgainAndAgain(service, counter, random, settings);
    killAgainAndAgain(service, counter, random, settings.kills);
    counter.close();
    const Records records = staff.goHome();
    requireAlive(service, counter);
    awaitRest(counter);
    audit(settings, records, service, counter);
    writeReport(settings.folder / REPORT_FILE, counter);
}

}  // namespace crash
