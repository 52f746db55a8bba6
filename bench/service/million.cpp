#include "service/million.h"

#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <array>
#include <stdexcept>

std::vector<std::string> multiplyDocuments(const std::string& path, long count) {
    soci::session sql(soci::sqlite3, path);
    long originals = 0, attempts = 0;
    sql << "SELECT max(id) FROM documents", soci::into(originals);
    sql << "SELECT max(id) FROM attempts", soci::into(attempts);
    if (originals == 0 || count % originals != 0)
        throw std::runtime_error("the journal cannot be multiplied to that number");
    const long last = count / originals - 1;
    // Tills choose keys at random, so the index on them fills in random order.
    constexpr std::array COPIES{
        "documents SELECT id + :documents * n, lower(hex(randomblob(16))), kind, state, till, sale_key,"
        " printf('CFe%044d', id + :documents * n), answer, not_booked, has_document, received_at + n, concluded_at + n"
        " FROM copies, documents ORDER BY n",
        "texts SELECT document + :documents * n, request, request_size, signed, signed_size FROM copies, texts ORDER BY n",
        "attempts SELECT id + :attempts * n, document + :documents * n, session, serial, last_document, node, made_at + n"
        " FROM copies, attempts ORDER BY n",
        "history SELECT NULL, document + :documents * n, attempt + :attempts * n, at + n, state, text, person, reason"
        " FROM copies, history ORDER BY n"};
    sql << "PRAGMA synchronous = OFF";
    sql << "BEGIN";
    for (std::string copy : COPIES) {
        const auto fill = [&](const std::string& name, long value) {
            for (std::size_t place = 0; (place = copy.find(name)) != std::string::npos;)
                copy.replace(place, name.size(), std::to_string(value));
        };
        fill(":documents", originals);
        fill(":attempts", attempts);
        sql << "WITH RECURSIVE copies(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM copies WHERE n < " +
                   std::to_string(last) + ") INSERT INTO " + copy;
    }
    sql << "COMMIT";

    constexpr long SAMPLES = 1000;
    const long step = std::max(1L, count / SAMPLES);
    std::vector<std::string> keys;
    const soci::rowset<std::string> rows =
        (sql.prepare << "SELECT key FROM documents WHERE id % :step = 0", soci::use(step));
    for (const std::string& key : rows) keys.push_back(key);
    return keys;
}
