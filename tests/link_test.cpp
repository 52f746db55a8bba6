// Exchanges on a line and a clock that the test controls: each byte and each pause is exact.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <tuple>
#include <utility>

#include "platform.h"
#include "reception_model.h"
#include "transaction/DoTransaction.h"

namespace {

using Lines = std::vector<std::string>;

struct World {
    WorkingDirectory folder;
    const bool logs = std::filesystem::create_directory("logsDrs");
    FakeLine line;
    DoTransaction transaction;
    serial::SerialCommChannel channel;
    pbs::Message answer;
};

TEST(Link, AReceptionEndsByItsScript) {
    const std::string good = compressedMessage("C", "good").toString();
    const std::string other = compressedMessage("c", "other").toString();
    const std::string bad = "smx\r\n?\r\n\r\n\r\n", damaged = good.substr(0, good.size() - 1) + "?";
    const std::string largest = compressedMessage("C", std::string(1572864, 'x')).toString();
    const std::string tooLarge = compressedMessage("C", std::string(1572865, 'x')).toString();
    pbs::Message corrupt = compressedMessage("C", "");
    corrupt.setBody("no zlib stream");
    using Readings = std::deque<FakeLine::Reading>;
    Readings sixRefused(6, {other, 0, 300}), fiveRefused(5, {other, 0, 500}), late(499);
    fiveRefused.push_back({good, 0, 499});
    late.push_back({"?"});
    const struct {
        std::string name;
        int status;
        Readings readings;  // from 200 ms on: a write and the pause after it
        int timeoutMs = 500;
        int written = 1000;  // by the first write
    } scripts[] = {
        {"junk, good in parts", 0, {{"?smx\r?s"}, {good.substr(1, 9)}, {good.substr(10)}}},
        {"largest body", 0, {{largest}}},
        {"one byte more", 0, {{tooLarge}, {good}}},
        {"request unsent, silence for 499 reads", 2, {}, 60000, -1},
        {"first write takes nothing, silence for 500 reads", 2, {}, 60000, 0},
        {"byte in the 500th of silence", 2, late, 60000},
        {"1 ms before the timeout", 0, {{good, 0, 299}}},
        {"at the timeout", 32768, {{good, 0, 300}}},
        {"clock set forward by a month", 32768, {{"", 0, 2'592'000'000}}},
        {"clock set back", 0, {{"", 0, -5000}, {good, 0, 5250}}},
        {"good and part of one, read error", 2, {{good + "s"}, {"", -1, 600}}},
        {"good and part of one, silence", 32768, {{good + "?"}}},
        {"damaged", 1, {{damaged}, {good}}},
        {"bad, damaged and part of one", 0, {{bad + damaged + "?"}, {good}}},
        {"good, corrupt, bad", 0, {{good + corrupt.toString() + bad}}},
        {"good, refused, bad", 4, {{good + other + bad}}},
        {"five refused", 0, fiveRefused},
        {"six refused", 4, sixRefused},
    };
    for (const auto& script : scripts) {
        SCOPED_TRACE(script.name);
        World world;
        world.line.readings = script.readings;
        world.line.writeResult = [&, written = script.written](int length) mutable {
            world.line.advanceMs(100);
            return std::min(std::exchange(written, length), length);
        };
        auto [seen, expected] = receive(world.line, "C", script.timeoutMs);
        seen.events = logEvents(world.folder.logLines());
        EXPECT_EQ(seen.status, script.status);
        const char* const sending = script.written < 0 ? "..f" : script.written == 0 ? "...s" : "..s";
        expected.events.insert(0, sending);
        EXPECT_EQ(seen, expected);
    }
}

TEST(Link, AnExchangeSetsTheLineUpAndCallsThePlatformInOrder) {
    World world;
    world.line.readings = {{compressedMessage("C", "1").toString()}};
    EXPECT_EQ(DoTransaction().run(500, "C", "1", world.answer), 0);
    EXPECT_EQ(world.line.calls,
              Lines({"popen ls -l /dev/serial/by-id > /dev/null 2>&1 && ls -l /dev/serial/by-id | "
                     "grep \"\\-mfc+_with_musb\" | tail -1",
                     "open /dev/ttyACM0 258", "isatty 1000", "tcgetattr", "tcflush 1000 2", "tcsetattr 0",
                     "write 184", "TIOCOUTQ", "tcflush 1000 1", "usleep 100000", "read 8192",
                     "tcflush 1000 2", "tcflush 1000 0", "tcflush 1000 1", "close", "usleep 1000000"}));
    pbs::Message command = compressedMessage("C", "1");
    command.addHeader("drs-version", "01.00.01.001");
    EXPECT_EQ(world.line.written, command.toString());
    const termios& set = world.line.settings;  // where all bits were set before
    EXPECT_EQ(set.c_iflag | set.c_oflag, 0u);
    EXPECT_EQ(set.c_cflag, 0x8BFu);
    EXPECT_EQ(set.c_lflag, ~0x867Bu);
    EXPECT_EQ(set.c_cc[VTIME] << 8 | set.c_cc[VMIN], 0x100);
}

TEST(Link, TheLogShowsTheFirstFieldsAndCutsThemForItselfAlone) {
    const std::string text(600, 'x');
    const std::string rows[][3] = {
        {"1|08000|", "1 txBufferSize:8", "1 rxEEEEE: 08000 rxCCCC:   rxMessage:   rxBufferSize: 8"},
        {"1|2||4", "1 txBufferSize:6", "1 rxEEEEE: 2 rxCCCC:  rxMessage: 4 rxBufferSize: 6"},
        {"1|2|3|4|5|6", "1 txBufferSize:11", "1 rxEEEEE: 2 rxCCCC: 3 rxMessage: 4 rxBufferSize: 11"},
        {{"\0|2", 3}, " txBufferSize:3", "  rxEEEEE:   rxCCCC:   rxMessage:   rxBufferSize: 3"},
        {"1|\n\x7f|\x1b[\x9b|\xc2\x9b\xc3\x8d\xc3|", "1 txBufferSize:15",
         "1 rxEEEEE: ?? rxCCCC: ?[? rxMessage: ?\xc3\x8d\xc3 rxBufferSize: 15"},
        {text, text.substr(0, 80), text}};
    for (const auto& [body, request, answer] : rows) {
        World world;
        world.line.answers = [](pbs::Message& command) {
            return std::vector{compressedMessage("C", command.body())};
        };
        EXPECT_EQ(world.transaction.run(500, "C", body, world.answer), 0);
        EXPECT_EQ(world.answer.body(), body);
        EXPECT_EQ(world.folder.logLines().at(1), "info, txCode: C txSessao:" + request);
        const std::string line = "info, rxCode: C rxSessao: " + answer + " status: 0";
        EXPECT_EQ(world.folder.logLines().back(), line.substr(0, 485));  // of 511
    }
}

TEST(Link, EveryPieceIsSentOnceAndCounted) {
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
        EXPECT_EQ(world.line.written, command.toString().substr(0, world.line.written.size()));
        Lines log = {"DRS Version: 01.00.01.001"};
        for (const int pending : send.pending)
            log.push_back("info, [SerialCommChannel::send_data] Bytes enviados: " + std::to_string(pending) +
                          "Bytes Totais: " + std::to_string(send.size));
        log.push_back(send.result > 0 ? "info, [SerialCommChannel::send_data] Enviado com sucesso"
                                      : "info, [SerialCommChannel::send_data] Falha no envio.");
        EXPECT_EQ(world.folder.logLines(), log);
    }
}

TEST(Link, TheWaitForTheTransmissionEndsAfterFiveSecondsByAnyClock) {
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

TEST(Link, AFullDriverIsWaitedForASecond) {
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

/// A terminal of this process as the device, on the real platform.
struct Terminal {
    Terminal() {
        EXPECT_EQ(openpty(&device, &node, nullptr, nullptr, nullptr), 0);
        path = ttyname(node);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    ~Terminal() {
        platform = Platform();
        close(device), close(node);
    }

    int device = -1, node = -1;
    std::string path;
};

TEST(Link, AReadEndsOnAPortThatCannotBeSetUp) {
    const Terminal terminal;
    platform.tcsetattr = [](int, int, const termios*) { return -1; };
    serial::SerialCommChannel channel;
    ASSERT_EQ(channel.openSerial(terminal.path), 0);
    char byte = 0;
    EXPECT_EQ(channel.receive(&byte, 1), 0);
    EXPECT_EQ(write(terminal.device, "\n", 1), 1);
    EXPECT_EQ(channel.receive(&byte, 1), 1);
}

TEST(Link, APortBlocksAndKeepsClearOfTheStandardStreams) {
    const Terminal terminal;
    int port = -1;
    platform.write = [&port](int fd, const void* bytes, size_t length) {
        port = fd;
        return syscall(SYS_write, fd, bytes, length);
    };
    platform.usleep = [](useconds_t) { return 0; };
    platform.ioctl = [](int, unsigned long, void* queued) { return *static_cast<int*>(queued) = 1, 0; };
    serial::SerialCommChannel channel;
    const int standardError = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    const int opened = channel.openSerial(terminal.path);
    dup2(standardError, STDERR_FILENO);
    close(standardError);
    ASSERT_EQ(opened, 0);
    EXPECT_EQ(channel.send("x", 1), 1) << "which uses up the time for waits";
    EXPECT_EQ(channel.send("x", 1), 1) << "which waits for room";
    EXPECT_GT(port, STDERR_FILENO);
    EXPECT_EQ(fcntl(port, F_GETFL) & O_NONBLOCK, 0);
}

TEST(Link, WithoutATerminalNothingIsSentOrLeftOpen) {
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
    writeFile("file", "text");
    EXPECT_EQ(world.channel.openSerial(""), -1);
    EXPECT_EQ(world.channel.openSerial("missing"), EBADF);
    EXPECT_EQ(world.channel.openSerial("file"), ENOTTY);
    EXPECT_EQ(world.channel.statusErro(), 0) << "the file stays open";
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const bool isFile = std::filesystem::exists(entry) && std::filesystem::equivalent(entry, "file");
        const int fd = std::stoi(entry.path().filename());
        EXPECT_TRUE(!isFile || fcntl(fd, F_GETFD) == FD_CLOEXEC) << "children inherit it";
    }
}

}  // namespace
