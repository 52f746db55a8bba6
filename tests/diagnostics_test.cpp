#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "diagnostics/logdebug.h"
#include "fiscal/UCManipulaDadosSat.h"
#include "platform.h"
#include "transaction/DoTransaction.h"

namespace {

namespace fs = std::filesystem;

const std::string VERSION_LINE = "DRS Version: 01.00.01.001\n", LOG = "./logsDrs/logDrs20310228.log",
                  OLDEST = "./logsDrs/logDrs20300101.log";

/// Makes empty logs of the first days of 2030.
void makeLogs(int count) {
    for (int day = 0; day < count; ++day)
        writeFile("logsDrs/logDrs" + std::to_string(20300101 + day) + ".log", "");
}

/// Logs `text` at that time; returns the line that the log should have.
std::string logged(const std::string& localTime, const std::string& text) {
    setClock(localTime);
    LogDebug::obtemReferencia()->saveLog("info", text);
    return "[" + localTime.substr(0, 10) + "." + localTime.substr(11) + "] - [info, " + text + "]\n";
}

class Diagnostics : public testing::Test {
  protected:
    Diagnostics() { fs::create_directory("logsDrs"); }
    ~Diagnostics() override { platform = Platform(); }

    WorkingDirectory m_folder;
};

TEST_F(Diagnostics, TheFirstLineMakesItsDirectory) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";  // a new process, whose log has not begun
    const auto logFirstLine = [] {
        fs::remove("logsDrs");
        umask(0);
        const std::string line = logged("2031-02-28 14:05:09", "x");
        EXPECT_EQ(files(), Files({{LOG, VERSION_LINE + line}}));
        EXPECT_EQ(fs::status("logsDrs").permissions(), fs::perms(0775));
        fs::remove_all(fs::current_path());
        std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(logFirstLine(), testing::ExitedWithCode(0), "");
}

TEST_F(Diagnostics, ANewDayArchivesAndPrunesInOrder) {
    makeLogs(6);
    const std::string day = VERSION_LINE + logged("2031-02-28 23:59:59", "old");
    std::string steps;
    // Notes a step, the number of files and how today's begins.
    const auto note = [&steps](const std::string& step) {
        const std::string today = files()["./logsDrs/logDrs20310301.log"].substr(0, 3);
        steps += step + " " + std::to_string(files().size()) + today + ", ";
        return AT_FDCWD;
    };
    platform.sync = [&] { note("sync"); };
    platform.rename = [&](auto* from, auto* to) { return renameat(note("rename"), from, AT_FDCWD, to); };
    platform.remove = [&](auto* path) { return unlinkat(note(std::string("remove ") + path), path, 0); };
    testing::internal::CaptureStdout();
    logged("2031-03-01 00:00:01", "new");
    platform = Platform();
    EXPECT_EQ(
        testing::internal::GetCapturedStdout(),
        "[removeLastDays] file to zip logsDrs/logDrs20310228.log\n"
        "[removeLastDays] cmd to zip tar -zcvf logsDrs/logDrs20310228.log.tar.gz logsDrs/logDrs20310228.log\n"
        "logsDrs/logDrs20310228.log\n"
        "[removeLastDays] erase logsDrs/logDrs20310228.tar.gz\n"
        "File successfully renamed\n");
    EXPECT_EQ(steps,
              "sync 7, sync 8, rename 8, sync 8, remove logsDrs/logDrs20310228.log 8, sync 7, "
              "remove logsDrs/logDrs20300101.log 8DRS, sync 7DRS, ");
    EXPECT_EQ(std::system("tar -xzf logsDrs/logDrs20310228.tar.gz"), 0);
    EXPECT_EQ(files()[LOG], day);
}

TEST_F(Diagnostics, TarNeitherWaitsForAReaderNorFollowsALink) {
    testing::internal::CaptureStdout();
    for (const bool isLink : {false, true}) {
        logged("2031-02-28 23:59:59", "old");
        const char* const archive = "logsDrs/logDrs20310228.log.tar.gz";
        writeFile("kept", "");
        ASSERT_EQ(isLink ? symlink("../kept", archive) : mkfifo(archive, 0600), 0);
        logged("2031-03-01 00:00:01", "new");
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status("logsDrs/logDrs20310228.tar.gz")));
        EXPECT_TRUE(!fs::exists(LOG) && fs::is_empty("kept"));
    }
    testing::internal::GetCapturedStdout();
}

TEST_F(Diagnostics, ALogThatIsALinkBeginsLikeAnyOther) {
    fs::create_symlink("../elsewhere", LOG);
    const std::string first = logged("2031-02-28 12:00:00", "x"), second = logged("2031-02-28 12:00:00", "y");
    EXPECT_EQ(files()["./elsewhere"], VERSION_LINE + first + second);
    EXPECT_TRUE(fs::is_symlink(LOG));
}

TEST_F(Diagnostics, OfEightLogFilesTheOldestGoes) {
    const std::tuple<int, std::string, bool> cases[] = {
        {7, "notes.txt", false},           {8, "notes.txt", true},     {13, "notes.txt", true},
        {7, "old/logDrs1.log", false},     {7, "xlogDrs1.log", false}, {7, "logDrsX/any", true},
        {7, "logDrs20300101.tar.gz", true}};
    for (const auto& [logs, other, removes] : cases) {
        fs::remove_all("logsDrs");
        for (const auto* directory : {"logsDrs/old", "logsDrs/logDrsX"}) fs::create_directories(directory);
        makeLogs(logs);
        writeFile("logsDrs/" + other, "");
        auto expected = files();
        if (removes) expected.erase(OLDEST);
        LogDebug::obtemReferencia()->removeLastDays(std::string("logsDrs").data());
        EXPECT_EQ(files(), expected) << logs << " logs and " << other;
    }
    makeLogs(8);
    logged("2001-01-01 12:00:00", "x");
    EXPECT_TRUE(fs::exists("logsDrs/logDrs20010101.log")) << "the file in use stays, whatever its date";
    EXPECT_FALSE(fs::exists(OLDEST));
}

TEST_F(Diagnostics, ALineIsAppendedAndCutAt511Bytes) {
    const std::string time = "2031-02-28 12:00:00";
    writeFile(LOG, "cut by a full disk");
    const std::string fits = logged(time, std::string(479, 'x')), cut = logged(time, std::string(480, 'x'));
    EXPECT_EQ(files(), Files({{LOG, "cut by a full disk\n" + fits + cut.substr(0, 511) + "\n"}}));
    fs::remove(LOG);
    const std::string first = logged(time, "50%s"), second = logged(time, "y");
    EXPECT_EQ(files(), Files({{LOG, VERSION_LINE + first + second}}));
    fs::create_directories("elsewhere/logsDrs");
    fs::current_path("elsewhere");
    const std::string moved = logged(time, "moved");
    EXPECT_EQ(files(), Files({{LOG, VERSION_LINE + moved}}));
    fs::remove_all("logsDrs");
    logged(time, "dropped");
    EXPECT_TRUE(files().empty());
}

TEST_F(Diagnostics, ADumpHoldsTheBytesAsGiven) {
    platform.usleep = [](useconds_t) { return 0; };
    setClock("2026-02-03 14:05:09");
    const std::string name = "./20260302140509_",
                      version = "DRS Version:01.00.01.001\r\nDebug msg code: ", code(300, 'c');
    DoTransaction transaction;
    transaction.fileDump("A", "longer", 6, "r\0", 2);
    transaction.fileDump("A", "t\0x", 3, nullptr, 0);  // leaves the earlier rx file
    fs::create_directory(name + "B_tx.bin");           // can't be opened
    transaction.fileDump("B", nullptr, 0, "rx", 2);
    transaction.fileDump(code.c_str(), "tx", 2, nullptr, 0);
    const Files expected = {{name + "A_tx.bin", std::string("t\0x", 3)},
                            {name + "A_debug.txt", version + "A\r\ntxBufferSize:3\r\nrxBufferSize:0\r\n"},
                            {name + "A_rx.bin", std::string("r\0", 2)},
                            {name + "B_debug.txt", version + "B\r\ntxBufferSize:0\r\nrxBufferSize:2\r\n"},
                            {name + "B_rx.bin", "rx"},
                            {(name + code).substr(0, 257), (version + code).substr(0, 255)}};
    EXPECT_EQ(files(), expected);
    EXPECT_EQ(serial::SerialCommChannel().getTimer(), "20260302140509 ");
}

TEST_F(Diagnostics, ARecordListsTheStagesAndTheirDifferences) {
    setClock("2015-06-30 14:05:09");
    pbs::Message answer("C", "1");
    answer.addHeader("DELTA_DRS", "120");
    answer.addHeader("DELTA_DRS_CCO", "150");
    answer.addHeader("DELTA_CCO", "4294967297");
    answer.addHeader("DELTA_CSE_COM", "12;a");
    answer.addHeader("DELTA_SWB", "-2147483648");
    const std::string heading =
        R"("DATA_HORA";"CODE";"DELTA_DRS";"PROC_DRS";"DELTA_DRS_CCO";"TRANS_DRS_CCO";"DELTA_CCO";"PROC_CCO";)"
        R"("DELTA_CSE_COM";"TRANS_CCO_CSE";"DELTA_CSE";"PROC_CSE";"DELTA_SWB";)"
        "\n";
    const std::string ofAnswer =
        "2015/30/06/14:05:09;C;120;-30;150;149;4294967297;-11;12;a;12;;-2147483648;-2147483648;\n";
    const std::string ofText = "2015/30/06/14:05:09;text;\n", file = "./teste_desempenho.csv";
    objManipulaDadosSat.gravaArquivoDesempenho(answer);
    objManipulaDadosSat.gravaArquivoDesempenho("text");
    EXPECT_EQ(files(), Files({{file, heading + ofAnswer + ofText}}));
    fs::remove(file);
    objManipulaDadosSat.gravaArquivoDesempenho("text");
    objManipulaDadosSat.gravaArquivoDesempenho(answer);
    EXPECT_EQ(files(), Files({{file, "\"DATA_HORA\";\"DELTA_DRS\";\n" + ofText + ofAnswer}}));
}

}  // namespace
