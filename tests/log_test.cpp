// `fiscora log`, on logs that the library has written and on damaged ones.

#include <gmock/gmock.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <pugixml.hpp>
#include <regex>
#include <string>
#include <vector>

#include "fiscora.h"
#include "local_time.h"
#include "platform.h"
#include "surroundings.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// Exit status and output of a shell line.
std::string shell(const std::string& line) {
    const auto result = runShell(line);
    return std::to_string(result.exitStatus) + "\n" + result.output;
}

const std::string LOG = "LC_ALL=C.UTF-8 LANGUAGE= " FISCORA_TOOL " log ";
std::string log(const std::string& arguments = "") { return shell(LOG + arguments); }

const std::string DAY = "logsDrs/logDrs20310228";

std::string line(const std::string& time, const std::string& text) {
    return "[2031-02-28." + time + "] - [info, " + text + "]\n";
}
std::string begin(const std::string& time, const std::string& operation, const std::string& session) {
    return line(time, "txCode: " + operation + " txSessao:" + session + " txBufferSize:6");
}
std::string end(const std::string& time, const std::string& code, const std::string& session,
                const std::string& eeeee = "08000", const std::string& cccc = "x",
                const std::string& message = " ", const std::string& status = "0") {
    return line(time, "rxCode: " + code + " rxSessao: " + session + " rxEEEEE: " + eeeee + " rxCCCC: " +
                          cccc + " rxMessage: " + message + " rxBufferSize: 9 status: " + status);
}
std::string failure(const std::string& time, int status) {
    return end(time, "0", " ", " ", " ", " ", std::to_string(status));
}

/// The table of calls without its heading and days, one blank between columns; and the complaints.
std::string rows(const std::string& arguments = "") {
    const std::string output = log(arguments);
    const auto start = output.find("Result\n") + 7, summary = output.find("\n\n") + 1;
    const auto complaints = std::min(output.find("fiscora log:", summary), output.size());
    const std::string shown = output.substr(start, summary - start) + output.substr(complaints);
    return std::regex_replace(std::regex_replace(shown, std::regex("2031-02-28\n"), ""), std::regex(" +"),
                              " ");
}

TEST(Log, CallsOfTheLibraryAreShownAsTheyWere) {
    const WorkingDirectory folder;
    fs::create_directory("logsDrs");  // which the library makes only once
    FakeLine line;
    setClock("2031-02-28 23:59:26");
    platform.time = [&, start = platform.time()] { return start + line.nowMs() / 1000; };
    line.answers = [&line](const pbs::Message& command) {
        line.advanceMs(2900);
        pbs::Message answer(command.code(), "1");
        const bool isSale = command.code() == "EnviarDadosVenda";
        answer.setBody(isSale ? "000002|06010|1999|C\xf3"
                                "digo inv\xe1lido||"
                              : "000001|08000|SAT em Opera\xe7\xe3o||");
        return std::vector{answer};
    };
    testing::internal::CaptureStdout();
    ConsultarSAT(1);
    EnviarDadosVenda(2, "12345678", "<CFe/>");
    line.answers = nullptr;
    ConsultarStatusOperacional(3, "12345678");
    ConsultarSAT(4);  // through midnight, at which the log becomes an archive
    line.listing.clear();
    ConsultarStatusOperacional(5, "12345678");
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(fs::exists(DAY + ".tar.gz") && fs::exists("logsDrs/logDrs20310301.log"));
    const std::string shown = log();
    EXPECT_EQ(shown,
              "0\n"
              "Time      Operation                   Session     Took  Result\n"
              "2031-02-28\n"
              "23:59:26  ConsultarSAT                 000001      3 s  ok 08000\n"
              "23:59:30  EnviarDadosVenda             000002      3 s  refused 06010\n"
              "          Código inválido\n"
              "23:59:34  ConsultarStatusOperacional   000003     20 s  failed TIMEOUT\n"
              "23:59:55  ConsultarSAT                 000004      6 s  failed TIMEOUT\n"
              "2031-03-01\n"
              "00:00:02  ConsultarStatusOperacional   000005      0 s  failed NO_ANSWER\n"
              "\n"
              "Operation                   Calls  Refused  Failed  No end  Median  Longest\n"
              "ConsultarSAT                    2        0       1       0     6 s      6 s\n"
              "ConsultarStatusOperacional      2        0       2       0    20 s     20 s\n"
              "EnviarDadosVenda                1        1       0       0     3 s      3 s\n");
    EXPECT_THAT(shell("LC_ALL=pt_BR.UTF-8 LANGUAGE= " FISCORA_TOOL " log"), HasSubstr("recusada 06010\n"));

    const auto report = nlohmann::json::parse(log("--json").substr(2));
    EXPECT_EQ(
        report.at("calls").at(1).dump(),
        R"({"answer_session":"000002","code":"06010","end":"2031-02-28T23:59:33","operation":"EnviarDadosVenda","outcome":"refused",)"
        R"("seconds":3,"session":"000002","start":"2031-02-28T23:59:30","status":0,"text":"Código inválido"})");
    EXPECT_EQ(report.at("operations").at(0).dump(),
              R"({"calls":2,"failed":1,"incomplete":0,"longest_seconds":6,"median_seconds":6,)"
              R"("operation":"ConsultarSAT","refused":0})");
}

TEST(Log, SpeaksPortugueseIfTheEnvironmentAsksForItEvenIfNoSuchLocaleIsInstalled) {
    const struct {
        const char *fault, *environment;
        bool portuguese;
    } cases[] = {
        {"a locale that was never generated", "LANG=pt_BR.UTF-8", true},
        {"a locale without country or charset", "LANG=en_US.UTF-8 LC_MESSAGES=pt", true},
        {"the order of the variables", "LC_ALL=en_US.UTF-8 LC_MESSAGES=pt_BR.UTF-8 LANG=pt_BR.UTF-8", false},
        {"the second language of a list", "LANG=de_DE.UTF-8 LANGUAGE=de_DE:pt_BR@x:en", true},
        {"English before Portuguese in a list", "LANG=pt_BR.UTF-8 LANGUAGE=en_US:pt", false},
        {"a list where a script asks for stable texts", "LC_ALL=C.UTF-8 LANGUAGE=pt_BR", false},
        {"nothing set", "LANGUAGE=pt", false},
    };
    const WorkingDirectory folder;
    writeFile(DAY + ".log", begin("12:00", "", "1") + begin("12:00", "", "2"));
    for (const auto& row : cases)
        EXPECT_THAT(shell("env -i " + std::string(row.environment) + " " FISCORA_TOOL " log"),
                    HasSubstr(row.portuguese ? " 2 linhas danificadas ou cortadas não foram contadas"
                                             : " 2 damaged or truncated lines are not counted"))
            << row.fault;
}

TEST(Log, EachEndGoesToItsCallAndDamageIsCounted) {
    const WorkingDirectory folder;
    const std::string sat = "ConsultarSAT", sale = "EnviarDadosVenda",
                      good = begin("12:00:00", sat, "000001");
    const std::string shown = "12:00:00 ConsultarSAT 000001 ", whole = shown + "1 s ok 08000\n";
    const std::string one = "fiscora log: 1 damaged or truncated line is not counted above\n";
    const std::string ended = end("12:00:01", sat, "000001"), cut = ended.substr(0, 60);
    const struct {
        const char* fault;
        std::string log, rows;
    } cases[] = {
        // clang-format off
        {"a process that died takes the next one's end", good + begin("12:00:05", sat, "000002") + failure("12:00:05", 1),
         shown + "- no end\n12:00:05 ConsultarSAT 000002 0 s failed NO_ANSWER\n"},
        {"two processes' operations are mixed up",
         begin("11:59:59", sale, "7") + good + end("12:00:01", sale, "7", "06000") + ended,
         "11:59:59 EnviarDadosVenda 7 2 s ok 06000\n" + whole},
        {"or their sessions", good + begin("12:00:00", sat, "000002") + ended, whole + "12:00:00 ConsultarSAT 000002 - no end\n"},
        {"the application's locale counts twelve hours", begin("12:00:00 PM", sat, "000001") + end("12:00:01 PM", sat, "000001"), whole},
        {"a timeout goes to one that has just begun", good + begin("12:00:05", sat, "000002") + failure("12:00:06", 32768),
         shown + "6 s failed TIMEOUT\n12:00:05 ConsultarSAT 000002 - no end\n"},
        {"an end without beginning is lost, or goes to a dead process", good + end("12:30:00", sat, "000009"),
         shown + "- no end\n12:30:00 ConsultarSAT 000009 - ok 08000\n"},
        {"a clock set back gives a time below zero", good + end("11:00:00", sat, "000001"), shown + "- ok 08000\n"},
        {"controls reach the terminal; a status without name", begin("12:00:00", "Nova\x9b", "1") +
             end("12:00:02", "Nova\x9b", "1", "x\x1b[1m\xc2\x9b", "", " status: 0", "-7"), "12:00:00 Nova? 1 2 s failed -7\n"},
        {"a refusal is shown as a success, or its text bursts the table", good + end("12:00:01", sat, "000001", "08098", "1999",
             "em\x1b]0;uso " + std::string(70, 'z')),
         shown + "1 s refused 08098\n em?]0;uso\n " + std::string(70, 'z') + "\n"},
        {"texts in ISO 8859-1 or lines of Windows are damage", good.substr(0, good.size() - 1) + "\r\n" +
             end("12:00:01", sat, "000001", "08000", "opera\xe7\xe3o, ]", "status: 5"), whole},
        {"the next line ends an exchange for the cut one", good + cut + end("12:00:05", sale, "7", "06000") + good.substr(0, 30) + ended +
             "DRS Version: 01." + ended, shown + "- no end\nfiscora log: 3 damaged or truncated lines are not counted above\n"},
        {"the answer to another call is taken for this one's", good + end("12:00:01", sat, "000000"),
         shown + "1 s failed\n answer of session 000000\n"},
        {"or that to a question about another call is not", begin("12:00:00", "ConsultarNumeroSessao", "000001") +
             end("12:00:01", "ConsultarNumeroSessao", "7", "06000"), "12:00:00 ConsultarNumeroSessao 000001 1 s ok 06000\n"},
        {"a long field pushes the status out", good + end("12:00:01", sat, "000001", "08098", "1999", std::string(500, 'z')).substr(0, 511) + "\n",
         shown + "1 s no status\n 08098\n " + std::string(70, 'z') + "\n " + std::string(70, 'z') + "\n " + std::string(19, 'z') + "…\n"},
        {"a cut line ends the exchange", good + cut, shown + "- no end\n" + one},
        {"zeros of a power cut take the next line along", good + cut + std::string(70000, '\0') + ended, whole + one},
        {"a line without end fills the memory, or the next one is lost", good + std::string(3 << 20, 'x') + "\n" + ended, whole + one},
        {"forms that the library does not write pass", good +
             "\n[2031-02-29.12:00:00] - [info, x]\n[2031-02-28.24:00:00] - [info, x]\n[2031-2-28.12:00:00] - [info, x]\n"
             "[2031-02-28.1:00:00 PM] - [info, x]\n[2031-02-28.12:00:00] - [info x]\n" + line("12:00:00", "txCode: x") +
             line("12:00:00", "rxCode: x rxSessao: 1 rxEEEEE: 2 rxCCCC: 3") + end("12:00:01", sat, "1", "2", "3", " ", "0x") +
             line("12:00:01", std::string(512, 'x')) + ended, whole + "fiscora log: 9 damaged or truncated lines are not counted above\n"},
    };  // clang-format on
    for (const auto& [fault, text, expected] : cases) {
        writeFile(DAY + ".log", "DRS Version: 01.00.01.001\n" + text);
        EXPECT_EQ(rows(), expected) << fault;
    }
}

TEST(Log, EachFileIsReadOnce) {
    const std::string first = begin("10:00:00", "ConsultarSAT", "1") + end("10:00:00", "ConsultarSAT", "1");
    const std::string second = begin("11:00:00", "ConsultarSAT", "2") + end("11:00:01", "ConsultarSAT", "2");
    const std::string firstRow = "10:00:00 ConsultarSAT 1 0 s ok 08000\n";
    const std::string secondRow = "11:00:00 ConsultarSAT 2 1 s ok 08000\n", both = firstRow + secondRow;
    std::string large;  // more than is read or unpacked at a time
    for (int i = 0; i < 20000; ++i) large += line("09:00:00", std::to_string(i * 7919));
    const auto unread = [](const std::string& complaint) {
        return "fiscora log: " + DAY + complaint + "\nfiscora log: 1 file was not read completely\n";
    };
    const struct {
        const char* fault;
        std::string archived, suffix, log;  ///< an archive of `archived`, and the log beside it
        std::string damage;                 ///< what is done to the files
        std::string rows;
    } cases[] = {
        // clang-format off
        {"the log that the archive was made of", first, ".tar.gz", first, "", firstRow},
        {"the same, which another process has added to", large + first, ".tar.gz", large + first + second, "", both},
        {"a log begun anew", first, ".tar.gz", second, "", both},
        {"a log begun anew, the archive with its first name", large + first, ".log.tar.gz", second, "", both},
        {"an empty log", first, ".tar.gz", "", "", firstRow},
        {"a half-made archive", large + first, ".log.tar.gz", large + first + second,
         "truncate -s 50000 " + DAY + ".log.tar.gz", both + unread(".log.tar.gz: truncated gzip input")},
        {"no archive", first, ".tar.gz", second, "echo x >" + DAY + ".tar.gz", secondRow + unread(".tar.gz: Unrecognized archive format")},
        {"an archive of something else", first, ".tar.gz", second, "tar -zcf " + DAY + ".tar.gz /dev/null 2>&-",
         secondRow + unread(".tar.gz: contains no logDrs20310228.log")},
        {"a folder in a log's place", first, ".tar.gz", "", "rm " + DAY + ".log; mkdir " + DAY + ".log", firstRow + unread(".log: not a regular file")},
        {"files of others", first, ".tar.gz", second, "touch logsDrs/logDrs2031022.log logsDrs/logDrs2031022x.log logsDrs/logDrs20310228.log.bak; mkdir logsDrs/old", both},
    };  // clang-format on
    for (const auto& [fault, archived, suffix, log, damage, expected] : cases) {
        SCOPED_TRACE(fault);
        const WorkingDirectory folder;
        writeFile(DAY + ".log", archived);
        ASSERT_EQ(shell("tar -zcf " + DAY + suffix + " " + DAY + ".log"), "0\n");
        writeFile(DAY + ".log", log);
        shell("true; " + damage);
        EXPECT_EQ(rows("--dir ."), expected);
        EXPECT_EQ(rows("--dir logsDrs --since 2031-02-28"), expected);
    }
}

TEST(Log, WithoutCallsItSaysWhatIsMissing) {
    const WorkingDirectory folder;
    writeFile(DAY + ".log", "DRS Version: 01.00.01.001\n");
    EXPECT_EQ(log(), "0\nNo calls in the logs of logsDrs\n");
    EXPECT_EQ(log("--since 20310228"), log());
    EXPECT_EQ(log("--since 2031-03-01"), "0\nNo logs in logsDrs since 20310301\n");
    EXPECT_THAT(log("--dir ''"), HasSubstr("--dir: the name of the folder is empty"));
    fs::create_directory("logsDrs/logDrs99991231.log");
    EXPECT_THAT(
        log("--follow"),
        HasSubstr("Result\nfiscora log: logsDrs/logDrs99991231.log: not a regular file\nfiscora log: 1 "));
}

TEST(Log, ThePictureHasAMarkForEachOutcomeAndOnePanelForUnknownOperations) {
    const WorkingDirectory folder;
    std::string many;
    for (int i = 0; i < 1200; ++i) {  // one a minute; 20 fail, 20 have no end, 20 are refused
        const std::string sat = "ConsultarSAT", hour = std::to_string(100 + i / 60).substr(1),
                          time = hour + ":" + std::to_string(100 + i % 60).substr(1) + ":0";
        many += begin(time + "0", sat, "1");
        if (i % 60 == 7) many += failure(time + "6", 32768);
        if (i % 60 == 9) many += end(time + "6", sat, "1", "08098");
        if (i % 60 < 7 || i % 60 > 9) many += end(time + "6", sat, "1");
    }
    const std::string forged =
        begin("10:00:00", "A<&>", "1") + begin("10:00:00", "B", "2") + failure("10:00:01", 1);
    const struct {
        std::string log;
        std::size_t panels, answered, refused, failed,
            incomplete;  ///< marks, those of the legend not counted
    } cases[] = {
        {"", 0, 0, 0, 0, 0},
        {end("10:00:00", "A<&>", "1", "\"\x1b\xff", "\xef\xbf\xbf"), 1, 0, 1, 0, 0},
        {forged, 1, 0, 0, 1, 1},
        {many, 1, 400, 20, 20, 20},
    };
    for (const auto& [text, panels, answered, refused, failed, incomplete] : cases) {
        writeFile(DAY + ".log", text);
        const std::string output = log("--svg picture.svg");
        ASSERT_EQ(output.substr(0, 2), "0\n");
        EXPECT_EQ(output.find("\nothers ") != std::string::npos, !text.empty() && text != many) << output;
        pugi::xml_document picture;
        ASSERT_TRUE(picture.load_file("picture.svg"));
        const auto svg = picture.child("svg");
        const auto marks = [&](const std::string& name) {
            return svg.select_nodes(("g/" + name + "[title]").c_str());
        };
        EXPECT_EQ(svg.select_nodes("text[@font-size=13]").size(), panels);
        EXPECT_GE(marks("circle").size(), answered);
        EXPECT_LE(marks("circle").size(), answered * 3);
        EXPECT_EQ(marks("path[contains(@d,'5l5')]").size(), refused);
        EXPECT_EQ(marks("path[contains(@d,'8m')]").size(), failed);
        EXPECT_EQ(marks("path[contains(@d,'4z')]").size(), incomplete);
        for (const auto& mark : marks("circle")) {
            const int x = mark.node().attribute("cx").as_int(), y = mark.node().attribute("cy").as_int();
            EXPECT_TRUE(x >= 70 && x <= 955 && y > 70 && y < svg.attribute("height").as_int() - 60)
                << x << " " << y;
        }
    }
}

TEST(Log, AFailedPictureLeavesTheEarlierFile) {
    const WorkingDirectory folder;
    writeFile(DAY + ".log", begin("10:00:00", "ConsultarSAT", "1"));
    writeFile("pictures/old.svg", "old");
    fs::permissions("pictures/old.svg", fs::perms(0604));
    fs::create_symlink("pictures/old.svg", "link.svg");
    const std::string failed = shell("trap '' XFSZ; ulimit -f 1; " + LOG + "--svg link.svg");
    EXPECT_EQ(failed.substr(0, 2), "1\n");
    EXPECT_THAT(failed, HasSubstr("\nfiscora log: cannot write link.svg: File too large\n"));
    EXPECT_EQ(shell("cat pictures/old.svg"), "0\nold");
    EXPECT_EQ(log("--svg link.svg").substr(0, 2), "0\n");
    EXPECT_EQ(shell("head -c 5 pictures/old.svg; stat -c %a pictures/old.svg"), "0\n<?xml604\n");
    EXPECT_EQ(shell("ls . pictures"), "0\n.:\nlink.svg\nlogsDrs\npictures\n\npictures:\nold.svg\n");
}

TEST(Log, FollowShowsCallsAsTheyEndThroughTheChangeOfDay) {
    for (const bool coloured : {true, false}) {
        const WorkingDirectory folder;
        const std::string today = "logsDrs/logDrs" + localTimeText("%Y%m%d") + ".log", sat = "ConsultarSAT";
        writeFile(today, failure("09:00:00", 1) + begin("10:00:00", sat, "000001"));
        const std::string tool =
            std::string("TERM=xterm NO_COLOR=") + (coloured ? "" : "1") + " " + LOG + "--follow";
        int terminal = -1;
        const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid == 0) _exit(execl("/bin/sh", "sh", "-c", ("exec env " + tool).c_str(), nullptr));
        std::string shown;
        const auto waitFor = [&](const std::string& text) {
            for (char byte; shown.find(text) == std::string::npos && read(terminal, &byte, 1) == 1;)
                shown += byte;
        };
        const auto append = [&](const std::string& text) { std::ofstream(today, std::ios::app) << text; };
        waitFor("NO_ANSWER");
        const std::string ending = end("10:00:02", sat, "000001");
        append(ending.substr(0, 50));
        append(ending.substr(50) + begin("23:59:59", sat, "000002"));
        waitFor("08000");
        append(end("23:59:59", sat, "000002", "08098"));
        fs::remove(today);
        writeFile("logsDrs/logDrs99991231.log",
                  begin("10:00:05", "Nova", "3") + end("10:00:07", "Nova", "3"));
        waitFor("Nova");
        EXPECT_EQ(write(terminal, "\x03", 1), 1);  // Ctrl-C
        int status = -1;
        waitpid(pid, &status, 0);
        close(terminal);
        EXPECT_EQ(status, 0) << shown;
        EXPECT_THAT(shown, AllOf(HasSubstr("000001      2 s  "), HasSubstr(" 08098")));
        EXPECT_EQ(shown.find("\033[31mfailed\033[m NO_ANSWER") != std::string::npos, coloured) << shown;
        EXPECT_EQ(shown.find('\033') != std::string::npos, coloured) << shown;
    }
}

}  // namespace
