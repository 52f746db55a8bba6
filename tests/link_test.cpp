// Exchanges on a line and a clock that the test holds in its hand: each byte and each pause is exact.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>
#include <utility>

#include "platform.h"
#include "transaction/DoTransaction.h"

namespace {

using Lines = std::vector<std::string>;

pbs::Message message(const std::string& code, const std::string& body) {
    pbs::Message result(code, "3");
    result.setBody(body);
    result.compress();
    return result;
}

struct World {
    WorkingDirectory folder;
    const bool logs = std::filesystem::create_directory("logsDrs");
    FakeLine line;
    DoTransaction transaction;
    serial::SerialCommChannel channel;
    pbs::Message answer;
};

/// A log as one character a line; a point stands for the lines whose text varies.
std::string events(const Lines& log) {
    static const std::map<std::string, char> NAMES = {
        {"info, [SerialCommChannel::send_data] Enviado com sucesso", 's'},
        {"info, [SerialCommChannel::send_data] Falha no envio.", 'f'},
        {"info, [SerialCommChannel::receive_data] __NOERROR__", 'A'},
        {"info, Comando invalido", 'R'},
        {"info, Reinicio do timeout", 'r'},
        {"error, [SerialCommChannel::receive_data] PARSER_SYNTAX_ERROR", 'S'},
        {"error, [SerialCommChannel::receive_data] PARSER_CHECKSUM_ERROR", 'C'},
        {"error,  [SerialCommChannel::receive_data] __READERROR__", 'E'},
        {"error,  [SerialCommChannel::receive_data] __TIMEOUT__", 'T'}};
    std::string result;
    for (const auto& line : log) result += NAMES.count(line) > 0 ? NAMES.at(line) : '.';
    return result;
}

TEST(Link, AScriptOfTheLineEndsInAnotherStatusLogAnswerOrTime) {
    const std::string good = message("C", "good").toString(), other = message("c", "other").toString();
    const std::string bad = "smx\r\n?\r\n\r\n\r\n", damaged = good.substr(0, good.size() - 1) + "?";
    pbs::Message corrupt = message("C", ""), tooLarge = message("C", std::string(1572865, 'x'));
    corrupt.setBody("no zlib stream");
    std::deque<FakeLine::Reading> sixRefused(6, {other, 0, 300}), fiveRefused(5, {other, 0, 500}), late(499);
    fiveRefused.push_back({good, 0, 499});
    late.push_back({"?"});
    const struct {
        std::string name, events;
        size_t answerSize;
        std::deque<FakeLine::Reading> readings;  // from 200 ms on: a write and the pause behind it
        int status;
        long ms;
        int timeoutMs = 500, taken = 1000;  // by the first write
    } scripts[] = {
        {"junk, good in parts", "sA", 4, {{"?smx\r?s"}, {good.substr(1, 9)}, {good.substr(10)}}, 0, 200},
        {"largest body", "sA", 1572864, {{message("C", std::string(1572864, 'x')).toString()}}, 0, 200},
        {"one byte more", "sRrA", 4, {{tooLarge.toString()}, {good}}, 0, 200},
        {"request unsent, silence for 499 reads", "fE", 0, {}, 2, 51100, 60000, -1},
        {"first write takes nothing, silence for 500 reads", ".sE", 0, {}, 2, 51300, 60000, 0},
        {"byte in the 500th of silence", "sE", 0, late, 2, 51200, 60000},
        {"1 ms before the timeout", "sA", 4, {{good, 0, 299}}, 0, 499},
        {"at the timeout", "sAT", 4, {{good, 0, 300}}, 32768, 500},
        {"clock set forward by a month", "sT", 0, {{"", 0, 2'592'000'000}}, 32768, 2'592'000'200},
        {"clock set back", "sA", 4, {{"", 0, -5000}, {good, 0, 5250}}, 0, 450},
        {"good and part of one, read error", "sAE", 4, {{good + "s"}, {"", -1, 600}}, 2, 800},
        {"good and part of one, silence", "sAT", 4, {{good + "?"}}, 32768, 600},
        {"damaged", "sC", 0, {{damaged}, {good}}, 1, 200},
        {"bad, damaged and part of one", "sSCA", 4, {{bad + damaged + "?"}, {good}}, 0, 200},
        {"good, corrupt, bad", "sAAS", 14, {{good + corrupt.toString() + bad}}, 0, 200},
        {"good, refused, bad", "sARrS", 4, {{good + other + bad}}, 4, 200},
        {"five refused", "sRrRrRrRrRrA", 4, fiveRefused, 0, 3199},
        {"six refused", "sRrRrRrRrRrR", 0, sixRefused, 4, 2000},
    };
    for (const auto& script : scripts) {
        SCOPED_TRACE(script.name);
        World world;
        world.line.readings = script.readings;
        world.line.writeResult = [&, taken = script.taken](int length) mutable {
            world.line.advanceMs(100);
            return std::min(std::exchange(taken, length), length);
        };
        EXPECT_EQ(world.transaction.run(script.timeoutMs, "C", "1", world.answer), script.status);
        EXPECT_EQ(world.line.nowMs(), script.ms);
        EXPECT_EQ(world.answer.bodySize(), script.answerSize);
        EXPECT_EQ(events(world.folder.logLines()), "..." + script.events + ".");
    }
}

TEST(Link, AnExchangeCallsThePlatformInAnotherOrderOrSetsTheLineUpOtherwise) {
    World world;
    world.line.readings = {{message("C", "1").toString()}};
    EXPECT_EQ(DoTransaction().run(500, "C", "1", world.answer), 0);
    EXPECT_EQ(world.line.calls,
              Lines({"popen ls -l /dev/serial/by-id > /dev/null 2>&1 && ls -l /dev/serial/by-id | "
                     "grep \"\\-mfc+_with_musb\" | tail -1",
                     "open /dev/ttyACM0 258", "isatty 1000", "tcgetattr", "tcflush 1000 2", "tcsetattr 0",
                     "write 184", "TIOCOUTQ", "tcflush 1000 1", "usleep 100000", "read 8192",
                     "tcflush 1000 2", "tcflush 1000 0", "tcflush 1000 1", "close", "usleep 1000000"}));
    pbs::Message command = message("C", "1");
    command.addHeader("drs-version", "01.00.01.001");
    EXPECT_EQ(world.line.written, command.toString());
    const termios& set = world.line.settings;  // where all bits were set before
    EXPECT_EQ(set.c_iflag | set.c_oflag, 0u);
    EXPECT_EQ(set.c_cflag, 0x8BFu);
    EXPECT_EQ(set.c_lflag, ~0x867Bu);
    EXPECT_EQ(set.c_cc[VTIME] << 8 | set.c_cc[VMIN], 0x100);
}

TEST(Link, TheLogShowsOtherFieldsOrItsCutReachesTheDevice) {
    const std::string text(600, 'x');
    const std::string rows[][3] = {
        {"1|08000|", "1 txBufferSize:8", "1 rxEEEEE: 08000 rxCCCC:   rxMessage:   rxBufferSize: 8"},
        {"1|2||4", "1 txBufferSize:6", "1 rxEEEEE: 2 rxCCCC:  rxMessage: 4 rxBufferSize: 6"},
        {"1|2|3|4|5|6", "1 txBufferSize:11", "1 rxEEEEE: 2 rxCCCC: 3 rxMessage: 4 rxBufferSize: 11"},
        {{"\0|2", 3}, " txBufferSize:3", "  rxEEEEE:   rxCCCC:   rxMessage:   rxBufferSize: 3"},
        {text, text.substr(0, 80), text}};
    for (const auto& [body, request, answer] : rows) {
        World world;
        world.line.answers = [](pbs::Message& command) { return std::vector{message("C", command.body())}; };
        EXPECT_EQ(world.transaction.run(500, "C", body, world.answer), 0);
        EXPECT_EQ(world.answer.body(), body);
        EXPECT_EQ(world.folder.logLines().at(1), "info, txCode: C txSessao:" + request);
        const std::string line = "info, rxCode: C rxSessao: " + answer + " status: 0";
        EXPECT_EQ(world.folder.logLines().back(), line.substr(0, 485));  // of 511
    }
}

TEST(Link, APieceIsLostRepeatedOrCountedWrongly) {
    const struct {
        int size, result, ms;
        std::vector<int> pending, taken;  // by the first writes; the others take all
    } sends[] = {
        {8191, 8191, 100, {8191}, {}},
        {8192, 8192, 100, {0}, {}},
        {8193, 1, 100, {1, 1}, {}},
        {20000, 3506, 100, {20000, 19900, 11708, 3516, 3516, 3506}, {0, 100, 8192, 8192, 10}},
        {20000, -1, 100, {11808, 11809}, {8192, -1}},
        {300, -1, 1100, std::vector<int>(501, 300), std::vector<int>(500)},  // the 500th closes
    };
    for (const auto& send : sends) {
        World world;
        ASSERT_EQ(world.channel.connect_client(), 0);
        world.line.writeResult = [&, next = 0u](int length) mutable {
            return next < send.taken.size() ? send.taken[next++] : length;
        };
        pbs::Message command("C", "3");
        command.addHeader("pad", std::string(send.size - command.toString().size() - 6, 'x'));
        EXPECT_EQ(world.channel.send_data(command), send.result);
        EXPECT_EQ(world.line.nowMs(), send.ms);
        EXPECT_EQ(world.line.calls.end()[-2].substr(0, 7), "tcflush") << "after each write";
        EXPECT_TRUE(world.line.written == command.toString().substr(0, world.line.written.size()));
        const std::string sent = "info, [SerialCommChannel::send_data] Bytes enviados: ";
        const std::string total = "Bytes Totais: " + std::to_string(send.size);
        const Lines log = world.folder.logLines();
        EXPECT_EQ(events(log), std::string(1 + send.pending.size(), '.') + (send.result > 0 ? 's' : 'f'));
        for (size_t i = 0; i < send.pending.size(); ++i)
            EXPECT_EQ(log.at(1 + i), sent + std::to_string(send.pending[i]) + total);
    }
}

TEST(Link, TheWaitForTheTransmissionExceedsFiveSecondsWhenTheClockGoesBack) {
    World world;
    long sleptUs = 0;
    platform.usleep = [&](useconds_t us) {
        world.line.advanceMs(-1);
        if ((sleptUs += us) > 60'000'000) world.line.queued = 0;
        return 0;
    };
    ASSERT_EQ(world.channel.connect_client(), 0);
    for (const int queued : {-1, 10240, 10240}) {
        world.line.queued = queued;
        EXPECT_EQ(world.channel.send("x", 1), 1);
        EXPECT_EQ(sleptUs, queued < 0 ? 0 : 5'000'000);
    }
}

TEST(Link, AFullDriverHoldsTheCallerOrASlowOneLosesAPiece) {
    World world;
    ASSERT_EQ(world.channel.connect_client(), 0);
    world.line.queued = 10240;
    EXPECT_EQ(world.channel.send("x", 1), 1) << "which uses up the time for waits";
    for (const auto& [full, result, ms] : {std::tuple(999, 1, 5999), {2000, -1, 6999}}) {
        world.line.writeResult = [&, left = full](size_t length) mutable {
            errno = EAGAIN;
            return left-- > 0 ? -1 : static_cast<ssize_t>(length);
        };
        EXPECT_EQ(world.channel.send("x", 1), result);
        EXPECT_EQ(world.line.nowMs(), ms);
    }
}

TEST(Link, AReadOfAPortThatCannotBeSetUpWaitsForever) {
    const World world;
    platform = Platform();
    platform.tcsetattr = [](int, int, const termios*) { return -1; };
    const int device = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_EQ(grantpt(device) | unlockpt(device), 0);
    serial::SerialCommChannel channel;
    ASSERT_EQ(channel.openSerial(ptsname(device)), 0);
    char byte = 0;
    EXPECT_EQ(channel.receive(&byte, 1), 0);
    EXPECT_EQ(write(device, "\n", 1), 1);
    EXPECT_EQ(channel.receive(&byte, 1), 1);
    close(device);
}

TEST(Link, WithoutATerminalSomethingIsSentOrStaysOpen) {
    World world;
    world.line.isTerminal = false;
    EXPECT_EQ(DoTransaction().run(500, "C", "1", world.answer), 1);
    EXPECT_EQ(world.line.calls.back(), "close");
    world.line.listing.clear();
    EXPECT_EQ(DoTransaction().run(500, "C", "1", world.answer), 1);
    EXPECT_EQ(world.folder.logLines().back(),
              "info, rxCode: 0 rxSessao:   rxEEEEE:   rxCCCC:   rxMessage:   rxBufferSize: 0 status: 1");
    EXPECT_EQ(world.transaction.WriteMessageCommand("C", "1"), 1);
    EXPECT_EQ(world.transaction.ReadMessageAnswer("C", world.answer, 500), 2);
    EXPECT_FALSE(world.channel.serialIsValid());
    EXPECT_EQ(world.line.nowMs(), 1000 + 100 + 1000) << "the end of the second, a sending, a test";
    EXPECT_EQ(world.line.written, "");
    std::string statuses;
    for (errno = EACCES; errno <= EFBIG; ++errno) statuses += std::to_string(world.channel.statusErro());
    EXPECT_EQ(statuses, "575555655555575");
    platform.open = nullptr;
    platform.isatty = nullptr;
    std::ofstream("file") << "text";
    EXPECT_EQ(world.channel.openSerial(""), -1);
    EXPECT_EQ(world.channel.openSerial("missing"), EBADF);
    EXPECT_EQ(world.channel.openSerial("file"), ENOTTY);
    EXPECT_EQ(world.channel.statusErro(), 0) << "the file stays open";
}

TEST(Link, TheTimerPutsTheMonthBeforeTheDay) {
    constexpr std::time_t NOW = 1801627506;
    platform.time = [] { return NOW; };
    char expected[16];
    std::strftime(expected, sizeof expected, "%Y%d%m%H%M%S ", std::localtime(&NOW));
    EXPECT_EQ(World().channel.getTimer(), expected);
}

}  // namespace
