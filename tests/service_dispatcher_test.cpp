// The dispatcher with simulated devices that fail in every way, a clock of its own, and processes that end in
// the middle of a call. What the devices have booked is compared with the journal.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Changes.h"
#include "dispatcher/ActivationCode.h"
#include "dispatcher/Dispatcher.h"
#include "fields.h"
#include "fiscal/operations.h"
#include "fiscora.h"
#include "journal/Journal.h"
#include "platform.h"
#include "sim/SimulatedDevice.h"

namespace {

using namespace fiscorad;
using namespace std::chrono_literals;
using rules::Clock;

constexpr char CODE[] = "12345678";

/// The process was killed at this point.
struct Killed {};

enum class Fault {
    None,
    NotReached,    ///< the line is dead before the device has the request
    Swallowed,     ///< the device does it, and its answer is lost
    Late,          ///< the device does it; its answer comes to the next call of that operation
    Busy,          ///< the device says so and does nothing
    NoCode,        ///< the device does it; EEEEE has four digits
    Restart,       ///< the device does it, and comes back with its books and without its sessions
    Unplugged,     ///< in the middle of the call, after the device has done it
    Swapped,       ///< the same, and another device comes in its place
    KilledBefore,  ///< the service ends before the device has the request
    KilledAfter,   ///< the service ends after the device has done it
};
constexpr std::array ALL_FAULTS{Fault::NotReached,   Fault::Swallowed,  Fault::Late,      Fault::Busy,
                                Fault::NoCode,       Fault::Restart,    Fault::Unplugged, Fault::Swapped,
                                Fault::KilledBefore, Fault::KilledAfter};

struct Booked {
    std::string serial;
    std::string session;
    std::string key;
    std::string request;
};

/// Two devices, of which one is plugged in or none, and the time that passes.
class Devices : public Equipment {
  public:
    Devices(std::size_t memory, sim::DeviceState state) {
        for (const char* serial : {"900004019", "900004020"}) {
            sim::DeviceSettings settings;
            settings.serialNumber = serial;
            settings.activationCode = CODE;
            settings.memory = memory;
            settings.state = state;
            settings.booked = [this, serial](const sim::BookedDocument& document) {
                ledger.push_back({serial, std::string(document.session), std::string(document.key),
                                  std::string(document.request)});
                return true;
            };
            m_devices.push_back(std::make_unique<sim::SimulatedDevice>(settings));
        }
    }

    std::optional<std::uint64_t> connection() override {
        return plugged < 0 ? std::nullopt : std::optional(m_connection);
    }
    void plug(int device) {
        plugged = device;
        m_late = {};
        ++m_connection;
    }

    rules::Reply call(const manipulaDados::Operation& operation,
                      const std::vector<manipulaDados::Argument>& arguments) override {
        manipulaDados::ManipulaDadosSat library;
        const auto request = library.makeRequest(operation, arguments);
        const auto began = now;
        std::exchange(during, [] {})();
        now += 1200ms;
        if (plugged < 0) return {FISCORA_STATUS_NO_ANSWER, 0, ""};
        const Fault fault = nextFault(operation);
        if (fault == Fault::KilledBefore) throw Killed();
        if (fault == Fault::NotReached) return {FISCORA_STATUS_NO_ANSWER, 0, ""};
        const std::string session = request->substr(0, 6);
        if (fault == Fault::Busy)
            return {0, 0, session + "|" + operation.codePrefix + "098|SAT em processamento||"};

        std::string answer =
            m_devices[static_cast<std::size_t>(plugged)]->answer(operation.command, *request);
        if (cancellationsDoNotCount) hideCancellation(operation, answer);
        switch (fault) {
            case Fault::Swallowed:
                now += std::chrono::milliseconds(operation.timeoutMs);
                return {32768, 0, ""};
            case Fault::Late:
                now += std::chrono::milliseconds(operation.timeoutMs);
                m_late = {operation.command, std::move(answer), now + 1500ms};
                return {32768, 0, ""};
            case Fault::NoCode: return {0, 0, session + "|6000|" + answer.substr(answer.find('|', 7) + 1)};
            case Fault::Restart:
                m_devices[static_cast<std::size_t>(plugged)]->forgetSessions();
                plug(plugged);
                return {FISCORA_STATUS_READ_ERROR, 0, ""};
            case Fault::Unplugged: plug(-1); return {FISCORA_STATUS_READ_ERROR, 0, ""};
            case Fault::Swapped: plug(1 - plugged); return {FISCORA_STATUS_READ_ERROR, 0, ""};
            case Fault::KilledAfter: throw Killed();
            default: break;
        }
        if (m_late.operation != operation.command || began > m_late.arrives) return {0, 0, answer};
        std::swap(answer, m_late.answer);  // this call's own comes late in turn
        m_late.arrives = now + 1500ms;
        return {0, 0, answer};
    }

    /// Another program's call.
    std::string otherProgram(const std::string& operation, const std::string& request) {
        return m_devices[static_cast<std::size_t>(plugged)]->answer(operation, request);
    }

    Clock::time_point now{1h};
    int plugged = 0;
    bool cancellationsDoNotCount = false;
    std::deque<Fault> faults;  ///< of the next calls that book; then `random`
    std::function<Fault()> random = [] { return Fault::None; };
    std::function<void()> during = [] {};  ///< the next call
    std::vector<Booked> ledger;

  private:
    Fault nextFault(const manipulaDados::Operation& operation) {
        if (operation.effect == manipulaDados::Effect::Books && !faults.empty()) {
            const Fault fault = faults.front();
            faults.pop_front();
            return fault;
        }
        return random();
    }
    void hideCancellation(const manipulaDados::Operation& operation, std::string& answer) {
        const std::string command = operation.command;
        if (command == manipulaDados::CMD_ENVIAR_DADOS_VENDA && !ledger.empty())
            m_lastSale = ledger.back().key.substr(3);
        if (command != manipulaDados::CMD_CONSULTA_STATUS_OP || ledger.empty()) return;
        const std::string shown = ledger.back().key.substr(3);
        for (auto at = answer.find(shown); at != std::string::npos; at = answer.find(shown, at + 1))
            answer.replace(at, shown.size(), m_lastSale);
    }

    std::vector<std::unique_ptr<sim::SimulatedDevice>> m_devices;
    std::uint64_t m_connection = 1;
    /// An answer that comes into the next call of that operation, unless that begins after it has arrived.
    struct {
        std::string operation;
        std::string answer;
        Clock::time_point arrives;
    } m_late;
    std::string m_lastSale;
};

std::string sale(const std::string& product) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><CFe><infCFe versaoDadosEnt=\"0.08\"><ide><CNPJ>16716114000172</CNPJ>"
           "<signAC>x</signAC><numeroCaixa>001</numeroCaixa></ide><emit><CNPJ>14200166000166</CNPJ></emit><dest/>"
           "<det nItem=\"1\"><prod><xProd>" +
           product +
           "</xProd><qCom>1.0000</qCom><vUnCom>5.00</vUnCom></prod></det><total/><pgto><MP><cMP>01</cMP><vMP>5.00</vMP></MP>"
           "</pgto></infCFe></CFe>";
}

std::string cancellation(const std::string& key) {
    return "<CFeCanc><infCFe chCanc=\"" + key +
           "\"><ide><CNPJ>16716114000172</CNPJ><signAC>x</signAC><numeroCaixa>001</numeroCaixa></ide></infCFe></CFeCanc>";
}

/// The service on one journal; it can be killed and started again.
class Shop {
  public:
    explicit Shop(std::size_t memory = 32, sim::DeviceState state = sim::DeviceState::Active)
        : devices(memory, state) {
        std::ofstream("code") << CODE << "\n";
        std::filesystem::permissions("code", std::filesystem::perms::owner_read);
        start();
    }
    void start() {
        m_dispatcher.reset();
        m_journal = std::make_unique<Journal>("journal.db");
        m_code = std::make_unique<ActivationCode>("code");
        m_dispatcher =
            std::make_unique<Dispatcher>(*m_journal, devices, *m_code, m_changes,
                                         Dispatcher::Settings{"host", [this] { return devices.now; }});
    }
    Journal& journal() { return *m_journal; }

    void sell(const std::string& key) { m_journal->submit({key, Kind::Sale, {}, sale(key), ""}, 1000); }
    void cancel(const std::string& key, const std::string& saleKey) {
        m_journal->submit({key, Kind::Cancellation, {}, cancellation(saleKey), saleKey}, 1000);
    }
    /// Takes steps until there is nothing to do, at most for that time.
    void work(std::chrono::seconds most = 1h) {
        const auto end = devices.now + most;
        int idle = 0;
        while (devices.now < end && idle < 3) {
            auto pause = 1000ms;
            try {
                pause = m_dispatcher->step();
            } catch (const Killed&) {
                start();
            }
            const bool waits =
                journal().open().empty() && (!journal().oldestQueued() || devices.plugged < 0 || halted());
            idle = pause >= 1s && waits ? idle + 1 : 0;
            devices.now += pause;
        }
    }
    OperationResult operate(const char* command, std::map<std::string, std::string> arguments = {}) {
        std::optional<OperationResult> result;
        m_dispatcher->operate({manipulaDados::findOperation(command), std::move(arguments)},
                              [&](const OperationResult& done) { result = done; });
        work(10s);
        return result.value();
    }
    bool moves() { return m_dispatcher->moves(); }
    bool halted() { return m_dispatcher->device().condition == DeviceState::Condition::Divergent; }
    State stateOf(const std::string& key) { return journal().find(key).value().state; }
    std::size_t bookings(const std::string& key) {
        return static_cast<std::size_t>(
            std::count_if(devices.ledger.begin(), devices.ledger.end(),
                          [&](const Booked& entry) { return entry.request == sale(key); }));
    }

    WorkingDirectory folder;
    Devices devices;

  private:
    std::unique_ptr<Journal> m_journal;
    std::unique_ptr<ActivationCode> m_code;
    Changes m_changes;
    std::unique_ptr<Dispatcher> m_dispatcher;
};

struct Ending {
    const char* name;
    std::vector<Fault> faults;  ///< of the calls for the first document, one after the other
    State state;
    std::size_t bookings;
};

void PrintTo(const Ending& ending, std::ostream* out) { *out << ending.name; }

class EndingOfASale : public testing::TestWithParam<Ending> {};

TEST_P(EndingOfASale, IsThatOfTheDevice) {
    Shop shop;
    shop.devices.faults.assign(GetParam().faults.begin(), GetParam().faults.end());
    shop.sell("one");
    shop.sell("two");
    shop.work();
    if (shop.devices.plugged != 0) shop.devices.plug(0);
    shop.work();
    EXPECT_EQ(nameOf(shop.stateOf("one")), nameOf(GetParam().state));
    EXPECT_EQ(shop.bookings("one"), GetParam().bookings);
    EXPECT_EQ(nameOf(shop.stateOf("two")), "emitida")
        << "a document without an outcome must not hold up the others";
    EXPECT_EQ(shop.bookings("two"), 1U);
    for (const char* key : {"one", "two"}) {
        const Document document = shop.journal().find(key).value();
        if (document.state != State::Booked) continue;
        const auto entry = std::find_if(shop.devices.ledger.begin(), shop.devices.ledger.end(),
                                        [&](const Booked& booked) { return booked.request == sale(key); });
        EXPECT_EQ(document.accessKey, entry->key);
        EXPECT_NE(shop.journal().signedDocument(document.id).value_or("").find(entry->key),
                  std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, EndingOfASale,
    testing::Values(Ending{"WithoutFault", {}, State::Booked, 1},
                    Ending{"NotReachedOnce", {Fault::NotReached}, State::Booked, 1},
                    Ending{"NotReachedThreeTimes",
                           {Fault::NotReached, Fault::NotReached, Fault::NotReached},
                           State::Undecided,
                           0},
                    Ending{"Swallowed", {Fault::Swallowed}, State::Booked, 1},
                    Ending{"Late", {Fault::Late}, State::Booked, 1},
                    Ending{"BusyThenFree", {Fault::Busy}, State::Booked, 1},
                    Ending{"CodeOfFourDigits", {Fault::NoCode}, State::Booked, 1},
                    Ending{"RestartWithoutSessions", {Fault::Restart}, State::Undecided, 1},
                    Ending{"Unplugged", {Fault::Unplugged}, State::Booked, 1},
                    Ending{"SwappedAndSwappedBack", {Fault::Swapped}, State::Booked, 1},
                    Ending{"KilledBeforeTheDeviceHadIt", {Fault::KilledBefore}, State::Booked, 1},
                    Ending{"KilledAfterTheDeviceHadIt", {Fault::KilledAfter}, State::Booked, 1}),
    [](const auto& info) { return info.param.name; });

TEST(Dispatcher, MovesAsLongAsNothingHangs) {
    Shop shop;
    bool duringALongCall = false;
    bool duringAnEndlessCall = true;
    shop.devices.during = [&] {
        shop.devices.now += 30s;
        duringALongCall = shop.moves();
        shop.devices.now += 30min;
        duringAnEndlessCall = shop.moves();
    };
    shop.sell("one");
    shop.work();
    EXPECT_TRUE(duringALongCall) << "a slow device must not have the service killed";
    EXPECT_FALSE(duringAnEndlessCall) << "nobody would restart a service that hangs";
    EXPECT_TRUE(shop.moves()) << "it moves again after the call";
    shop.devices.now += 2min;
    EXPECT_FALSE(shop.moves()) << "a thread that takes no more steps has ended or hangs";
}

TEST(Cancellation, IsNeverTakenAsNotBooked) {
    Shop shop;
    shop.devices.cancellationsDoNotCount = true;
    shop.sell("sale");
    shop.work();
    const std::string key = shop.journal().find("sale").value().accessKey;
    shop.devices.faults = {Fault::Restart};
    shop.cancel("cancellation", key);
    shop.sell("next");
    shop.work();
    EXPECT_EQ(nameOf(shop.stateOf("cancellation")), "a-decidir");
    EXPECT_EQ(nameOf(shop.stateOf("next")), "emitida");
}

TEST(Refusal, IsKnownThoughItsAnswerIsLost) {
    for (const std::size_t memory : {32U, 1U}) {
        SCOPED_TRACE(std::to_string(memory) + " sessions remembered");
        Shop shop(memory);
        shop.devices.faults = {Fault::Unplugged, Fault::NotReached};
        shop.journal().submit({"refused", Kind::Sale, {}, "<CFe>", ""}, 1000);
        shop.sell("next");
        shop.work();
        shop.devices.plug(0);
        shop.work();
        EXPECT_EQ(nameOf(shop.stateOf("refused")), "recusada");
        EXPECT_NE(shop.journal().find("refused")->answer.find("|06010|"), std::string::npos);
        EXPECT_EQ(nameOf(shop.stateOf("next")), "emitida");
    }
}

TEST(Device, IsNotSoldOnWhileItShowsADocumentThatNobodyExplains) {
    Shop shop;
    shop.sell("ours");
    shop.work();
    shop.devices.otherProgram("EnviarDadosVenda", std::string("999999|") + CODE + "|" + sale("theirs"));
    shop.sell("waits");
    shop.work();
    EXPECT_EQ(nameOf(shop.stateOf("waits")), "na-fila");
    EXPECT_TRUE(shop.halted());
    EXPECT_EQ(shop.operate("ConsultarSAT").status, FISCORA_STATUS_OK);
    EXPECT_TRUE(shop.halted());
    ASSERT_EQ(shop.journal().alarms().size(), 1U);
    EXPECT_EQ("CFe" + shop.journal().alarms().front().shown, shop.devices.ledger.back().key);
    shop.journal().confirm(shop.journal().alarms().front().id, "Ana", "vendido pelo programa antigo");
    shop.work();
    EXPECT_EQ(nameOf(shop.stateOf("waits")), "emitida");
    EXPECT_TRUE(shop.journal().alarms().empty());
}

TEST(ActivationCode, StopsAllCallsWhenWrongUntilItsFileChanges) {
    Shop shop;
    shop.devices.otherProgram("TrocarCodigoDeAtivacao",
                              std::string("999999|") + CODE + "|1|87654321|87654321");
    shop.sell("sale");
    shop.work(60s);
    const auto before = shop.devices.now;
    shop.work(60s);
    EXPECT_GE(shop.devices.now - before, 60s);
    EXPECT_EQ(shop.devices.now.time_since_epoch() % 1s, before.time_since_epoch() % 1s) << "a call was made";
    EXPECT_EQ(nameOf(shop.stateOf("sale")), "na-fila");
    EXPECT_EQ(shop.operate("ConsultarSAT").result, OperationResult::Result::CodeRefused);
    const OperationResult reached = shop.operate("TrocarCodigoDeAtivacao", {{"opcao", "2"},
                                                                            {"codigoDeAtivacao", "00000000"},
                                                                            {"novoCodigo", "11112222"},
                                                                            {"confNovoCodigo", "11112222"}});
    EXPECT_EQ(reached.result, OperationResult::Result::Done) << "it brings the emergency code";
}

TEST(ActivationCode, IsSetThoughTheDeviceRefusesThePresentOne) {
    Shop shop(32, sim::DeviceState::NotActivated);
    shop.sell("sale");
    shop.work(60s);
    EXPECT_EQ(nameOf(shop.stateOf("sale")), "na-fila");
    const OperationResult activated =
        shop.operate("AtivarSAT", {{"subComando", "1"}, {"cnpj", "14200166000166"}, {"cUF", "35"}});
    EXPECT_NE(activated.answer.find("|04000|"), std::string::npos) << activated.answer;
    shop.work();
    EXPECT_EQ(nameOf(shop.stateOf("sale")), "emitida");
}

// A day of tills, faults, crashes, unplugged and swapped devices, in an order that the seed decides.
TEST(AnyHistory, BooksEachKeyAtMostOnceAndLosesNoOutcome) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const auto oneIn = [&](unsigned times) { return random() % times == 0; };
        Shop shop(2);
        shop.devices.random = [&] {
            return oneIn(4) ? ALL_FAULTS[random() % ALL_FAULTS.size()] : Fault::None;
        };
        std::vector<std::string> keys;
        for (int event = 0; event < 40; ++event) {
            if (oneIn(2)) {
                keys.push_back("key" + std::to_string(event));
                shop.sell(keys.back());
            }
            if (!keys.empty()) shop.sell(keys[random() % keys.size()]);  // again
            if (oneIn(8)) shop.journal().withdraw("key" + std::to_string(event), Kind::Sale, {});
            if (oneIn(6)) shop.devices.plug(static_cast<int>(random() % 3) - 1);
            shop.work(std::chrono::seconds(random() % 60));
        }
        shop.devices.random = [] { return Fault::None; };
        for (const int device : {1, 0}) {
            shop.devices.plug(device);
            shop.work();
        }
        for (const std::string& key : keys) {
            const Document document = shop.journal().find(key).value();
            const std::size_t bookings = shop.bookings(key);
            EXPECT_LE(bookings, 1U) << key;
            EXPECT_TRUE(isFinal(document.state) || document.state == State::Undecided)
                << key << " " << nameOf(document.state);
            if (document.state == State::Booked) {
                EXPECT_EQ(bookings, 1U) << key;
            }
            if (document.state == State::Refused || document.state == State::Withdrawn) {
                EXPECT_EQ(bookings, 0U) << key << " " << nameOf(document.state);
            }
        }
    }
}

}  // namespace
