// The journal's part about who may do what.
#include "access/Token.h"
#include "journal/Journal.h"
#include "journal/Store.h"
#include "time_text.h"

namespace fiscorad {
namespace {

using soci::into;
using soci::session;
using soci::use;

/// The tokens that `conditions` select. `bind` adds their values.
template <typename Bind>
std::vector<Token> tokensWhere(session& sql, const std::string& conditions, Bind bind) {
    Token token;
    int role = 0;
    long long madeAt = 0;
    long long revokedAt = 0;
    soci::indicator isRevoked = soci::i_null;
    soci::statement rows(sql);
    rows.alloc();
    rows.prepare("SELECT name, role, hash, made_at, revoked_at FROM tokens " + conditions);
    rows.exchange(into(token.name));
    rows.exchange(into(role));
    rows.exchange(into(token.hash));
    rows.exchange(into(madeAt));
    rows.exchange(into(revokedAt, isRevoked));
    bind(rows);
    rows.define_and_bind();
    rows.execute();
    std::vector<Token> tokens;
    while (rows.fetch()) {
        token.role = static_cast<Role>(role);
        token.madeAt = fromMs(madeAt);
        token.revokedAt = isRevoked == soci::i_ok ? std::optional(fromMs(revokedAt)) : std::nullopt;
        tokens.push_back(token);
    }
    return tokens;
}

}  // namespace

bool Journal::addToken(const Token& token) {
    return m_store->write([&](session& sql) {
        int used = 0;
        sql << "SELECT COUNT(*) FROM tokens WHERE name = :name AND revoked_at IS NULL", into(used),
            use(token.name);
        if (used > 0) return false;
        const int role = static_cast<int>(token.role);
        const long long at = toMs(token.madeAt);
        sql << "INSERT INTO tokens (name, role, hash, made_at) VALUES (:name, :role, :hash, :at)",
            use(token.name), use(role), use(token.hash), use(at);
        return true;
    });
}

bool Journal::revokeToken(const std::string& name) {
    return m_store->write([&](session& sql) {
        const long long at = toMs(std::chrono::system_clock::now());
        soci::statement update =
            (sql.prepare << "UPDATE tokens SET revoked_at = :at WHERE name = :name AND revoked_at IS NULL",
             use(at), use(name));
        update.execute(true);
        return update.get_affected_rows() > 0;
    });
}

std::vector<Token> Journal::tokens() {
    return m_store->read([](session& sql) { return tokensWhere(sql, "ORDER BY id", [](auto&) {}); });
}

bool Journal::hasTokens() {
    return m_store->read([](session& sql) {
        int count = 0;
        sql << "SELECT COUNT(*) FROM tokens WHERE revoked_at IS NULL", into(count);
        return count > 0;
    });
}

std::optional<Token> Journal::findToken(const std::string& hash) {
    return m_store->read([&](session& sql) -> std::optional<Token> {
        auto found = tokensWhere(sql, "WHERE hash = :hash AND revoked_at IS NULL",
                                 [&](soci::statement& rows) { rows.exchange(use(hash)); });
        if (found.empty()) return std::nullopt;
        return std::move(found.front());
    });
}

void Journal::recordAction(const std::string& person, const std::string& what, const std::string& subject) {
    m_store->write([&](session& sql) {
        const long long at = toMs(std::chrono::system_clock::now());
        sql << "INSERT INTO actions (at, person, what, subject) VALUES (:at, :person, :what, :subject)",
            use(at), use(person), use(what), use(subject);
    });
}

std::vector<Action> Journal::actions(std::size_t limit) {
    return m_store->read([&](session& sql) {
        Action action;
        long long at = 0;
        const auto most = static_cast<long long>(limit);
        soci::statement rows =
            (sql.prepare << "SELECT at, person, what, subject FROM actions ORDER BY id DESC LIMIT :limit",
             into(at), into(action.person), into(action.what), into(action.subject), use(most));
        rows.execute();
        std::vector<Action> actions;
        while (rows.fetch()) {
            action.at = fromMs(at);
            actions.push_back(action);
        }
        return actions;
    });
}

}  // namespace fiscorad
