// A till's machine with faults. The line works and the device answers every sale with a long document, but
// the machine fails: a call of the platform, memory, the disk, tar, the search path; or a second till works
// in the same folder. Most of it strikes at the first sale of a new day, when the previous day's log is
// archived and the oldest of eight log files goes. Whatever happens, a sale ends in its documented status and
// in time, leaves nothing open and loses nothing that was logged, and the next sale works.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>

#include "Descriptor.h"
#include "diagnostics/logdebug.h"
#include "encoding/Base64.h"
#include "fiscora.h"
#include "platform.h"
#include "surroundings.h"

namespace {

namespace fs = std::filesystem;
using Failure = decltype(Platform::failure);
using testing::AllOf, testing::AnyOf, testing::HasSubstr, testing::Not, testing::StrEq;

constexpr char OLD_DAY[] = "2031-02-28 23:59:58", NEW_DAY[] = "2031-03-01 00:00:00";
const std::string LOG = "logsDrs/logDrs20310228.log", ARCHIVE = "logsDrs/logDrs20310228.tar.gz",
                  NEW_LOG = "logsDrs/logDrs20310301.log";

/// Random letters, which compression hardly shortens: a message of several pieces.
const std::string DOCUMENT = [] {
    std::mt19937 random(1);
    std::string text(12000, ' ');
    for (char& letter : text) letter = static_cast<char>('A' + random() % 58);
    return text;
}();
const std::string ANSWER =
    "000001|06000|0000|Emitido com sucesso|||" +
    Base64::encode(reinterpret_cast<const unsigned char*>(DOCUMENT.data()), DOCUMENT.size()) + "|";

/// No file grows beyond 4096 bytes.
Undo fillDisk() { return limit(RLIMIT_FSIZE, 4096); }

Undo replaceTar(const std::string& script) {
    fs::create_directory("bin");
    writeFile("bin/tar", "#!/bin/sh\n" + script);
    fs::permissions("bin/tar", fs::perms::owner_all);
    return searchIn(fs::absolute("bin"));
}

Undo nothing() { return nullptr; }
Undo moveLogs() { return fs::rename("logsDrs", "moved"), nullptr; }
Undo putFifoInPlaceOfLog() {
    fs::rename(LOG, "log");
    mkfifo(LOG.c_str(), 0600);
    return {nullptr, [](void*) { fs::rename("log", LOG); }};
}
Undo printToNobody() {
    int ends[2] = {};
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    const Undo output = closeOutput();
    dup2(ends[1], STDOUT_FILENO);
    for (const int end : ends) close(end);
    const auto before = std::signal(SIGPIPE, SIG_DFL);
    return {nullptr, [output, before](void*) { std::signal(SIGPIPE, before); }};
}
/// As another process would.
Undo lockLogs() {
    const auto locks = std::make_shared<std::vector<tool::Descriptor>>();
    for (const char* path : {"logsDrs", LOG.c_str()}) {
        locks->emplace_back(openat(AT_FDCWD, path, O_RDONLY));
        flock(locks->back().get(), LOCK_EX);
    }
    return locks;
}
Undo putFileInPlaceOfLogs() { return moveLogs(), writeFile("logsDrs", ""), nullptr; }

class World {
  public:
    World() {
        line.answers = [this](auto&) { return std::vector{m_answer}; };
        writeFile("listing", line.listing);
        platform.popen = [](const char*) { return std::fopen("listing", "r"); };  // quicker than a shell
        platform.pclose = [](FILE* listing) { return std::fclose(listing); };
    }

    /// Makes the last sale of the old day, whose log gets long. There are an archive of that date and six
    /// older logs.
    void workOldDay() {
        fs::create_directory("logsDrs");
        for (const char* day : {"1", "2", "3", "4", "5", "6"})
            writeFile(std::string("logsDrs/logDrs2030010") + day + ".log", "");
        setClock(OLD_DAY);
        EXPECT_EQ(sale(), FISCORA_STATUS_OK);
        m_oldDay = readFile(LOG) + DOCUMENT + "\n";
        writeFile(LOG, m_oldDay);
        writeFile(ARCHIVE, "earlier");
    }

    /// Calls `function` under a failure and checks what holds for every call. Null: an exception came out.
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
        if (CodigoErro() != FISCORA_STATUS_OK) {
            EXPECT_STREQ(answer, "");
        } else if (failure) {  // without memory to inflate it, an answer stays compressed
            EXPECT_THAT(answer, AnyOf(StrEq(ANSWER), StrEq(m_answer.bodyAsCString())));
        } else {
            EXPECT_STREQ(answer, ANSWER.c_str());
        }
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
            const std::string text = readLog(entry.path());
            const bool isDay = text.compare(0, m_oldDay.size(), m_oldDay) == 0;
            found.insert(name.substr(15) + (isDay ? "=day " : text == "earlier" ? "=earlier " : "=other "));
        }
        return std::accumulate(found.begin(), found.end(), std::string());
    }

    WorkingDirectory folder;
    FakeLine line;
    std::string errors;  ///< what the last sale wrote on the standard error

  private:
    pbs::Message m_answer = compressedMessage("EnviarDadosVenda", ANSWER);
    std::string m_oldDay;  ///< text of its log
};

/// The log's lines, but for those that name the version and the document.
std::vector<std::string> infoLines(const WorkingDirectory& folder) {
    std::vector<std::string> lines;
    for (const auto& line : folder.logLines())
        if (line.rfind("info", 0) == 0) lines.push_back(line);
    return lines;
}

/// Of what is written on the standard error: exactly nothing, or `text` among others.
testing::Matcher<std::string> expectedErrors(const std::string& text) {
    return text.empty() ? testing::Matcher<std::string>(text) : HasSubstr(text);
}

constexpr char ARCHIVED[] = "tar.gz=day ", NOT_ARCHIVED[] = "log=day tar.gz=earlier ",
               RENAMING[] = "Error renaming file: ";
const testing::Matcher<std::string> KEEPS_OLD_DAY = AllOf(HasSubstr("=day"), Not(HasSubstr("=other")));

TEST(MachineFaults, AFailedCallCostsAtMostItsSale) {
    const struct Row {
        const char* call;
        int error, once, fromThereOn;  // status if it fails, and if everything after it fails too
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
            SCOPED_TRACE(testing::Message() << row.call << " " << row.n << ": " << std::strerror(error)
                                            << (stays ? ", and all calls after it" : ""));
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
            EXPECT_THAT(world.errors, stays ? testing::_ : expectedErrors(row.errors));
            EXPECT_EQ(world.sale(), FISCORA_STATUS_OK);
            EXPECT_THAT(world.left(), stays ? KEEPS_OLD_DAY : row.left);
        }
}

TEST(MachineFaults, DiskTarAndProcessTakeNeitherTheLogNorTheNextSale) {
    const std::string missed = "log=day oldest tar.gz=earlier ";
    const struct {
        const char* fault;
        std::function<Undo()> happens;
        std::string left, errors = "";
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
        {"no standard output", closeOutput, ARCHIVED},
        {"no reader of the standard output", printToNobody, ARCHIVED, "tar: "},
        {"tar leaves the log out", [] { return replaceTar("PATH=/usr/bin:/bin tar -zcf $2 -T /dev/null"); },
         NOT_ARCHIVED, RENAMING},
        {"locks of another process", lockLogs, NOT_ARCHIVED},
        {"FIFO in place of the log", putFifoInPlaceOfLog, "log=day oldest tar.gz=earlier ", "", OLD_DAY},
        {"folder in place of the new log", [] { return fs::create_directory(NEW_LOG), nothing(); },
         "oldest tar.gz=day "},
    };
    long ms = 0;  // that a sale takes without a fault
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        World world;
        platform.popen = [&world](const char*) {
            return realPopen(("echo '" + world.line.listing + "'").c_str());
        };
        platform.pclose = nullptr;
        world.workOldDay();
        setClock(row.time);
        const long startMs = world.line.nowMs();
        EXPECT_EQ(world.sale(nullptr, row.happens), row.status);
        if (ms == 0) ms = world.line.nowMs() - startMs;
        EXPECT_LE(world.line.nowMs() - startMs, ms + 50);
        EXPECT_THAT(world.errors, expectedErrors(row.errors));
        EXPECT_EQ(world.sale(), FISCORA_STATUS_OK);
        EXPECT_EQ(world.left(), row.left);
    }
}

TEST(MachineFaults, AFailedAllocationCostsAtMostItsSale) {
    for (const bool stays : {false, true}) {
        World world;
        platform.system = archiveUncompressed;
        int n = 0, allocations = 0;  // the n-th fails
        const Failure failure = [&, stays](std::string_view call) {
            if (call != "operator new") return 0;
            ++allocations;
            return allocations == n || (stays && allocations > n) ? ENOMEM : 0;
        };
        // Calls `tryOne` with each allocation failing in turn, until there are no more.
        const auto forEachAllocation = [&](const std::function<void()>& tryOne) {
            n = 0;
            do {
                SCOPED_TRACE(testing::Message() << "allocation " << ++n << (stays ? " and all after" : ""));
                allocations = 0;
                tryOne();
            } while (allocations >= n);
        };
        forEachAllocation([&] {
            world.workOldDay();
            setClock(NEW_DAY);
            EXPECT_THAT(world.sale(failure), AnyOf(FISCORA_STATUS_OK, FISCORA_STATUS_NO_ANSWER));
            EXPECT_THAT(world.left(), KEEPS_OLD_DAY);
        });
        forEachAllocation([&] {
            char* const text = world.call(Base64ToAscii, failure);
            EXPECT_THAT(text, AnyOf(StrEq(DOCUMENT), StrEq("")));
            if (text != nullptr && *text != '\0') *text = '?';  // so that the next call cannot just return it
        });
        EXPECT_EQ(world.call(Base64ToAscii), DOCUMENT);
    }
}

TEST(MachineFaults, ASaleNeedsNoMemoryForItsLogLines) {
    World world;
    world.workOldDay();
    bool inLog = false;  // a line begins with a look at the clock
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

TEST(MachineFaults, ADayThatEndsDuringASaleKeepsEveryLine) {
    // `last`: how often the clock still shows the old day.
    for (int last = 0, looks = 1; last <= looks; ++last) {
        SCOPED_TRACE(testing::Message() << "midnight after " << last << " looks at the clock");
        World world;
        world.workOldDay();
        fs::remove(ARCHIVE);
        const auto ofOneSale = infoLines(world.folder);
        auto ofTwoSales = ofOneSale;
        ofTwoSales.insert(ofTwoSales.end(), ofOneSale.begin(), ofOneSale.end());
        const std::time_t oldTime = platform.time();
        setClock(NEW_DAY);
        looks = 0;
        platform.time = [&, newTime = platform.time()] { return looks++ < last ? oldTime : newTime; };
        EXPECT_EQ(world.sale(), FISCORA_STATUS_OK);
        EXPECT_EQ(infoLines(world.folder), ofTwoSales);
        EXPECT_THAT(world.left(), KEEPS_OLD_DAY);
    }
}

TEST(MachineFaults, TwoProcessesBeginADayWithoutLosingALine) {
    for (int round = 0; round < 20; ++round) {
        const bool archives = round % 2 == 0;  // else there is no log of the old day
        const bool isLate = round % 4 == 2;    // one looks at the clock before midnight and writes after it
        const int lastLook = isLate ? 1 + round / 4 % 2 : 0;  // before it opens the log, or under the lock
        SCOPED_TRACE(testing::Message() << "round " << round);
        const WorkingDirectory folder;
        fs::create_directory("logsDrs");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        LogDebug& log = *LogDebug::obtemReferencia();
        setClock(OLD_DAY);
        if (archives) log.saveLog("info", "of both");
        const std::time_t oldTime = platform.time();
        setClock(NEW_DAY);
        int start[2] = {};  // a pipe; both begin once nobody can write to it any more
        ASSERT_EQ(pipe(start), 0);
        const auto begin = [&](const char* name, bool late) {
            const pid_t process = fork();
            if (process != 0) return process;
            if (late) {
                platform.time = [&, looks = 0, newTime = platform.time()]() mutable {
                    if (++looks == lastLook) {
                        close(std::exchange(start[1], -1));
                        usleep(50'000);
                    }
                    return looks <= lastLook ? oldTime : newTime;
                };
                log.saveLog("info", "late");
            }
            close(start[1]);
            for (char none; read(start[0], &none, 1) > 0;) continue;
            log.saveLog("info", name);
            std::_Exit(0);
        };
        const pid_t processes[] = {begin("first", isLate), begin("second", false)};
        for (const int end : start) close(end);
        for (const pid_t process : processes) EXPECT_EQ(waitpid(process, nullptr, 0), process);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        std::vector<std::string> expected{"info, first", "info, second"};
        if (archives) expected.push_back("info, of both");
        if (isLate) expected.push_back("info, late");
        EXPECT_THAT(infoLines(folder), testing::UnorderedElementsAreArray(expected));
    }
    platform = Platform();
}

}  // namespace
