// The journal on disk: what goes in comes out byte for byte, and a journal that is not whole is found out.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "journal/Journal.h"
#include "journal/OwnerLock.h"
#include "journal/backup.h"
#include "journal/check.h"
#include "platform.h"

namespace {

using namespace fiscorad;
using testing::HasSubstr;
namespace fs = std::filesystem;

Identity till(const std::string& name) { return {Role::Till, name, name}; }

constexpr char PATH[] = "journal.db";
constexpr char SERIAL[] = "900004019";
constexpr char KEY[] = "CFe35261114200166000166599000040190000011126480";

Submission sale(const std::string& key, const std::string& body = "<CFe><infCFe><a>1</a></infCFe></CFe>") {
    return {key, Kind::Sale, {}, body, ""};
}

/// A journal with one booked document, "booked", one that a person must decide about, "undecided", and one in
/// the queue.
void fill(Journal& journal) {
    for (const std::string key : {"booked", "undecided", "queued"})
        journal.submit(sale(key, "<CFe><infCFe><a>" + key + "</a></infCFe></CFe>"), 100);
    for (const char* key : {"booked", "undecided"}) {
        const Document document = journal.find(key).value();
        const Attempt attempt =
            journal.beginAttempt({0, document.id, journal.takeSession(), SERIAL, "", "host", Time{}}).value();
        Outcome outcome;
        outcome.state = key == std::string("booked") ? State::Booked : State::Undecided;
        if (outcome.state == State::Booked) {
            outcome.booking.accessKey = KEY;
            outcome.booking.document =
                std::string("<CFe><infCFe Id=\"") + KEY + "\"><a>booked</a><b>2</b></infCFe></CFe>";
            outcome.answer = std::string("000001|06000|0000|Emitido||||20261123|") + KEY + "|1.00||x";
        }
        ASSERT_TRUE(journal.settle(attempt, State::Sent, outcome));
    }
}

void execute(const std::string& statement) {
    soci::session sql(soci::sqlite3, PATH);
    sql << statement;
}

TEST(AJournal, GivesDocumentsBackByteForByte) {
    const WorkingDirectory folder;
    std::ofstream(PATH).flush();
    ASSERT_EQ(chmod(PATH, 0644), 0);
    std::string every;
    for (int byte = 1; byte < 256; ++byte) every += static_cast<char>(byte);
    std::mt19937 random(1);
    std::string large(1'500'000, '\0');
    for (char& c : large) c = static_cast<char>(random() % 255 + 1);
    int number = 0;
    for (const std::string& body : {std::string("<a>caf\xE9</a>"), every, large}) {
        Journal journal(PATH);
        const Document document = journal.submit(sale("key" + std::to_string(++number), body), 100).document;
        EXPECT_EQ(journal.body(document.id), body);
        const Attempt attempt =
            journal.beginAttempt({0, document.id, number, SERIAL, "", "host", Time{}}).value();
        Outcome outcome;
        outcome.state = State::Booked;
        outcome.answer = "000001|06000|Emitido com sucesso \xE7\xE3o||";
        outcome.booking = {"CFe" + std::to_string(number), body + body, ""};
        ASSERT_TRUE(journal.settle(attempt, State::Sent, outcome));
        EXPECT_EQ(Journal(PATH).signedDocument(document.id), body + body);
        EXPECT_EQ(Journal(PATH).find(document.id)->answer, outcome.answer);
    }
    struct stat file {};
    ASSERT_EQ(stat(PATH, &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600U) << "customers' tax numbers are in it";
}

TEST(AKey, BelongsToItsFirstDocumentAndTill) {
    const WorkingDirectory folder;
    Journal journal(PATH);
    const Submission first{"key", Kind::Sale, "caixa 1", "<a/>", ""};
    EXPECT_EQ(journal.submit(first, 2).result, Receipt::Result::Accepted);
    struct {
        const char* fault;
        std::function<void(Submission&)> change;
        Receipt::Result result;
    } const cases[] = {
        {"the same again", [](Submission&) {}, Receipt::Result::Known},
        {"another body", [](Submission& other) { other.body = "<b/>"; }, Receipt::Result::KeyReused},
        {"another till", [](Submission& other) { other.till = "caixa 2"; }, Receipt::Result::KeyReused},
        {"no till", [](Submission& other) { other.till.reset(); }, Receipt::Result::KeyReused},
        {"a cancellation", [](Submission& other) { other.kind = Kind::Cancellation; },
         Receipt::Result::KeyReused},
        {"another key", [](Submission& other) { other.key = "key2"; }, Receipt::Result::Accepted},
        {"more than the queue takes", [](Submission& other) { other.key = "key3"; },
         Receipt::Result::QueueFull},
        {"a known key while the queue is full", [](Submission&) {}, Receipt::Result::Known},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.fault);
        Submission other = first;
        row.change(other);
        EXPECT_EQ(journal.submit(other, 2).result, row.result);
    }
    EXPECT_FALSE(journal.withdraw("key", Kind::Sale, till("caixa 2")).withdrawn) << "by another till";
    EXPECT_TRUE(journal.withdraw("key", Kind::Sale, till("caixa 1")).withdrawn);
    const Identity administrator{Role::Administrator, "Ana", "Ana"};
    for (const Identity& who : {administrator, till("caixa 1")}) {
        const std::string key = "never came to " + who.person;
        EXPECT_TRUE(journal.withdraw(key, Kind::Sale, who).withdrawn);
        const Receipt late = journal.submit({key, Kind::Sale, "caixa 1", "<a/>", ""}, 2);
        EXPECT_EQ(late.result, Receipt::Result::Known);
        EXPECT_EQ(nameOf(late.document.state), "retirada")
            << "a delayed request of a withdrawn key must not be booked";
    }
}

TEST(AJournal, ChangesADocumentOnlyFromTheStateThatTheChangeRestsOn) {
    const WorkingDirectory folder;
    Journal journal(PATH);
    fill(journal);
    const Document undecided = journal.find("undecided").value();
    const Attempt attempt = journal.lastAttempt(undecided.id).value();
    EXPECT_FALSE(journal.settle(attempt, State::Uncertain, Outcome{})) << "it is undecided";
    EXPECT_FALSE(journal.beginAttempt({0, undecided.id, 7, SERIAL, "", "host", Time{}}))
        << "it is not queued";
    EXPECT_FALSE(journal.rule("booked", {})) << "there is nothing to decide";
    EXPECT_THROW(journal.rule("undecided", {Ruling::Kind::Booked, KEY, "Ana", "x"}), std::invalid_argument)
        << "another document has that access key";
    EXPECT_TRUE(journal.rule("undecided", {Ruling::Kind::SendAgain, "", "Ana", "não saiu cupom"}));
    EXPECT_EQ(journal.history(undecided.id).back().person, "Ana");
    const Attempt again = journal.beginAttempt({0, undecided.id, 8, SERIAL, "", "host", Time{}}).value();
    EXPECT_FALSE(journal.settle(attempt, State::Sent, Outcome{})) << "a later attempt is under way";
    EXPECT_TRUE(journal.settle(again, State::Sent, Outcome{}));
    EXPECT_THROW(execute("UPDATE attempts SET session = 1"), soci::soci_error);
}

TEST(ASessionNumber, IsNeverTakenTwiceWhateverEndsTheProcess) {
    const WorkingDirectory folder;
    std::set<int> taken;
    for (int start = 0; start < 5; ++start) {
        Journal journal(PATH);
        for (int i = 0; i < 130; ++i) {
            const int session = journal.takeSession();
            EXPECT_TRUE(taken.insert(session).second) << session;
            EXPECT_TRUE(session >= 1 && session <= 999999) << session;
        }
    }
}

TEST(AJournal, OfTheFirstVersionIsBroughtUpToDate) {
    const WorkingDirectory folder;
    Journal(PATH).submit(sale("key"), 10);
    for (const char* statement : {"DROP TABLE tokens", "DROP TABLE actions", "PRAGMA user_version = 1"})
        execute(statement);
    Journal journal(PATH);
    EXPECT_TRUE(journal.find("key"));
    EXPECT_FALSE(journal.hasTokens());
    EXPECT_TRUE(
        journal.addToken({"caixa1", Role::Till, hashOf("secret"), std::chrono::system_clock::now(), {}}));
    EXPECT_EQ(journal.findToken(hashOf("secret"))->name, "caixa1");
    EXPECT_THAT(problemsIn(PATH, ""), testing::IsEmpty());
}

TEST(AJournal, IsRefusedIfItIsNotWhole) {
    struct {
        const char* fault;
        std::function<void()> harm;
        const char* message;
    } const cases[] = {
        {"no database", [] { std::ofstream(PATH) << std::string(5000, 'x'); }, "not a database"},
        {"another program's database", [] { execute("PRAGMA application_id = 1"); }, "not a journal"},
        {"from a newer version", [] { execute("PRAGMA user_version = 99"); }, "newer version"},
        {"cut off", [] { fs::resize_file(PATH, fs::file_size(PATH) - 16384); }, "malformed"},
        {"open without its attempt", [] { execute("UPDATE documents SET state = 2 WHERE key = 'queued'"); },
         "open documents without their attempts"},
        {"without session numbers", [] { execute("DELETE FROM sessions"); }, "session number is missing"},
        {"under two names", [] { fs::create_hard_link(PATH, "second"); }, "hard link"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.fault);
        const WorkingDirectory folder;
        {
            Journal journal(PATH);
            fill(journal);
        }
        row.harm();
        try {
            Journal journal{PATH};
            ADD_FAILURE() << "opened";
        } catch (const JournalError& error) {
            EXPECT_THAT(error.what(), HasSubstr(row.message));
        }
    }
}

TEST(AJournal, KnowsTheKeyOfARemovedDocumentAndGivesItsRoomBack) {
    const WorkingDirectory folder;
    std::mt19937 random(1);
    std::string large(1'500'000, '\0');
    for (char& c : large) c = static_cast<char>(random());
    std::vector<std::int64_t> documents;
    std::uintmax_t full = 0;
    {
        Journal journal(PATH);
        for (const char* key : {"removed", "kept"}) {
            documents.push_back(journal.submit(sale(key, key + large), 100).document.id);
            const Attempt attempt =
                journal.beginAttempt({0, documents.back(), journal.takeSession(), SERIAL, "", "host", Time{}})
                    .value();
            Outcome outcome;
            outcome.state = State::Booked;
            outcome.booking = {std::string("CFe") + key, large, ""};
            ASSERT_TRUE(journal.settle(attempt, State::Sent, outcome));
        }
    }
    full = fs::file_size(PATH);
    {
        Journal journal(PATH);
        journal.removeTexts({documents.front(), documents.front()});
        while (journal.shrink(10)) {
        }
        const Receipt again = journal.submit(sale("removed", "removed" + large), 100);
        EXPECT_EQ(again.result, Receipt::Result::Known);
        EXPECT_EQ(again.document.state, State::Booked);
        EXPECT_TRUE(again.document.documentRemoved && !again.document.hasDocument);
        EXPECT_EQ(journal.submit(sale("removed", "another"), 100).result, Receipt::Result::KeyReused);
        EXPECT_TRUE(journal.isBooked("CFeremoved"))
            << "the device's answer could be taken for another sale's";
        EXPECT_EQ(journal.signedDocument(documents.front()), std::nullopt);
        EXPECT_EQ(journal.signedDocument(documents.back()), large);
    }
    EXPECT_LT(fs::file_size(PATH), full * 6 / 10);
}

TEST(ACheck, NamesTheRowThatBreaksARule) {
    struct {
        const char* statement;
        const char* problem;
    } const cases[] = {
        {"", ""},
        {"UPDATE documents SET access_key = NULL WHERE key = 'booked'",
         "state and access key contradict each other: booked"},
        {"UPDATE documents SET state = 4 WHERE key = 'queued'", "history ends in another state: queued"},
        {"UPDATE documents SET concluded_at = NULL WHERE key = 'booked'",
         "final without its time, or the reverse: booked"},
        {"INSERT INTO history (document, at, state, text) SELECT id, 0, 3, '' FROM documents WHERE key = 'booked'",
         "booked twice: booked"},
        {"DELETE FROM history WHERE state = 3", "sent while booked was open"},
        {"INSERT INTO attempts (document, session, serial, last_document, node, made_at) SELECT document, session, serial,"
         " last_document, node, made_at FROM attempts ORDER BY id DESC LIMIT 1",
         "was used twice"},
        {"UPDATE sessions SET next = next - 150", "would be used again"},
        {"INSERT INTO attempts (document, session, serial, last_document, node, made_at) SELECT 3, 77, serial, '', '', 0"
         " FROM attempts UNION ALL SELECT 3, session, serial, '', '', 0 FROM attempts WHERE id = 1",
         "was used twice"},
        {"UPDATE texts SET request = (SELECT request FROM texts WHERE document = 2) WHERE document = 1",
         "booking without proof"},
        {"UPDATE documents SET answer = '1|06000|12345678|' WHERE key = 'queued'",
         "activation code found: table documents"},
        {"UPDATE documents SET has_document = 2 WHERE key = 'booked'", "half removed: booked"},
        {"DELETE FROM texts WHERE document = 3", "the request is missing: queued"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.statement);
        const WorkingDirectory folder;
        {
            Journal journal(PATH);
            fill(journal);
            journal.submit(sale("other", "<other/>"), 100);
        }
        std::string statement = row.statement;
        if (!statement.empty()) execute(statement);
        const auto problems = problemsIn(PATH, "12345678");
        if (statement.empty())
            EXPECT_THAT(problems, testing::IsEmpty());
        else
            EXPECT_THAT(problems, testing::Contains(HasSubstr(row.problem)));
    }
}

TEST(AJournal, GoesOnWhenTheDiskHasRoomAgain) {
    const WorkingDirectory folder;
    Journal journal(PATH);
    std::string body(100'000, '\0');
    std::mt19937 random(1);
    for (char& c : body) c = static_cast<char>(random() % 255 + 1);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{1'000'000, before.rlim_max};
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    std::size_t accepted = 0;
    try {
        for (; accepted < 100; ++accepted) journal.submit(sale("key" + std::to_string(accepted), body), 1000);
        ADD_FAILURE() << "the disk was not full";
    } catch (const JournalError& error) {
        EXPECT_THAT(error.what(), testing::Not(HasSubstr("\n")));
    }
    EXPECT_EQ(journal.queueLength(), accepted) << "what failed must not be there by half";
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, handler);
    EXPECT_EQ(journal.submit(sale("key" + std::to_string(accepted), body), 1000).result,
              Receipt::Result::Accepted);
    EXPECT_THAT(problemsIn(PATH, ""), testing::IsEmpty());
}

TEST(AJournal, LooksAtItsQueueAsQuicklyWhenItIsLarge) {
    const WorkingDirectory folder;
    Journal journal(PATH);
    const auto quickest = [&] {
        auto best = std::chrono::nanoseconds::max();
        for (int i = 0; i < 30; ++i) {
            const auto begin = std::chrono::steady_clock::now();
            journal.oldestQueued();
            journal.open();
            journal.undecided(SERIAL, 10);
            journal.queueLength();
            best = std::min<std::chrono::nanoseconds>(best, std::chrono::steady_clock::now() - begin);
        }
        return best;
    };
    const auto empty = quickest();
    execute(
        "INSERT INTO documents (key, kind, state, sale_key, answer, not_booked, has_document, received_at)"
        " WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 50000)"
        " SELECT i, 0, 3, '', '', 0, 0, 0 FROM n");
    EXPECT_LT(quickest(), 10 * empty) << "it reads all documents";
}

TEST(ABackup, TakesThePlaceOfTheJournalOnlyWhileNobodyServes) {
    const WorkingDirectory folder;
    Journal{PATH}.submit(sale("one"), 100);
    backUp(PATH, "copy.db");
    EXPECT_THROW(backUp(PATH, "copy.db"), JournalError) << "a file must not be replaced";
    Journal{PATH}.submit(sale("later"), 100);
    {
        const OwnerLock serving(PATH);
        EXPECT_THROW(restore("copy.db", PATH), JournalError);
    }
    if (geteuid() == 0) {
        ASSERT_EQ(chown(PATH, 1, 1), 0);
    }
    EXPECT_TRUE(Journal(restore("copy.db", PATH)).find("later")) << "the journal of before must not be lost";
    for (const char* path : {PATH, "journal.db.lock"}) {
        struct stat file {};
        ASSERT_EQ(stat(path, &file), 0);
        EXPECT_EQ(file.st_uid, geteuid() == 0 ? 1U : geteuid()) << path << ": the service could not open it";
    }
    EXPECT_FALSE(Journal(PATH).find("later"));
    std::ofstream("copy.db", std::ios::trunc) << "x";
    EXPECT_THROW(restore("copy.db", PATH), JournalError);
    EXPECT_TRUE(Journal(PATH).find("one"));
    for (const auto& entry : fs::directory_iterator("."))
        EXPECT_THAT(
            entry.path(),
            testing::AnyOf(
                "./copy.db", "./journal.db", "./journal.db.lock",
                testing::ResultOf(
                    [](const fs::path& path) { return path.string().rfind("./journal.db.2", 0); }, 0)));
}

TEST(ARestoredJournal, RepeatsNothingThatMayHaveHappenedAfterTheCopy) {
    const WorkingDirectory folder;
    std::set<int> taken;
    const auto takeSome = [&] {
        Journal journal(PATH);
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(taken.insert(journal.takeSession()).second);
    };
    {
        Journal journal(PATH);
        fill(journal);
    }
    backUp(PATH, "copy.db");
    takeSome();
    for (const bool readable : {true, false, true, false}) {
        SCOPED_TRACE(readable);
        if (!readable) std::ofstream(PATH, std::ios::trunc) << "x";
        fs::remove(restore("copy.db", PATH));
        takeSome();
        const Document queued = Journal(PATH).find("queued").value();
        EXPECT_EQ(queued.state, State::Undecided) << "it may have been sold after the copy was made";
        EXPECT_EQ(Journal(PATH).find("booked")->state, State::Booked);
        EXPECT_THAT(problemsIn(PATH, ""), testing::IsEmpty());
    }
    EXPECT_TRUE(Journal(PATH).rule("queued", {Ruling::Kind::SendAgain, "", "Ana", "não saiu cupom"}));
}

}  // namespace
