#include "journal/schema.h"

#include <fcntl.h>
#include <soci/sqlite3/soci-sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <random>

#include "Descriptor.h"
#include "i18n.h"
#include "journal/Journal.h"

namespace fiscorad {
namespace {

/// Times are milliseconds since 1970-01-01 00:00 UTC. Kinds and states have the numbers of rules/document.h.
constexpr std::array TABLES = {
    // Rows are never deleted, so ids grow in order of arrival.
    "CREATE TABLE documents (id INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE, kind INTEGER NOT NULL,"
    " state INTEGER NOT NULL, till TEXT, sale_key TEXT NOT NULL, access_key TEXT UNIQUE, answer TEXT NOT NULL,"
    " not_booked INTEGER NOT NULL, has_document INTEGER NOT NULL, received_at BIGINT NOT NULL, concluded_at BIGINT)",
    // Not a partial index on the open states: SQLite cannot tell that a bound state is one of them, and would
    // scan the table.
    "CREATE INDEX documents_state ON documents (state, id)",
    "CREATE INDEX documents_till ON documents (till, id)",
    "CREATE INDEX documents_received ON documents (received_at)",
    // What was sent and what came back, apart from the rest so that lists stay quick. Packed; the sizes are
    // those of the texts. If has_document is 2, both were removed, and `request` is the digest of what was
    // sent.
    "CREATE TABLE texts (document INTEGER PRIMARY KEY REFERENCES documents (id), request BLOB NOT NULL,"
    " request_size INTEGER NOT NULL, signed BLOB, signed_size INTEGER)",
    "CREATE TABLE attempts (id INTEGER PRIMARY KEY, document INTEGER NOT NULL REFERENCES documents (id),"
    " session INTEGER NOT NULL, serial TEXT NOT NULL, last_document TEXT NOT NULL, node TEXT NOT NULL,"
    " made_at BIGINT NOT NULL)",
    "CREATE INDEX attempts_document ON attempts (document, id)",
    "CREATE TRIGGER attempts_stay BEFORE UPDATE ON attempts BEGIN SELECT RAISE(ABORT, 'attempts never change'); END",
    "CREATE TRIGGER attempts_last BEFORE DELETE ON attempts BEGIN SELECT RAISE(ABORT, 'attempts never go'); END",
    // A person's decision has their name.
    "CREATE TABLE history (id INTEGER PRIMARY KEY, document INTEGER NOT NULL REFERENCES documents (id),"
    " attempt INTEGER REFERENCES attempts (id), at BIGINT NOT NULL, state INTEGER NOT NULL, text TEXT NOT NULL,"
    " person TEXT, reason TEXT)",
    "CREATE INDEX history_document ON history (document, id)",
    "CREATE TABLE devices (serial TEXT PRIMARY KEY, last_document TEXT NOT NULL, last_cancellation TEXT NOT NULL)",
    "CREATE TABLE alarms (id INTEGER PRIMARY KEY, serial TEXT NOT NULL, explained TEXT NOT NULL, shown TEXT NOT NULL,"
    " since BIGINT NOT NULL, halts INTEGER NOT NULL, confirmed_at BIGINT, person TEXT, reason TEXT)",
    "CREATE TABLE sessions (next INTEGER NOT NULL)",
};
constexpr std::array TABLES_OF_VERSION_2 = {
    "CREATE TABLE tokens (id INTEGER PRIMARY KEY, name TEXT NOT NULL, role INTEGER NOT NULL, hash TEXT NOT NULL UNIQUE,"
    " made_at BIGINT NOT NULL, revoked_at BIGINT)",
    "CREATE TABLE actions (id INTEGER PRIMARY KEY, at BIGINT NOT NULL, person TEXT NOT NULL, what TEXT NOT NULL,"
    " subject TEXT NOT NULL)",
};

/// Brings the schema to this program's version, from nothing or from an older one, in one transaction.
/// Another process may have been faster.
void bringUpToDate(soci::session& sql) {
    sql << "BEGIN IMMEDIATE";
    int version = 0;
    sql << "PRAGMA user_version", soci::into(version);
    if (version < 1) {
        for (const char* table : TABLES) sql << table;
        const int start = static_cast<int>(std::random_device{}() % 999999);
        sql << "INSERT INTO sessions (next) VALUES (:start)", soci::use(start);
        sql << "PRAGMA application_id = " << APPLICATION_ID;
    }
    if (version < 2)
        for (const char* table : TABLES_OF_VERSION_2) sql << table;
    if (version < SCHEMA_VERSION) sql << "PRAGMA user_version = " << SCHEMA_VERSION;
    sql << "COMMIT";
}

bool isPrivate(const struct stat& file) { return (file.st_mode & (S_IRWXG | S_IRWXO)) == 0; }

/// Whether the file says so itself: a wrong path must not change another file's permissions.
bool isJournal(const tool::Descriptor& file) {
    // SQLite's file format: the application's mark is 4 bytes, big-endian.
    constexpr off_t MARK = 68;
    std::array<unsigned char, 4> mark{};
    if (pread(file.get(), mark.data(), mark.size(), MARK) != static_cast<ssize_t>(mark.size())) return false;
    return mark == std::array<unsigned char, 4>{'F', 'I', 'S', 'C'};
}

}  // namespace

void makePrivate(const std::string& path, Journal::IfMissing ifMissing) {
    // What is private already is not opened: closing it would end the locks on it that SQLite holds for
    // other connections of this process.
    struct stat present {};
    const bool exists = stat(path.c_str(), &present) == 0;
    if (exists && access(path.c_str(), R_OK | W_OK) != 0)
        throw JournalError(path + ": " + tool::systemError(errno));
    // SQLite keeps what is not yet in the file beside it, under the name by which it was opened.
    if (exists && S_ISREG(present.st_mode) && present.st_nlink > 1)
        throw JournalError(path + ": " +
                           tool::tr("the file has a second name (a hard link); remove one of them"));
    if (exists && S_ISREG(present.st_mode) && isPrivate(present)) return;

    const int create = ifMissing == Journal::IfMissing::Create ? O_CREAT : 0;
    const tool::Descriptor file(open(path.c_str(), O_RDWR | create | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file.get() < 0 || fstat(file.get(), &present) != 0)
        throw JournalError(path + ": " + tool::systemError(errno));
    if (!S_ISREG(present.st_mode)) throw JournalError(path + ": " + tool::tr("not a regular file"));
    const bool becomesOne = present.st_size == 0 && create != 0;
    if (isPrivate(present) || !(becomesOne || isJournal(file))) return;
    if (fchmod(file.get(), S_IRUSR | S_IWUSR) != 0)
        throw JournalError(path + ": " + tool::systemError(errno));
    for (const char* suffix : {"-wal", "-shm"}) chmod((path + suffix).c_str(), S_IRUSR | S_IWUSR);
}

void connect(soci::session& sql, const std::string& path) {
    if (path.find('"') != std::string::npos)
        throw JournalError(path + ": " + tool::tr("a quotation mark in the name"));
    sql.open(soci::sqlite3, "db=\"" + path + "\" timeout=5");
    sql << "PRAGMA synchronous = FULL";
    sql << "PRAGMA foreign_keys = ON";
}

void prepareSchema(soci::session& sql, const std::string& path, Journal::IfMissing ifMissing) {
    int application = 0;
    int version = 0;
    int tables = 0;
    sql << "PRAGMA application_id", soci::into(application);
    sql << "PRAGMA user_version", soci::into(version);
    sql << "SELECT COUNT(*) FROM sqlite_master", soci::into(tables);
    if (application == 0 && tables == 0 && ifMissing == Journal::IfMissing::Create) {
        // Large, since packed texts of 2 to 3 KB leave much of a small page empty.
        sql << "PRAGMA page_size = 16384";
        // So that removing documents can make the file smaller, a few pages at a time.
        sql << "PRAGMA auto_vacuum = INCREMENTAL";
        std::string mode;
        sql << "PRAGMA journal_mode = WAL", soci::into(mode);
        return bringUpToDate(sql);
    }
    if (application != APPLICATION_ID)
        throw JournalError(path + ": " + tool::tr("not a journal of fiscorad"));
    if (version > SCHEMA_VERSION)
        throw JournalError(
            path + ": " +
            tool::filled(tool::tr("from a newer version of fiscorad (schema %d, this program knows %d)"),
                         version, SCHEMA_VERSION));
    std::string mode;
    sql << "PRAGMA journal_mode = WAL", soci::into(mode);  // a copy made by `backup` is in another mode
    if (version < SCHEMA_VERSION) bringUpToDate(sql);
    // What is open must be whole, or nothing can go on.
    int broken = 0;
    sql << "SELECT COUNT(*) FROM documents d WHERE d.state IN (1, 2) AND NOT EXISTS"
           " (SELECT 1 FROM attempts a JOIN texts t ON t.document = a.document WHERE a.document = d.id)",
        soci::into(broken);
    int sessions = 0;
    sql << "SELECT COUNT(*) FROM sessions", soci::into(sessions);
    if (broken > 0)
        throw JournalError(path + ": " + tool::tr("damaged: open documents without their attempts"));
    if (sessions != 1)
        throw JournalError(path + ": " + tool::tr("damaged: the next session number is missing"));
}

}  // namespace fiscorad
