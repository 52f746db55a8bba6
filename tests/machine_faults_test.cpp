// A till's machine with faults. The line works and the device answers every sale with a long document, but
// the machine fails: a call of the platform, memory, the disk, tar, the search path; or a
// second till works in the same folder. Most of it strikes at the first sale of a new day, when the log of
// the day before is archived and the oldest of eight log files goes. Whatever happens, a sale ends in its
// documented status and within its time, leaves nothing open and loses nothing that was logged, and the next
// sale works.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <sstream>

#include "diagnostics/logdebug.h"
#include "encoding/Base64.h"
#include "fiscal/UCManipulaDadosSat.h"
#include "fiscora.h"
#include "platform.h"
#include "transaction/DoTransaction.h"

namespace {

namespace fs = std::filesystem;
using Failure = decltype(Platform::failure);

constexpr char OLD_DAY[] = "2031-02-28 23:59:58", NEW_DAY[] = "2031-03-01 00:00:00";
const std::string LOG = "logsDrs/logDrs20310228.log", ARCHIVE = "logsDrs/logDrs20310228.tar.gz",
                  NEW_LOG = "logsDrs/logDrs20310301.log";

/// Letters that no compression makes much fewer: several pieces of a message.
const std::string DOCUMENT = [] {
    std::mt19937 random(1);
    std::string text(12000, ' ');
    for (char& letter : text) letter = static_cast<char>('A' + random() % 58);
    return text;
}();
const std::string ANSWER =
    "000001|06000|0000|Emitido com sucesso|||" +
    Base64::encode(reinterpret_cast<const unsigned char*>(DOCUMENT.data()), DOCUMENT.size()) + "|";

pbs::Message message(const std::string& code, const std::string& body) {
    pbs::Message result(code, "1");
    result.setBody(body);
    result.compress();
    return result;
}

/// Text of a log, or of the log in an archive.
std::string logText(const std::string& path) {
    if (readFile(path).rfind("\x1f\x8b", 0) != 0) return readFile(path);
    EXPECT_EQ(std::system(("tar -xzOf " + path + " > text").c_str()), 0);
    return readFile("text");
}

/// Undoes, when it goes, what a test has done to the process.
using Undo = std::shared_ptr<void>;

Undo nothing() { return nullptr; }

Undo limit(decltype(RLIMIT_FSIZE) resource, rlim_t most) {
    rlimit before{};
    getrlimit(resource, &before);
    const rlimit now{most, before.rlim_max};
    setrlimit(resource, &now);
    return {nullptr, [=](void*) { setrlimit(resource, &before); }};
}

/// No file grows any more beyond 4096 bytes.
Undo fillDisk() { return limit(RLIMIT_FSIZE, 4096); }

Undo searchIn(const std::string& path) {
    const std::string before = getenv("PATH");
    setenv("PATH", path.c_str(), 1);
    return {nullptr, [=](void*) { setenv("PATH", before.c_str(), 1); }};
}

/// A shell script takes the place of tar.
Undo replaceTar(const std::string& script) {
    fs::create_directory("bin");
    writeFile("bin/tar", "#!/bin/sh\n" + script);
    fs::permissions("bin/tar", fs::perms::owner_all);
    return searchIn(fs::absolute("bin"));
}

Undo closeOutput() {
    const int before = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    return {nullptr, [=](void*) {
                dup2(before, STDOUT_FILENO);
                close(before);
                std::clearerr(stdout);
                std::cout.clear();
            }};
}

Undo moveLogs() { return fs::rename("logsDrs", "moved"), nullptr; }
Undo putFileInPlaceOfLogs() { return moveLogs(), writeFile("logsDrs", ""), nullptr; }

/// Fails the n-th allocation, or that and all behind it.
struct Shortage {
    int n;
    bool stays;
    int allocations = 0;

    bool struck() const { return allocations >= n; }
    int operator()(std::string_view call) {
        if (call != "operator new") return 0;
        ++allocations;
        return allocations == n || (stays && struck()) ? ENOMEM : 0;
    }
};

class World {
  public:
    World() {
        line.answers = [answer = message("EnviarDadosVenda", ANSWER)](auto&) { return std::vector{answer}; };
        writeFile("listing", line.listing);
        platform.popen = [](const char*) { return std::fopen("listing", "r"); };  // quicker than a shell
        platform.pclose = [](FILE* listing) { return std::fclose(listing); };
        platform.system = [](const std::string& command) {  // quicker than tar
            const std::string log = command.substr(command.rfind(' ') + 1);
            writeFile(log + ".tar.gz", readFile(log));
            return 0;
        };
    }

    /// Makes the last sale of the old day, whose log gets long. An archive of that date and older logs are
    /// there.
    void workOldDay() {
        fs::create_directory("logsDrs");
        for (const char* day : {"1", "2", "3", "4", "5", "6"})
            writeFile(std::string("logsDrs/logDrs2030010") + day + ".log", "");
        setClock(OLD_DAY);
        EXPECT_EQ(sale(), FISCORA_STATUS_OK);
        oldDay = readFile(LOG) + DOCUMENT + "\n";
        writeFile(LOG, oldDay);
        writeFile(ARCHIVE, "earlier");
    }

    /// Calls `function` under a failure, with what holds for every one. Null: an exception came out.
    char* call(const std::function<char*()>& function, const Failure& failure = nullptr) {
        line.readings.clear();
        const long descriptors = openDescriptors();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        char* text = nullptr;
        platform.failure = failure;
        try {
            text = function();
        } catch (...) {  // leaves it null
        }
        platform.failure = nullptr;
        errors = testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(openDescriptors(), descriptors);
        EXPECT_FALSE(line.open);
        sigset_t heldBack;
        pthread_sigmask(SIG_BLOCK, nullptr, &heldBack);
        EXPECT_EQ(sigismember(&heldBack, SIGALRM), 0);
        return text;
    }

    /// A sale under a failure, or while `happens` does. Returns its status.
    int sale(const Failure& failure = nullptr, const std::function<Undo()>& happens = nothing) {
        const long startMs = line.nowMs();
        const auto sell = [&happens] {
            const Undo undo = happens();
            return EnviarDadosVenda(1, "12345678", DOCUMENT.c_str());
        };
        const char* const answer = call(sell, failure);
        const bool ok = CodigoErro() == FISCORA_STATUS_OK;
        // Without memory to decompress it an answer stays as it came.
        const std::string asItCame = message("EnviarDadosVenda", ANSWER).bodyAsCString();
        EXPECT_TRUE(answer != nullptr &&
                    (answer == (ok ? ANSWER : "") || (ok && failure && answer == asItCame)));
        EXPECT_LE(line.nowMs() - startMs, 12000);
        return CodigoErro();
    }

    /// What the files of the old day hold, and whether the oldest file is there:
    /// "log=day oldest tar.gz=earlier ".
    std::string left() const {
        std::set<std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(".")) {
            const std::string name = entry.path().filename();
            if (name == "logDrs20300101.log") found.insert("oldest ");
            if (name.rfind("logDrs20310228.", 0) != 0) continue;
            const std::string text = logText(entry.path());
            const bool isDay = text.compare(0, oldDay.size(), oldDay) == 0;
            found.insert(name.substr(15) + (isDay ? "=day " : text == "earlier" ? "=earlier " : "=other "));
        }
        return std::accumulate(found.begin(), found.end(), std::string());
    }
    bool keepsOldDay() const {
        return left().find("=day") != std::string::npos && left().find("=other") == std::string::npos;
    }

    /// Whether the last sale wrote `text` on the standard error; for an empty one, whether it wrote nothing.
    bool reported(const std::string& text) const {
        return text.empty() ? errors.empty() : errors.find(text) != std::string::npos;
    }

    WorkingDirectory folder;
    FakeLine line;
    std::string oldDay;  ///< text of its log
    std::string errors;  ///< what the last sale wrote on the standard error
};

constexpr char ARCHIVED[] = "tar.gz=day ", NOT_ARCHIVED[] = "log=day tar.gz=earlier ",
               RENAMING[] = "Error renaming file: ";

TEST(MachineFaults, AFailedCallChangesTheStatusOrTakesTheLogWithIt) {
    const struct Row {
        const char* call;
        int error, once, fromThereOn;  // status when it fails, and when everything behind it fails too
        std::string left = ARCHIVED, errors = "";
        int n = 1;  // which call of that name it is
    } rows[] = {
        // in the order of the calls
        {"system", ENOMEM, 0, 1, NOT_ARCHIVED, RENAMING},
        {"rename", ENOSPC, 0, 1, "log.tar.gz=day tar.gz=earlier ", RENAMING},
        {"remove", EPERM, 0, 1, "log=day tar.gz=day "},
        {"fts_open", ENOMEM, 0, 1, "oldest tar.gz=day ", "fts_open: "},
        {"remove", EPERM, 0, 1, "oldest tar.gz=day ", "", 2},
        {"popen", EMFILE, 1, 1},
        {"fgets", EIO, 1, 1},
        {"open", EBUSY, 1, 1},
        {"isatty", ENOTTY, 1, 1},
        {"tcgetattr", EIO, 0, 2},
        {"tcsetattr", EIO, 0, 2},
        {"write", EIO, 32768, 2},
        {"write", ENODEV, 32768, 2, ARCHIVED, "", 2},
        {"read", EIO, 2, 2},
        {"read", ENODEV, 2, 2, ARCHIVED, "", 2},
    };
    for (const auto& row : rows)
        for (const auto& [error, stays] : {std::pair(row.error, false), {EINTR, false}, {EINTR, true}}) {
            SCOPED_TRACE(testing::Message() << row.call << row.n << std::strerror(error) << stays);
            World world;
            world.workOldDay();
            setClock(NEW_DAY);
            int calls = 0;
            const auto failure = [&, error = error, stays = stays](std::string_view call) {
                const bool strikes = call == row.call && ++calls == row.n;
                return strikes || (stays && calls >= row.n && call != "operator new") ? error : 0;
            };
            EXPECT_EQ(world.sale(failure), stays ? row.fromThereOn : row.once);
            EXPECT_GE(calls, row.n) << "it has not struck";
            EXPECT_TRUE(stays || world.reported(row.errors)) << world.errors;
            EXPECT_EQ(world.sale(), FISCORA_STATUS_OK);
            EXPECT_TRUE(stays ? world.keepsOldDay() : world.left() == row.left) << world.left();
        }
}

TEST(MachineFaults, TheDiskTarOrTheProcessTakesTheLogOrTheSaleWithIt) {
    const std::string missed = "log=day oldest tar.gz=earlier ";
    const struct {
        const char* fault;
        std::function<Undo()> happens;
        std::string left, errors = "";  // `errors` is among those on the standard error
        const char* time = NEW_DAY;
        int status = FISCORA_STATUS_OK;
    } rows[] = {
        {"none", nothing, ARCHIVED},
        {"no tar", [] { return searchIn(""); }, NOT_ARCHIVED, RENAMING},
        {"tar fails", [] { return replaceTar("echo half > $2; exit 2"); }, NOT_ARCHIVED, RENAMING},
        {"tar is killed", [] { return replaceTar("echo half > $2; kill -9 $$"); }, NOT_ARCHIVED, RENAMING},
        {"tar makes nothing", [] { return replaceTar("exit 0"); }, NOT_ARCHIVED, RENAMING},
        {"full disk", fillDisk, NOT_ARCHIVED, RENAMING},
        {"full disk on the same day", fillDisk, missed, "", OLD_DAY},
        {"no log directory", moveLogs, missed},
        {"file in place of the log directory", putFileInPlaceOfLogs, missed},
        {"no descriptor", [] { return limit(RLIMIT_NOFILE, 0); }, NOT_ARCHIVED, "", NEW_DAY,
         FISCORA_STATUS_NO_ANSWER},
        {"no standard output", closeOutput, NOT_ARCHIVED, RENAMING},
    };
    const auto before = std::signal(SIGXFSZ, SIG_IGN);  // of a file that may not grow
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        World world;
        platform.popen = [&world](const char*) {
            return realPopen(("echo '" + world.line.listing + "'").c_str());
        };
        platform.pclose = nullptr;
        platform.system = nullptr;
        world.workOldDay();
        setClock(row.time);
        EXPECT_EQ(world.sale(nullptr, row.happens), row.status);
        EXPECT_TRUE(world.reported(row.errors)) << world.errors;
        EXPECT_EQ(world.sale(), FISCORA_STATUS_OK);
        EXPECT_EQ(world.left(), row.left);
    }
    std::signal(SIGXFSZ, before);
}

TEST(MachineFaults, WithoutItsLogDirectoryAProcessDoesNotSell) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";  // a new process, whose log has not begun
    const auto sells = [](int error) {
        World world;
        int calls = 0;
        const int status = world.sale([&](auto call) { return call == "mkdir" ? ++calls, error : 0; });
        const bool isMissing = !fs::exists("logsDrs");
        world.workOldDay();
        return calls == 1 && isMissing && status == FISCORA_STATUS_OK && !testing::Test::HasFailure();
    };
    for (const int error : {ENOSPC, EINTR})
        EXPECT_EXIT(std::_Exit(sells(error) ? 0 : 1), testing::ExitedWithCode(0), "") << error;
}

TEST(MachineFaults, AFailedAllocationLetsAnExceptionOutOrHalfAnAnswer) {
    for (const bool stays : {false, true}) {
        World world;
        for (Shortage shortage{1, stays};; shortage = {shortage.n + 1, stays}) {
            SCOPED_TRACE(testing::Message() << shortage.n << stays);
            world.workOldDay();
            setClock(NEW_DAY);
            const int status = world.sale(std::ref(shortage));
            if (!shortage.struck()) break;
            EXPECT_TRUE(status == FISCORA_STATUS_OK || status == FISCORA_STATUS_NO_ANSWER) << status;
            EXPECT_TRUE(world.keepsOldDay()) << world.left();
        }
        for (Shortage shortage{1, stays};; shortage = {shortage.n + 1, stays}) {
            char* const text = world.call(Base64ToAscii, std::ref(shortage));
            if (!shortage.struck()) break;
            EXPECT_TRUE(text != nullptr && (text == DOCUMENT || *text == '\0')) << shortage.n << stays;
            if (text != nullptr && *text != '\0') *text = '?';  // not to be found by the next call
        }
        EXPECT_EQ(world.call(Base64ToAscii), DOCUMENT);
    }
}

TEST(MachineFaults, WithoutMemoryForItsLogLinesASaleFails) {
    World world;
    world.workOldDay();
    bool inLog = false;  // begins with a look at the clock
    setClock(NEW_DAY);
    platform.time = [&, now = platform.time()] { return inLog = true, now; };
    const auto failure = [&](auto call) {
        return call == "operator new" && std::exchange(inLog, false) ? ENOMEM : 0;
    };
    EXPECT_EQ(world.sale(failure), FISCORA_STATUS_OK);
    EXPECT_FALSE(fs::exists(NEW_LOG));
    EXPECT_EQ(world.sale(), FISCORA_STATUS_OK);
    EXPECT_EQ(world.left(), ARCHIVED);
}

TEST(MachineFaults, ADayThatEndsInASaleTakesALineWithIt) {
    const auto events = [](const std::string& log) {  // without the times
        std::string result;
        std::istringstream lines(log);
        for (std::string text; std::getline(lines, text);)
            if (text[0] == '[') result += text.substr(text.find("] - ")) + "\n";
        return result;
    };
    // `last`: how often the clock still shows the old day.
    for (int last = 0, looks = 1; last <= looks; ++last) {
        World world;
        world.workOldDay();
        fs::remove(ARCHIVE);
        const std::time_t oldTime = platform.time();
        setClock(NEW_DAY);
        looks = 0;
        platform.time = [&, newTime = platform.time()] { return looks++ < last ? oldTime : newTime; };
        EXPECT_EQ(world.sale(), FISCORA_STATUS_OK);
        const std::string text = readFile(LOG) + readFile(ARCHIVE) + readFile(NEW_LOG);
        EXPECT_EQ(text.substr(0, world.oldDay.size()), world.oldDay);
        EXPECT_EQ(events(text), events(world.oldDay) + events(world.oldDay)) << last;
    }
}

TEST(MachineFaults, TwoProcessesThatBeginADayAtOnceLoseALine) {
    for (int round = 0; round < 20; ++round) {
        const bool archives = round % 2 == 0;  // else there is no log of the old day
        const bool isLate = round % 4 == 2;    // looks at the clock before midnight and writes after it
        const WorkingDirectory folder;
        fs::create_directory("logsDrs");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        LogDebug& log = *LogDebug::obtemReferencia();
        setClock(OLD_DAY);
        if (archives) log.saveLog("info", "of both");
        const std::time_t oldTime = platform.time();
        setClock(NEW_DAY);
        int start[2] = {};
        ASSERT_EQ(pipe(start), 0);
        pid_t processes[2] = {};
        for (pid_t& process : processes) {
            process = fork();
            if (process != 0) continue;
            const std::string text = "of " + std::to_string(getpid());
            if (isLate && &process == processes) {
                platform.time = [&, newTime = platform.time()] {
                    if (close(std::exchange(start[1], -1)) != 0) return newTime;
                    usleep(50'000);
                    return oldTime;
                };
                log.saveLog("info", "late");
            }
            close(start[1]);
            for (char none; read(start[0], &none, 1) > 0;) continue;  // ends when no process can write
            log.saveLog("info", text);
            std::_Exit(0);
        }
        for (const int end : start) close(end);
        for (const pid_t process : processes) EXPECT_EQ(waitpid(process, nullptr, 0), process);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        std::string kept;
        for (const auto& file : fs::directory_iterator("logsDrs")) kept += logText(file.path());
        EXPECT_EQ(kept.find("of both]") != std::string::npos, archives) << kept;
        EXPECT_EQ(kept.find("late]") != std::string::npos, isLate) << kept;
        for (const pid_t process : processes)
            EXPECT_NE(kept.find("of " + std::to_string(process) + "]"), std::string::npos) << kept;
    }
    platform = Platform();
}

TEST(MachineFaults, ACodeStandsInTheLog) {
    using Answers = std::vector<pbs::Message>;
    const std::string code = "segredo-1234";
    const std::pair<int, std::function<Answers(pbs::Message&)>> devices[] = {
        {FISCORA_STATUS_OK,
         [](auto& command) { return Answers{message(command.code(), "000007|06000|0000|Ok|")}; }},
        {FISCORA_STATUS_OK,
         [](auto& command) { return Answers{message(command.code(), "000007|06001||Errado|")}; }},
        {FISCORA_STATUS_REFUSED, [](auto&) { return Answers(6, message("Other", "000007|06000|")); }},
        {FISCORA_STATUS_TIMEOUT, [](auto&) { return Answers(); }}};
    for (const auto& operation : manipulaDados::OPERATIONS)
        for (const auto& [status, device] : devices) {
            World world;
            fs::create_directory("logsDrs");
            setClock(OLD_DAY);
            world.line.answers = device;
            std::vector<manipulaDados::Argument> arguments;
            for (const auto& conversion : split(operation.format, '|'))
                arguments.push_back(conversion == "%s" ? manipulaDados::Argument(code.c_str()) : 7);
            const auto request = objManipulaDadosSat.makeRequest(operation, arguments);
            pbs::Message answer;
            world.call([&] { return objManipulaDadosSat.exchange(operation, request, answer); });
            const bool closes = status == FISCORA_STATUS_TIMEOUT && operation.timeoutMs > 50000;
            EXPECT_EQ(CodigoErro(), closes ? FISCORA_STATUS_READ_ERROR : status) << operation.command;
            EXPECT_NE(readFile(LOG).find(operation.command), std::string::npos);
            EXPECT_EQ(readFile(LOG).find(code), std::string::npos) << operation.command << readFile(LOG);
        }
}

}  // namespace
