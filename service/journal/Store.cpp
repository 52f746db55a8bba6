#include "journal/Store.h"

#include <algorithm>
#include <array>

#include "i18n.h"
#include "journal/schema.h"

namespace fiscorad {
namespace {

constexpr std::size_t READERS = 4;

/// What SQLite says most often, for those who do not read English.
constexpr std::array FAILURES = {
    tool::translatable("file is not a database"),
    tool::translatable("database disk image is malformed"),
    tool::translatable("database or disk is full"),
    tool::translatable("attempt to write a readonly database"),
    tool::translatable("unable to open database file"),
    tool::translatable("database is locked"),
    tool::translatable("disk I/O error"),
};

}  // namespace

Store::Store(const std::string& path, Journal::IfMissing ifMissing) : m_readers(READERS) {
    makePrivate(path, ifMissing);
    try {
        connect(m_writer, path);
        prepareSchema(m_writer, path, ifMissing);
        for (std::size_t i = 0; i < READERS; ++i) connect(m_readers.at(i), path);
    } catch (const soci::soci_error& error) {
        throw JournalError(path + ": " + reasonOf(error));
    }
}

std::int64_t Store::foreignChanges() {
    const std::lock_guard lock(m_writing);
    return guarded([&] {
        long long version = 0;
        m_writer << "PRAGMA data_version", soci::into(version);
        return static_cast<std::int64_t>(version);
    });
}

void Store::execute(const std::string& statement) {
    const std::lock_guard lock(m_writing);
    guarded([&] { m_writer << statement; });
}

std::string Store::reasonOf(const soci::soci_error& error) {
    std::string text = error.get_error_message();
    for (const char* failure : FAILURES)
        if (text.find(failure) != std::string::npos) return tool::tr(failure);
    // "sqlite3_statement_backend::prepare: database disk image is malformed"
    if (const auto colon = text.find(": "); text.rfind("sqlite3_", 0) == 0 && colon != std::string::npos)
        text.erase(0, colon + 2);
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

Store::Transaction::Transaction(soci::session& sql) : m_sql(sql) { m_sql << "BEGIN IMMEDIATE"; }

Store::Transaction::~Transaction() {
    if (!m_open) return;
    try {
        m_sql << "ROLLBACK";
    } catch (const soci::soci_error&) {
        // Some failures, such as a full disk, have ended it already.
    }
}

void Store::Transaction::commit() {
    m_sql << "COMMIT";
    m_open = false;
}

}  // namespace fiscorad
