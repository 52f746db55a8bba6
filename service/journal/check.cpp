#include "journal/check.h"

#include <soci/soci.h>

#include <cctype>
#include <map>
#include <string_view>
#include <unordered_map>

#include "i18n.h"
#include "journal/Journal.h"
#include "journal/Store.h"
#include "journal/schema.h"
#include "rules/AccessKey.h"
#include "rules/content.h"

namespace fiscorad {
namespace {

using soci::into;
using soci::session;
using tool::filled;
using tool::tr;

using Problems = std::vector<std::string>;

/// `problem` with each row of a query that has one text column.
Problems inEachRow(session& sql, const std::string& query, const std::string& problem) {
    std::string text;
    soci::statement rows = (sql.prepare << query, into(text));
    rows.execute();
    Problems found;
    while (rows.fetch()) found.push_back(std::string(problem).append(": ").append(text));
    return found;
}

void append(Problems& problems, Problems more) { problems.insert(problems.end(), more.begin(), more.end()); }

Problems damage(session& sql) {
    const std::string damaged = tr("damaged file");
    Problems problems = inEachRow(sql, "PRAGMA integrity_check", damaged);
    if (problems == Problems{damaged + ": ok"}) problems.clear();
    append(problems, inEachRow(sql, "SELECT \"table\" || ' ' || rowid FROM pragma_foreign_key_check",
                               tr("row that refers to a missing row")));
    return problems;
}

/// What the tables alone show.
Problems brokenRows(session& sql) {
    Problems problems;
    append(problems, inEachRow(sql,
                               "SELECT key FROM documents WHERE (state = 3) <> (access_key IS NOT NULL) OR"
                               " (has_document <> 0 AND access_key IS NULL)",
                               tr("state and access key contradict each other")));
    append(problems,
           inEachRow(sql,
                     "SELECT d.key FROM documents d JOIN history h ON h.document = d.id WHERE h.state = 3"
                     " GROUP BY d.id HAVING COUNT(*) > 1",
                     tr("booked twice")));
    append(problems,
           inEachRow(
               sql,
               "SELECT d.key FROM documents d WHERE d.state <> COALESCE((SELECT h.state FROM history h WHERE"
               " h.document = d.id ORDER BY h.id DESC LIMIT 1), -1)",
               tr("the history ends in another state")));
    append(problems,
           inEachRow(sql,
                     "SELECT key FROM documents WHERE (state IN (3, 4, 5, 7)) <> (concluded_at IS NOT NULL)",
                     tr("final without its time, or the reverse")));
    append(problems, inEachRow(sql,
                               "SELECT d.key FROM documents d WHERE d.state IN (1, 2) AND NOT EXISTS"
                               " (SELECT 1 FROM attempts a WHERE a.document = d.id)",
                               tr("open without an attempt")));
    append(problems, inEachRow(sql,
                               "SELECT d.key FROM documents d WHERE d.state <> 5 AND NOT EXISTS"
                               " (SELECT 1 FROM texts t WHERE t.document = d.id)",
                               tr("the request is missing")));
    append(
        problems,
        inEachRow(
            sql,
            "SELECT d.key FROM documents d LEFT JOIN texts t ON t.document = d.id WHERE"
            " d.has_document <> CASE WHEN t.signed IS NOT NULL THEN 1"
            " WHEN t.signed_size IS NULL AND d.has_document = 2 AND LENGTH(t.request) = 64 THEN 2 ELSE 0 END",
            tr("the signed document is missing, or half removed")));
    append(
        problems,
        inEachRow(
            sql,
            "SELECT d.key FROM attempts a JOIN documents d ON d.id = a.document WHERE NOT EXISTS"
            " (SELECT 1 FROM history h WHERE h.document = a.document AND h.attempt = a.id AND h.state = 1)",
            tr("an attempt without its beginning")));
    return problems;
}

/// An attempt, and where in the history it began and ended.
struct AttemptRow {
    std::string key;
    std::string serial;
    int session = 0;
    long long madeAt = 0;
    long long begun = 0;
    long long ended = 0;  ///< 0: it is open
};

/// Calls `use` with each attempt, oldest first.
template <typename Use>
void forEachAttempt(session& sql, Use use) {
    AttemptRow row;
    soci::statement rows =
        (sql.prepare
             << "SELECT key, serial, session, made_at, begun, COALESCE((SELECT MIN(h.id) FROM history h WHERE"
                " h.document = begun_at.document AND h.id > begun AND h.state NOT IN (1, 2)), 0) FROM"
                " (SELECT a.id, a.document, d.key, a.serial, a.session, a.made_at, COALESCE((SELECT MIN(h.id) FROM"
                " history h WHERE h.document = a.document AND h.attempt = a.id), 0) AS begun"
                " FROM attempts a JOIN documents d ON d.id = a.document) begun_at ORDER BY id",
         into(row.key), into(row.serial), into(row.session), into(row.madeAt), into(row.begun),
         into(row.ended));
    rows.execute();
    while (rows.fetch()) use(row);
}

/// One attempt after the other on each device, each under a number of its own.
class DeviceAttempts {
  public:
    Problems add(const AttemptRow& attempt) {
        Problems problems;
        if (m_count > 0 && (m_last.ended == 0 || m_last.ended > attempt.begun))
            problems.push_back(filled(tr("two attempts at once: %s was sent while %s was open"),
                                      attempt.key.c_str(), m_last.key.c_str()));
        const auto before = m_sessions.find(attempt.session);
        if (before != m_sessions.end() && isTooSoon(before->second, attempt))
            problems.push_back(filled(tr("session number %06d was used twice: %s and another before it"),
                                      attempt.session, attempt.key.c_str()));
        m_sessions[attempt.session] = {m_count++, attempt.madeAt};
        m_last = attempt;
        return problems;
    }

  private:
    struct Use {
        long long place = 0;
        long long madeAt = 0;
    };

    /// The numbers that questions took are not kept. But nobody asks so often that the numbers go round
    /// within a day, unless attempts took many of them.
    bool isTooSoon(const Use& before, const AttemptRow& attempt) const {
        constexpr long long DAY_MS = 24LL * 3600 * 1000;
        constexpr long long REMEMBERED = 100000;
        return m_count - before.place < REMEMBERED && attempt.madeAt - before.madeAt < DAY_MS;
    }

    long long m_count = 0;
    AttemptRow m_last;
    std::unordered_map<int, Use> m_sessions;
};

Problems brokenOrder(session& sql) {
    Problems problems;
    std::map<std::string, DeviceAttempts> devices;
    forEachAttempt(
        sql, [&](const AttemptRow& attempt) { append(problems, devices[attempt.serial].add(attempt)); });
    return problems;
}

/// Whether the numbers that come next lead back to the last attempt's, as if an old copy had been put in
/// place by hand.
Problems sessionsAhead(session& sql) {
    // What a copy may be behind; what `restore` leaves is ten times as far away.
    constexpr int BEHIND = 10000;
    int last = 0, next = 0;
    sql << "SELECT a.session, s.next FROM attempts a, sessions s ORDER BY a.id DESC LIMIT 1", into(last),
        into(next);
    const int ahead = (last - 1 - next + SESSION_NUMBERS) % SESSION_NUMBERS;
    if (!sql.got_data() || ahead >= BEHIND) return {};
    return {filled(tr("session number %06d would be used again: the next one is %06d"), last, next + 1)};
}

/// Whether each booked document is proved to belong to its attempt.
Problems brokenProofs(session& sql, Journal& journal) {
    long long id = 0;
    std::string key;
    soci::statement rows =
        (sql.prepare << "SELECT id, key FROM documents WHERE has_document <> 0", into(id), into(key));
    rows.execute();
    Problems problems;
    while (rows.fetch()) {
        const auto fail = [&](const std::string& why) {
            problems.push_back(filled(tr("booking without proof: %s: %s"), why.c_str(), key.c_str()));
        };
        const Document document = journal.find(id).value();
        const auto accessKey = AccessKey::parse(document.accessKey);
        const auto attempt = journal.lastAttempt(id);
        if (!accessKey || !attempt) {
            fail(tr("no attempt or no access key"));
            continue;
        }
        const auto before = AccessKey::parse(attempt->lastDocument);
        if (accessKey->serial() != attempt->serial) fail(tr("the device is another"));
        if (before && accessKey->numbersAfter(*before) < 1)
            fail(tr("not later than the last document before it"));
        if (document.answer.find(accessKey->text()) == std::string::npos)
            fail(tr("the answer names another document"));
        if (document.documentRemoved) continue;
        try {
            const std::string signedDocument = journal.signedDocument(id).value_or("");
            if (signedDocument.find(accessKey->text()) == std::string::npos)
                fail(tr("the signed document is another"));
            if (!hasContentOf(signedDocument, journal.body(id), document.saleKey))
                fail(tr("the content is another"));
        } catch (const JournalError& damage) {
            fail(damage.what());
        }
    }
    return problems;
}

/// Whether `word` is in the text, not as a part of a longer one: a document may hold the same digits by
/// chance.
bool holdsWord(std::string_view text, std::string_view word) {
    const auto isPart = [&](std::size_t place) {
        return place < text.size() && std::isalnum(static_cast<unsigned char>(text[place])) != 0;
    };
    for (auto at = text.find(word); at != std::string_view::npos; at = text.find(word, at + 1))
        if (!(at > 0 && isPart(at - 1)) && !isPart(at + word.size())) return true;
    return false;
}

Problems leakedCode(session& sql, const std::string& code) {
    Problems problems;
    if (code.empty()) return problems;
    const struct {
        std::string table, column;
    } places[] = {{"documents", "answer"},
                  {"history", "text"},
                  {"history", "reason"},
                  {"alarms", "reason"},
                  {"actions", "subject"}};
    for (const auto& [table, column] : places) {
        long long row = 0;
        std::string text;
        soci::statement rows = (sql.prepare << "SELECT id, COALESCE(" << column << ", '') FROM " << table,
                                into(row), into(text));
        rows.execute();
        while (rows.fetch())
            if (holdsWord(text, code))
                problems.push_back(filled(tr("activation code found: table %s, row %lld, column %s"),
                                          table.c_str(), row, column.c_str()));
    }
    return problems;
}

}  // namespace

std::vector<std::string> problemsIn(const std::string& path, const std::string& code) {
    Journal journal(path, Journal::IfMissing::Refuse);
    try {
        session sql;
        connect(sql, path);
        Problems problems = damage(sql);
        if (!problems.empty()) return problems;
        append(problems, brokenRows(sql));
        append(problems, brokenOrder(sql));
        append(problems, sessionsAhead(sql));
        append(problems, brokenProofs(sql, journal));
        append(problems, leakedCode(sql, code));
        return problems;
    } catch (const soci::soci_error& error) {
        throw JournalError(path + ": " + Store::reasonOf(error));
    }
}

}  // namespace fiscorad
