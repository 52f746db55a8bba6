#include "journal/check.h"

#include <soci/soci.h>

#include <map>
#include <set>

#include "fields.h"
#include "journal/Journal.h"
#include "journal/schema.h"
#include "rules/AccessKey.h"
#include "rules/content.h"

namespace fiscorad {
namespace {

using soci::into;
using soci::session;

using Problems = std::vector<std::string>;

/// Rows of a query with one text column.
Problems textsOf(session& sql, const std::string& query, const std::string& before) {
    std::string text;
    soci::statement rows = (sql.prepare << query, into(text));
    rows.execute();
    Problems found;
    while (rows.fetch()) found.push_back(before + text);
    return found;
}

void append(Problems& problems, Problems more) { problems.insert(problems.end(), more.begin(), more.end()); }

Problems damage(session& sql) {
    Problems problems = textsOf(sql, "PRAGMA integrity_check", "damaged file: ");
    if (problems == Problems{"damaged file: ok"}) problems.clear();
    append(problems, textsOf(sql, "SELECT \"table\" || ' ' || rowid FROM pragma_foreign_key_check",
                             "row without the one it belongs to: "));
    return problems;
}

/// What the tables alone show.
Problems brokenRows(session& sql) {
    Problems problems;
    append(problems, textsOf(sql,
                             "SELECT key FROM documents WHERE (state = 3) <> (access_key IS NOT NULL) OR"
                             " (has_document <> 0 AND access_key IS NULL)",
                             "booked at most once: state and access key differ: "));
    append(problems,
           textsOf(sql,
                   "SELECT d.key FROM documents d JOIN history h ON h.document = d.id WHERE h.state = 3"
                   " GROUP BY d.id HAVING COUNT(*) > 1",
                   "booked at most once: booked twice: "));
    append(
        problems,
        textsOf(sql,
                "SELECT d.key FROM documents d WHERE d.state <> COALESCE((SELECT h.state FROM history h WHERE"
                " h.document = d.id ORDER BY h.id DESC LIMIT 1), -1)",
                "told only what is on disk: history ends in another state: "));
    append(
        problems,
        textsOf(sql, "SELECT key FROM documents WHERE (state IN (3, 4, 5, 7)) <> (concluded_at IS NOT NULL)",
                "told only what is on disk: final without its time, or the reverse: "));
    append(problems, textsOf(sql,
                             "SELECT d.key FROM documents d WHERE d.state IN (1, 2, 6) AND NOT EXISTS"
                             " (SELECT 1 FROM attempts a WHERE a.document = d.id)",
                             "on disk before the call: open without an attempt: "));
    append(problems, textsOf(sql,
                             "SELECT d.key FROM documents d WHERE d.state <> 5 AND NOT EXISTS"
                             " (SELECT 1 FROM texts t WHERE t.document = d.id)",
                             "nothing is lost: without its request: "));
    append(problems,
           textsOf(sql,
                   "SELECT d.key FROM attempts a JOIN documents d ON d.id = a.document WHERE NOT EXISTS"
                   " (SELECT 1 FROM history h WHERE h.attempt = a.id AND h.state = 1)",
                   "on disk before the call: an attempt without its beginning: "));
    return problems;
}

struct AttemptRow {
    long long id = 0;
    long long document = 0;
    int session = 0;
    std::string serial;
    std::string lastDocument;
    std::string key;
};

std::vector<AttemptRow> attemptsOf(session& sql) {
    AttemptRow row;
    soci::statement rows =
        (sql.prepare << "SELECT a.id, a.document, a.session, a.serial, a.last_document, d.key FROM"
                        " attempts a JOIN documents d ON d.id = a.document ORDER BY a.id",
         into(row.id), into(row.document), into(row.session), into(row.serial), into(row.lastDocument),
         into(row.key));
    rows.execute();
    std::vector<AttemptRow> attempts;
    while (rows.fetch()) attempts.push_back(row);
    return attempts;
}

/// Whether the attempt had ended when the history got its entry number `by`.
bool hadEnded(session& sql, const AttemptRow& attempt, long long by) {
    int count = 0;
    sql << "SELECT COUNT(*) FROM history WHERE document = :document AND id < :by AND state NOT IN (1, 2) AND id >"
           " (SELECT MIN(id) FROM history WHERE attempt = :attempt)",
        into(count), soci::use(attempt.document), soci::use(by), soci::use(attempt.id);
    return count > 0;
}

/// One attempt after the other on each device, each under a number of its own.
Problems brokenOrder(session& sql, const std::vector<AttemptRow>& attempts) {
    Problems problems;
    std::map<std::string, const AttemptRow*> last;
    for (const AttemptRow& attempt : attempts) {
        const AttemptRow*& before = last[attempt.serial];
        if (before != nullptr) {
            if (before->session == attempt.session)
                problems.push_back("session numbers are used once: " + std::to_string(attempt.session) +
                                   ": " + before->key + ", " + attempt.key);
            long long begun = 0;
            sql << "SELECT COALESCE(MIN(id), 0) FROM history WHERE attempt = :attempt", into(begun),
                soci::use(attempt.id);
            if (!hadEnded(sql, *before, begun))
                problems.push_back("only questions while an attempt is open: " + attempt.key +
                                   " was sent while " + before->key + " was open");
        }
        before = &attempt;
    }
    return problems;
}

/// Whether each booked document is proved to belong to its attempt.
Problems brokenProofs(session& sql, Journal& journal, const std::vector<AttemptRow>& attempts) {
    std::map<long long, const AttemptRow*> lastOf;
    for (const AttemptRow& attempt : attempts) lastOf[attempt.document] = &attempt;

    long long id = 0;
    std::string key;
    soci::statement rows =
        (sql.prepare << "SELECT id, key FROM documents WHERE has_document <> 0", into(id), into(key));
    rows.execute();
    Problems problems;
    while (rows.fetch()) {
        const auto fail = [&](const std::string& why) {
            problems.push_back("an answer belongs to its attempt: " + why + ": " + key);
        };
        const Document document = journal.find(id).value();
        const auto accessKey = AccessKey::parse(document.accessKey);
        const auto attempt = lastOf.find(id);
        if (!accessKey || attempt == lastOf.end()) {
            fail("no attempt or no access key");
            continue;
        }
        const auto before = AccessKey::parse(attempt->second->lastDocument);
        if (accessKey->serial() != attempt->second->serial) fail("the device is another");
        if (before && accessKey->numbersAfter(*before) < 1)
            fail("not later than the last document before it");
        if (document.answer.find(accessKey->text()) == std::string::npos)
            fail("the answer names another document");
        try {
            const std::string signedDocument = journal.signedDocument(id).value_or("");
            if (signedDocument.find(accessKey->text()) == std::string::npos)
                fail("the signed document is another");
            if (!hasContentOf(signedDocument, journal.body(id), document.saleKey))
                fail("the content is another");
        } catch (const JournalError& damage) {
            fail(damage.what());
        }
    }
    return problems;
}

/// The activation code as a field or a word of its own; a document may hold the same digits by chance.
Problems leakedCode(session& sql, const std::string& code) {
    Problems problems;
    if (code.empty()) return problems;
    for (const char* column : {"SELECT answer FROM documents", "SELECT text FROM history",
                               "SELECT reason FROM history WHERE reason IS NOT NULL",
                               "SELECT reason FROM alarms WHERE reason IS NOT NULL"}) {
        for (const std::string& text : textsOf(sql, column, "")) {
            for (const char delimiter : {'|', ' '})
                for (const auto field : fieldsOf(text, delimiter))
                    if (field == code)
                        problems.push_back(std::string("no activation code on disk: ") + column);
        }
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
        const auto attempts = attemptsOf(sql);
        append(problems, brokenOrder(sql, attempts));
        append(problems, brokenProofs(sql, journal, attempts));
        append(problems, leakedCode(sql, code));
        return problems;
    } catch (const soci::soci_error& error) {
        throw JournalError(path + ": " + error.what());
    }
}

}  // namespace fiscorad
