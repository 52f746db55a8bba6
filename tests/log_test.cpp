// `fiscora log`, on logs that the library has written and on damaged ones.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include "fiscora.h"
#include "platform.h"

namespace {

namespace fs = std::filesystem;

/// Runs a shell line in the working directory; exit status, standard output and error come back together.
std::string shell(const std::string& line) {
    FILE* const stream = realPopen(("{ " + line + "\n} 2>&1").c_str());
    std::string output;
    for (int byte; (byte = std::fgetc(stream)) != EOF;) output += static_cast<char>(byte);
    const int status = pclose(stream);
    return std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + "\n" + output;
}

std::string log(const std::string& arguments = "") { return shell(FISCORA_TOOL " log " + arguments); }

void put(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

const std::string DAY = "logsDrs/logDrs20310228", NEXT_DAY = "logsDrs/logDrs20310301";

std::string line(const std::string& time, const std::string& text) {
    return "[2031-02-28." + time + "] - [info, " + text + "]\n";
}
std::string begin(const std::string& time, const std::string& operation, const std::string& session) {
    return line(time, "txCode: " + operation + " txSessao:" + session + " txBufferSize:6");
}
std::string end(const std::string& time, const std::string& code, const std::string& session,
                const std::string& rest = "08000 rxCCCC: x rxMessage:   rxBufferSize: 9 status: 0") {
    return line(time, "rxCode: " + code + " rxSessao: " + session + " rxEEEEE: " + rest);
}
std::string failure(const std::string& time, int status) {
    return end(time, "0", " ", "  rxCCCC:   rxMessage:   rxBufferSize: 0 status: " + std::to_string(status));
}

/// The table of exchanges without its heading and dates, one blank between columns; and the complaints.
std::string rows(const std::string& arguments = "") {
    const std::string output = log(arguments);
    const auto start = output.find("EEEEE\n") + 6, summary = output.find("\n\n") + 1;
    const auto complaints = std::min(output.find("fiscora log:", summary), output.size());
    std::string shown = output.substr(start, summary - start) + output.substr(complaints);
    for (std::size_t at; (at = shown.find("2031-02-28")) != std::string::npos;) shown.erase(at, 11);
    for (std::size_t at; (at = shown.find("  ")) != std::string::npos;) shown.erase(at, 1);
    return shown;
}

TEST(Log, CallsOfTheLibraryAreShownOtherwiseThanTheyWere) {
    const WorkingDirectory folder;
    FakeLine line;
    tm fields{};
    strptime("2031-02-28 23:59:40", "%Y-%m-%d %T", &fields);
    fields.tm_isdst = -1;
    platform.time = [&, start = std::mktime(&fields)] { return start + line.nowMs() / 1000; };
    line.answers = [&line](const pbs::Message& command) {
        line.advanceMs(2900);
        pbs::Message answer(command.code(), "1");
        answer.setBody("000001|08000|SAT em Opera\xe7\xe3o||");
        return std::vector{answer};
    };
    testing::internal::CaptureStdout();
    ConsultarSAT(1);
    line.answers = nullptr;
    EnviarDadosVenda(2, "12345678", "<CFe/>");
    ConsultarSAT(3);  // through midnight, at which the log becomes an archive
    line.listing.clear();
    ConsultarStatusOperacional(4, "12345678");
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(fs::exists(DAY + ".tar.gz") && fs::exists(NEXT_DAY + ".log"));
    EXPECT_EQ(log(),
              "0\n"
              "Hora                 Operação                    Sessão  Duração  Status     EEEEE\n"
              "2031-02-28 23:59:40  ConsultarSAT                000001      3 s  OK         08000\n"
              "2031-02-28 23:59:44  EnviarDadosVenda            000002     10 s  TIMEOUT    -\n"
              "2031-02-28 23:59:55  ConsultarSAT                000003      6 s  TIMEOUT    -\n"
              "2031-03-01 00:00:02  ConsultarStatusOperacional  000004      0 s  NO_ANSWER  -\n"
              "\n"
              "Operação                    Chamadas  Falhas  Incompletas  Mediana  Pior\n"
              "ConsultarSAT                       2       1            0      6 s   6 s\n"
              "ConsultarStatusOperacional         1       1            0      0 s   0 s\n"
              "EnviarDadosVenda                   1       1            0     10 s  10 s\n");
}

TEST(Log, AnEndGoesToAnotherExchangeOrALineIsLost) {
    const WorkingDirectory folder;
    const std::string sat = "ConsultarSAT", sale = "EnviarDadosVenda",
                      good = begin("12:00:00", sat, "000001");
    const std::string shown = "12:00:00 ConsultarSAT 000001 ", whole = shown + "1 s OK 08000\n";
    const auto damaged = [](int lines) {
        return "fiscora log: linhas danificadas ou cortadas, não contadas acima: " + std::to_string(lines) +
               "\n";
    };
    const std::string ended = end("12:00:01", sat, "000001"), cut = ended.substr(0, 60);
    const struct {
        const char* fault;
        std::string log, rows;
    } cases[] = {
        // clang-format off
        {"a process that died takes the next one's end", good + begin("12:00:05", sat, "000002") + failure("12:00:05", 1),
         shown + "- incompleta -\n12:00:05 ConsultarSAT 000002 0 s NO_ANSWER -\n"},
        {"two processes' operations are mixed up",
         begin("11:59:59", sale, "7") + good + end("12:00:01", sale, "7", "06000 rxCCCC: x status: 0") + ended,
         "11:59:59 EnviarDadosVenda 7 2 s OK 06000\n" + whole},
        {"or their sessions", good + begin("12:00:00", sat, "000002") + ended, whole + "12:00:00 ConsultarSAT 000002 - incompleta -\n"},
        {"the application's locale counts twelve hours", begin("12:00:00 PM", sat, "000001") + end("12:00:01 PM", sat, "000001"), whole},
        {"a timeout goes to one that has just begun", good + begin("12:00:05", sat, "000002") + failure("12:00:06", 32768),
         shown + "6 s TIMEOUT -\n12:00:05 ConsultarSAT 000002 - incompleta -\n"},
        {"an end without beginning is lost, or goes to a dead process", good + end("12:30:00", sat, "000009"),
         shown + "- incompleta -\n12:30:00 ConsultarSAT 000009 - OK 08000\n"},
        {"a clock set back gives a time below zero", good + end("11:00:00", sat, "000001"), shown + "- OK 08000\n"},
        {"a status without name, or an operation of another version",
         begin("12:00:00", "Nova", "1") + end("12:00:02", "Nova", "1", "x\x1b[1m\xe7 rxCCCC: rxMessage: status: 0 status: -7"),
         "12:00:00 Nova 1 2 s -7 x?[1m?\n"},
        {"texts in ISO 8859-1 or lines of Windows are damage", good.substr(0, good.size() - 1) + "\r\n" +
             end("12:00:01", sat, "000001", "08000 rxCCCC: opera\xe7\xe3o, ] rxMessage: status: 5 rxBufferSize: 9 status: 0"), whole},
        {"a cut line ends the exchange", good + cut, shown + "- incompleta -\n" + damaged(1)},
        {"zeros of a power cut take the next line along", good + cut + std::string(70000, '\0') + ended, whole + damaged(1)},
        {"a line without end fills the memory, or the one behind is lost", good + std::string(3 << 20, 'x') + "\n" + ended, whole + damaged(1)},
        {"forms that the library does not write pass", good +
             "\n[2031-02-29.12:00:00] - [info, x]\n[2031-02-28.24:00:00] - [info, x]\n[2031-2-28.12:00:00] - [info, x]\n"
             "[2031-02-28.1:00:00 PM] - [info, x]\n[2031-02-28.12:00:00] - [info x]\n" + line("12:00:00", "txCode: x") +
             line("12:00:00", "rxCode: x rxSessao: 1 rxEEEEE: 2 rxCCCC: 3") + end("12:00:01", sat, "1", "2 rxCCCC: 3 status: 0x") +
             line("12:00:01", std::string(512, 'x')) + ended, whole + damaged(10)},
    };  // clang-format on
    for (const auto& [fault, text, expected] : cases) {
        put(DAY + ".log", "DRS Version: 01.00.01.001\n" + text);
        EXPECT_EQ(rows(), expected) << fault;
    }
}

TEST(Log, AFileIsReadTwiceOrNotAtAll) {
    const std::string first = begin("10:00:00", "ConsultarSAT", "1") + end("10:00:00", "ConsultarSAT", "1");
    const std::string second = begin("11:00:00", "ConsultarSAT", "2") + end("11:00:01", "ConsultarSAT", "2");
    const std::string firstRow = "10:00:00 ConsultarSAT 1 0 s OK 08000\n";
    const std::string secondRow = "11:00:00 ConsultarSAT 2 1 s OK 08000\n", both = firstRow + secondRow;
    std::string large;  // more than is read or unpacked at a time
    for (int i = 0; i < 20000; ++i) large += line("09:00:00", std::to_string(i * 7919));
    const auto unread = [](const std::string& complaint) {
        return "fiscora log: " + DAY + complaint + "\nfiscora log: arquivos não lidos até o fim: 1\n";
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
         secondRow + unread(".tar.gz: holds no logDrs20310228.log")},
        {"a folder in a log's place", first, ".tar.gz", "", "rm " + DAY + ".log; mkdir " + DAY + ".log", firstRow + unread(".log: not a regular file")},
        {"files of others", first, ".tar.gz", second, "touch logsDrs/logDrs2031022.log logsDrs/logDrs2031022x.log logsDrs/logDrs20310228.log.bak; mkdir logsDrs/old", both},
    };  // clang-format on
    for (const auto& [fault, archived, suffix, log, damage, expected] : cases) {
        SCOPED_TRACE(fault);
        const WorkingDirectory folder;
        put(DAY + ".log", archived);
        ASSERT_EQ(shell("tar -zcf " + DAY + suffix + " " + DAY + ".log"), "0\n");
        put(DAY + ".log", log);
        shell("true; " + damage);
        EXPECT_EQ(rows("--dir ."), expected);
        EXPECT_EQ(rows("--dir logsDrs --since 2031-02-28"), expected);
    }
}

TEST(Log, DaysBeforeAreShownOrAnEmptyFolderIsAnError) {
    const WorkingDirectory folder;
    put(DAY + ".log", begin("10:00:00", "ConsultarSAT", "1"));
    EXPECT_NE(log("--since 20310228").find("incompleta"), std::string::npos);
    EXPECT_EQ(log("--since 2031-03-01"), "0\nNenhum log em logsDrs desde 20310301\n");
    put(DAY + ".log", "DRS Version: 01.00.01.001\n");
    EXPECT_EQ(log(), "0\nNenhuma chamada nos logs de logsDrs\n");
    fs::remove(DAY + ".log");
    EXPECT_EQ(log(), "0\nNenhum log em logsDrs\n");
}

TEST(Log, WrongCommandLinesPrintOrChangeSomething) {
    const WorkingDirectory folder;
    put(DAY + ".log", begin("10:00:00", "ConsultarSAT", "1"));
    const std::pair<std::string, std::string> cases[] = {
        {"--since 20310229", "--since: esperado um dia, AAAAMMDD ou AAAA-MM-DD, e não \"20310229\""},
        {"--since 2031-2-28", "esperado um dia"},
        {"--since 20310228x", "esperado um dia"},
        {"--since ''", "esperado um dia"},
        {"--dir absent",
         "a pasta de logs absent não pode ser lida: No such file or directory; esperada uma que"},
        {"--dir " + DAY + ".log", "Not a directory"},
        {"--svg absent/picture.svg", "não é possível gravar absent/picture.svg: No such file or directory"},
        {"--svg logsDrs", "logsDrs: não é um arquivo comum"},
        {"--svg ./" + DAY + ".log", "é o nome de um log"},
        {"--svg ''", "não é o nome de um arquivo"},
        {"today", "not expected: today"},
        {"-- today", "not expected: today"},
    };
    for (const auto& [arguments, expected] : cases) {
        const std::string output = log(arguments);
        EXPECT_EQ(output.substr(0, 15), "2\nfiscora log: ") << output;
        EXPECT_NE(output.find(expected), std::string::npos) << output;
        EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
        EXPECT_EQ(shell("find . -type f"), "0\n./" + DAY + ".log\n") << arguments;
    }
}

TEST(Log, ThePictureIsBrokenOrLacksMarksOrDrawsThemElsewhere) {
    const WorkingDirectory folder;
    std::string many;
    for (int minute = 0; minute < 1200; ++minute) {  // one a minute, 20 of them a failure, 20 without end
        const auto twoDigits = [](int number) { return std::to_string(100 + number).substr(1); };
        const std::string time = twoDigits(minute / 60) + ":" + twoDigits(minute % 60) + ":0";
        many += begin(time + "0", "ConsultarSAT", "1");
        if (minute % 60 == 7) many += failure(time + "6", 32768);
        if (minute % 60 != 7 && minute % 60 != 8) many += end(time + "6", "ConsultarSAT", "1");
    }
    const struct {
        std::string log;
        std::size_t answered, failed, incomplete;  ///< marks, those of the legend not counted
    } cases[] = {
        {"", 0, 0, 0},
        {begin("10:00:00", "A<&>", "1") + end("10:00:00", "A<&>", "1", "\"\x1b\xff rxCCCC: x status: 0"), 1,
         0, 0},
        {begin("10:00:00", "A", "1") + begin("10:00:00", "B", "2") + failure("10:00:01", 1), 0, 1, 1},
        {many, 400, 20, 20},
    };
    for (const auto& [text, answered, failed, incomplete] : cases) {
        put(DAY + ".log", text);
        ASSERT_EQ(log("--svg picture.svg").substr(0, 2), "0\n");
        pugi::xml_document picture;
        ASSERT_TRUE(picture.load_file("picture.svg"));
        const auto svg = picture.child("svg");
        const auto marks = [&](const std::string& name) {
            return svg.select_nodes(("g/" + name + "[title]").c_str());
        };
        EXPECT_GE(marks("circle").size(), answered);
        EXPECT_LE(marks("circle").size(), answered * 3);
        EXPECT_EQ(marks("path[contains(@d,'8m')]").size(), failed);
        EXPECT_EQ(marks("path[contains(@d,'z')]").size(), incomplete);
        for (const auto& mark : marks("circle")) {
            const int x = mark.node().attribute("cx").as_int(), y = mark.node().attribute("cy").as_int();
            EXPECT_TRUE(x >= 70 && x <= 955 && y > 70 && y < svg.attribute("height").as_int() - 60)
                << x << " " << y;
        }
    }
}

TEST(Log, AFailedPictureTakesTheFileWithIt) {
    const WorkingDirectory folder;
    put(DAY + ".log", begin("10:00:00", "ConsultarSAT", "1"));
    put("pictures/old.svg", "old");
    fs::permissions("pictures/old.svg", fs::perms(0604));
    fs::create_symlink("pictures/old.svg", "link.svg");
    const std::string failed = shell("trap '' XFSZ; ulimit -f 1; " FISCORA_TOOL " log --svg link.svg");
    EXPECT_EQ(failed.substr(0, 2), "1\n");
    EXPECT_NE(failed.find("\nfiscora log: não é possível gravar link.svg: File too large\n"),
              std::string::npos)
        << failed;
    EXPECT_EQ(shell("cat pictures/old.svg"), "0\nold");
    EXPECT_EQ(log("--svg link.svg").substr(0, 2), "0\n");
    EXPECT_EQ(shell("head -c 5 pictures/old.svg"), "0\n<?xml");
    EXPECT_EQ(fs::status("pictures/old.svg").permissions(), fs::perms(0604));
    EXPECT_EQ(shell("ls . pictures"), "0\n.:\nlink.svg\nlogsDrs\npictures\n\npictures:\nold.svg\n");
}

}  // namespace
