#include "journal/Journal.h"

#include <algorithm>
#include <chrono>
#include <random>

#include "i18n.h"
#include "journal/Store.h"
#include "journal/packing.h"
#include "rules/AccessKey.h"
#include "sha256.h"
#include "time_text.h"

namespace fiscorad {
namespace {

using soci::into;
using soci::session;
using soci::use;

constexpr int SESSION_BLOCK = 100;
/// Of documents.has_document.
constexpr int REMOVED = 2;
constexpr int SHORTEST_JUMP = 100000;  ///< what a device remembers
constexpr int LONGEST_JUMP = SESSION_NUMBERS - SHORTEST_JUMP;

Time now() { return std::chrono::system_clock::now(); }

/// A value for a column that may be null.
struct Nullable {
    explicit Nullable(const std::optional<std::string>& text)
        : value(text.value_or("")), indicator(text ? soci::i_ok : soci::i_null) {}
    std::string value;
    soci::indicator indicator;
};

void fill(soci::blob& blob, std::string_view bytes) {
    if (!bytes.empty()) blob.append(bytes.data(), bytes.size());
}

std::string contentOf(soci::blob& blob) {
    std::string bytes(blob.get_len(), '\0');
    if (!bytes.empty()) blob.read(0, bytes.data(), bytes.size());
    return bytes;
}

/// Reads the documents that `conditions`, which follows the FROM clause, selects. `bind` adds its values.
std::vector<Document> documentsWhere(session& sql, const std::string& conditions,
                                     const std::function<void(soci::statement&)>& bind) {
    long long id = 0, receivedAt = 0, concludedAt = 0;
    int kind = 0, state = 0, notBooked = 0, hasDocument = 0, attempts = 0, lastSession = 0;
    std::string key, till, saleKey, accessKey, answer;
    soci::indicator hasTill{}, hasKey{}, isConcluded{}, hasSession{};

    soci::statement query(sql);
    query.exchange(into(id));
    query.exchange(into(key));
    query.exchange(into(kind));
    query.exchange(into(state));
    query.exchange(into(till, hasTill));
    query.exchange(into(saleKey));
    query.exchange(into(accessKey, hasKey));
    query.exchange(into(answer));
    query.exchange(into(notBooked));
    query.exchange(into(hasDocument));
    query.exchange(into(receivedAt));
    query.exchange(into(concludedAt, isConcluded));
    query.exchange(into(attempts));
    query.exchange(into(lastSession, hasSession));
    bind(query);
    query.alloc();
    query.prepare(
        "SELECT d.id, d.key, d.kind, d.state, d.till, d.sale_key, d.access_key, d.answer, d.not_booked,"
        " d.has_document, d.received_at, d.concluded_at,"
        " (SELECT COUNT(*) FROM attempts a WHERE a.document = d.id),"
        " (SELECT a.session FROM attempts a WHERE a.document = d.id ORDER BY a.id DESC LIMIT 1)"
        " FROM documents d " +
        conditions);
    query.define_and_bind();
    query.execute();

    std::vector<Document> documents;
    while (query.fetch()) {
        Document document;
        document.id = id;
        document.key = key;
        document.kind = static_cast<Kind>(kind);
        document.state = static_cast<State>(state);
        if (hasTill == soci::i_ok) document.till = till;
        document.saleKey = saleKey;
        if (hasSession == soci::i_ok) document.session = lastSession;
        document.attempts = attempts;
        document.notBooked = notBooked;
        document.answer = answer;
        if (hasKey == soci::i_ok) document.accessKey = accessKey;
        document.hasDocument = hasDocument == 1;
        document.documentRemoved = hasDocument == REMOVED;
        document.receivedAt = fromMs(receivedAt);
        if (isConcluded == soci::i_ok) document.concludedAt = fromMs(concludedAt);
        documents.push_back(std::move(document));
    }
    return documents;
}

/// What a filter means in SQL. Its values are bound by reference.
class Selection {
  public:
    explicit Selection(const Filter& filter)
        : m_filter(filter),
          m_kind(static_cast<int>(filter.kind.value_or(Kind::Sale))),
          m_state(static_cast<int>(filter.state.value_or(State::Queued))),
          m_since(toMs(filter.since.value_or(Time{}))),
          m_until(toMs(filter.until.value_or(Time{}))),
          m_till(filter.till.value_or("")),
          m_keyFrom(filter.named),
          m_keyTo(filter.named + AFTER_ALL),
          m_accessKeyFrom((filter.named.substr(0, 3) == "CFe" ? "" : "CFe") + filter.named),
          m_accessKeyTo(m_accessKeyFrom + AFTER_ALL),
          m_before(filter.before.value_or(0)) {}

    /// Of the table `documents`.
    std::string conditions() const {
        std::string text = "WHERE 1 = 1";
        if (m_filter.kind) text += " AND kind = :kind";
        if (m_filter.state) text += " AND state = :state";
        if (m_filter.since) text += " AND received_at >= :since";
        if (m_filter.until) text += " AND received_at < :until";
        if (m_filter.till) text += " AND till = :till";
        if (!m_filter.named.empty())
            // Not with OR, which the database might answer by reading all documents.
            text +=
                " AND id IN (SELECT id FROM documents WHERE key BETWEEN :key AND :keyEnd UNION ALL"
                " SELECT id FROM documents WHERE access_key BETWEEN :access AND :accessEnd)";
        if (m_filter.before) text += " AND id < :before";
        return text;
    }
    void bind(soci::statement& query) const {
        if (m_filter.kind) query.exchange(use(m_kind));
        if (m_filter.state) query.exchange(use(m_state));
        if (m_filter.since) query.exchange(use(m_since));
        if (m_filter.until) query.exchange(use(m_until));
        if (m_filter.till) query.exchange(use(m_till));
        if (!m_filter.named.empty())
            for (const std::string* end : {&m_keyFrom, &m_keyTo, &m_accessKeyFrom, &m_accessKeyTo})
                query.exchange(use(*end));
        if (m_filter.before) query.exchange(use(m_before));
    }

  private:
    static constexpr char AFTER_ALL[] = "~";  ///< that keys and access keys are made of

    const Filter& m_filter;
    int m_kind;
    int m_state;
    long long m_since;
    long long m_until;
    std::string m_till;
    std::string m_keyFrom, m_keyTo;
    std::string m_accessKeyFrom, m_accessKeyTo;
    long long m_before;
};

std::optional<Document> first(std::vector<Document> documents) {
    if (documents.empty()) return std::nullopt;
    return std::move(documents.front());
}

std::optional<Document> byKey(session& sql, const std::string& key) {
    return first(
        documentsWhere(sql, "WHERE d.key = :key", [&](soci::statement& query) { query.exchange(use(key)); }));
}

std::optional<Document> byId(session& sql, long long id) {
    return first(
        documentsWhere(sql, "WHERE d.id = :id", [&](soci::statement& query) { query.exchange(use(id)); }));
}

std::vector<Document> inState(session& sql, State state, const std::string& order) {
    const int number = static_cast<int>(state);
    return documentsWhere(sql, "WHERE d.state = :state " + order,
                          [&](soci::statement& query) { query.exchange(use(number)); });
}

std::vector<Attempt> attemptsWhere(session& sql, const std::string& conditions, long long document) {
    long long id = 0, madeAt = 0;
    int number = 0;
    std::string serial, lastDocument, node;
    soci::statement query =
        (sql.prepare << "SELECT id, session, serial, last_document, node, made_at FROM attempts"
                        " WHERE document = :document " +
                            conditions,
         into(id), into(number), into(serial), into(lastDocument), into(node), into(madeAt), use(document));
    query.execute();
    std::vector<Attempt> attempts;
    while (query.fetch())
        attempts.push_back({id, document, number, serial, lastDocument, node, fromMs(madeAt)});
    return attempts;
}

std::optional<Attempt> lastAttemptOf(session& sql, long long document) {
    auto attempts = attemptsWhere(sql, "ORDER BY id DESC LIMIT 1", document);
    if (attempts.empty()) return std::nullopt;
    return std::move(attempts.front());
}

std::string requestOf(session& sql, long long document) {
    soci::blob packed(sql);
    long long size = 0;
    sql << "SELECT request, request_size FROM texts WHERE document = :document", into(packed), into(size),
        use(document);
    return sql.got_data() ? unpack(contentOf(packed), static_cast<std::size_t>(size)) : std::string();
}

/// Whether the document came with that body. Of a removed one, only the digest is left.
bool cameWith(session& sql, const Document& known, const std::string& body) {
    if (!known.documentRemoved) return requestOf(sql, known.id) == body;
    soci::blob digest(sql);
    const long long id = known.id;
    sql << "SELECT request FROM texts WHERE document = :document", into(digest), use(id);
    return sql.got_data() && contentOf(digest) == tool::sha256(body);
}

void addHistory(session& sql, long long document, std::optional<long long> attempt, State state,
                const std::string& text, const std::string& person = "", const std::string& reason = "") {
    const long long number = attempt.value_or(0);
    soci::indicator hasAttempt = attempt ? soci::i_ok : soci::i_null;
    soci::indicator isDecision = person.empty() ? soci::i_null : soci::i_ok;
    const long long at = toMs(now());
    const int stateNumber = static_cast<int>(state);
    sql << "INSERT INTO history (document, attempt, at, state, text, person, reason)"
           " VALUES (:document, :attempt, :at, :state, :text, :person, :reason)",
        use(document), use(number, hasAttempt), use(at), use(stateNumber), use(text), use(person, isDecision),
        use(reason, isDecision);
}

/// Inserts a document and its request, packed, if it came with one.
long long insert(session& sql, const Submission& submission, const std::string& request, State state) {
    Nullable till(submission.till);
    const int kind = static_cast<int>(submission.kind);
    const int stateNumber = static_cast<int>(state);
    const long long at = toMs(now());
    soci::indicator concluded = isFinal(state) ? soci::i_ok : soci::i_null;
    sql << "INSERT INTO documents (key, kind, state, till, sale_key, answer, not_booked, has_document,"
           " received_at, concluded_at) VALUES (:key, :kind, :state, :till, :sale, '', 0, 0, :at, :concluded)",
        use(submission.key), use(kind), use(stateNumber), use(till.value, till.indicator),
        use(submission.saleKey), use(at), use(at, concluded);
    const long long id = byKey(sql, submission.key).value().id;
    if (!submission.body.empty()) {
        soci::blob packed(sql);
        fill(packed, request);
        const auto size = static_cast<long long>(submission.body.size());
        sql << "INSERT INTO texts (document, request, request_size) VALUES (:document, :request, :size)",
            use(id), use(packed), use(size);
    }
    addHistory(sql, id, std::nullopt, state,
               state == State::Queued ? "recebida" : "retirada antes de chegar");
    return id;
}

std::optional<rules::DeviceRecord> recordOf(session& sql, const std::string& serial) {
    rules::DeviceRecord record;
    record.serial = serial;
    sql << "SELECT last_document, last_cancellation FROM devices WHERE serial = :serial",
        into(record.lastDocument), into(record.lastCancellation), use(serial);
    if (!sql.got_data()) return std::nullopt;
    return record;
}

void writeRecord(session& sql, const rules::DeviceRecord& record) {
    sql << "INSERT INTO devices (serial, last_document, last_cancellation) VALUES (:serial, :last, :cancellation)"
           " ON CONFLICT (serial) DO UPDATE SET last_document = excluded.last_document,"
           " last_cancellation = excluded.last_cancellation",
        use(record.serial), use(record.lastDocument), use(record.lastCancellation);
}

bool sameRecord(const std::optional<rules::DeviceRecord>& left, const rules::DeviceRecord& right) {
    return left && left->lastDocument == right.lastDocument &&
           left->lastCancellation == right.lastCancellation;
}

bool holdsKey(session& sql, const std::string& accessKey) {
    int count = 0;
    sql << "SELECT COUNT(*) FROM documents WHERE access_key = :key", into(count), use(accessKey);
    return count > 0;
}

void writeState(session& sql, long long document, State state) {
    const int number = static_cast<int>(state);
    const long long at = toMs(now());
    soci::indicator concluded = isFinal(state) ? soci::i_ok : soci::i_null;
    sql << "UPDATE documents SET state = :state, concluded_at = :at WHERE id = :id", use(number),
        use(at, concluded), use(document);
}

/// `signedDocument`: the booking's document, packed.
void writeBooking(session& sql, long long document, const rules::Booking& booking,
                  const std::string& signedDocument) {
    soci::blob packed(sql);
    fill(packed, signedDocument);
    const auto size = static_cast<long long>(booking.document.size());
    sql << "UPDATE texts SET signed = :signed, signed_size = :size WHERE document = :document", use(packed),
        use(size), use(document);
    sql << "UPDATE documents SET access_key = :key, has_document = 1 WHERE id = :id", use(booking.accessKey),
        use(document);
}

/// Takes a booking that a person has named as the device's last document, if it is later than that one.
void recordRuling(session& sql, const Document& document, const AccessKey& key) {
    auto record = recordOf(sql, std::string(key.serial()));
    if (!record) return;
    const auto last = AccessKey::parse(record->lastDocument);
    if (last && key.numbersAfter(*last) < 1) return;
    writeRecord(sql, rules::afterBooking(*record, document.kind, key.text()));
}

}  // namespace

Journal::Journal(const std::string& path, IfMissing ifMissing)
    : m_store(std::make_unique<Store>(path, ifMissing)) {}

Journal::~Journal() = default;

// ---- for the tills ----

Receipt Journal::submit(const Submission& submission, std::size_t queueLimit) {
    const std::string request = pack(submission.body);  // large ones take a while: not while others wait
    return m_store->write([&](session& sql) -> Receipt {
        if (auto known = byKey(sql, submission.key)) {
            const bool withdrawnBefore = known->state == State::Withdrawn && cameWith(sql, *known, "");
            const bool same = isFor(*known, submission.till) && known->kind == submission.kind &&
                              (withdrawnBefore || (known->saleKey == submission.saleKey &&
                                                   cameWith(sql, *known, submission.body)));
            return {same ? Receipt::Result::Known : Receipt::Result::KeyReused, std::move(*known)};
        }
        long long waiting = 0;
        sql << "SELECT COUNT(*) FROM documents WHERE state = 0", into(waiting);
        if (static_cast<std::size_t>(waiting) >= queueLimit) return {Receipt::Result::QueueFull, {}};
        const long long id = insert(sql, submission, request, State::Queued);
        return {Receipt::Result::Accepted, byId(sql, id).value()};
    });
}

std::optional<Document> Journal::find(std::string_view key) {
    return m_store->read([&](session& sql) { return byKey(sql, std::string(key)); });
}

std::optional<Document> Journal::find(std::int64_t id) {
    return m_store->read([&](session& sql) { return byId(sql, id); });
}

std::vector<Document> Journal::list(const Filter& filter) {
    const Selection selection(filter);
    const auto limit = static_cast<long long>(filter.limit);
    return m_store->read([&](session& sql) {
        // The page is selected first, so that what a row costs beyond its own table is paid for the page
        // alone.
        return documentsWhere(sql,
                              "WHERE d.id IN (SELECT id FROM documents " + selection.conditions() +
                                  " ORDER BY id DESC LIMIT :limit) ORDER BY d.id DESC",
                              [&](soci::statement& query) {
                                  selection.bind(query);
                                  query.exchange(use(limit));
                              });
    });
}

void Journal::onCommit(std::function<void(std::chrono::nanoseconds)> committed) {
    m_store->onCommit(std::move(committed));
}

Tally Journal::tally() {
    return m_store->read([](session& sql) {
        Tally tally;
        int state = 0;
        long long count = 0;
        soci::statement rows =
            (sql.prepare << "SELECT state, COUNT(*) FROM documents GROUP BY state", into(state), into(count));
        rows.execute();
        while (rows.fetch()) tally.documents[static_cast<State>(state)] = static_cast<std::size_t>(count);
        for (const auto& [present, number] : tally.documents) {
            if (isFinal(present)) continue;
            const int open = static_cast<int>(present);
            long long at = 0;
            sql << "SELECT MIN(received_at) FROM documents WHERE state = :state", into(at), use(open);
            if (!tally.oldestOpen || fromMs(at) < *tally.oldestOpen) tally.oldestOpen = fromMs(at);
        }
        return tally;
    });
}

Intake Journal::intake(Time since) {
    return m_store->read([&](session& sql) {
        const long long from = toMs(since);
        int kind = 0, state = 0;
        std::string answer;
        // The "+" keeps the database from going by the state, in which nearly all documents of all years are.
        soci::statement query =
            (sql.prepare << "SELECT kind, state, answer FROM documents WHERE received_at >= :since"
                            " AND +state IN (3, 4)",
             into(kind), into(state), into(answer), use(from));
        query.execute();
        Intake intake;
        while (query.fetch()) {
            const bool sale = static_cast<Kind>(kind) == Kind::Sale;
            const bool booked = static_cast<State>(state) == State::Booked;
            if (sale && booked) intake.bookedAnswers.push_back(answer);
            if (sale && !booked) ++intake.refusedSales;
            if (!sale && booked) ++intake.cancellations;
        }
        return intake;
    });
}

std::size_t Journal::count(const Filter& filter) {
    const Selection selection(filter);
    return m_store->read([&](session& sql) {
        long long count = 0;
        soci::statement query(sql);
        query.exchange(into(count));
        selection.bind(query);
        query.alloc();
        query.prepare("SELECT COUNT(*) FROM documents " + selection.conditions());
        query.define_and_bind();
        query.execute(true);
        return static_cast<std::size_t>(count);
    });
}

std::string Journal::body(std::int64_t id) {
    return m_store->read([&](session& sql) { return requestOf(sql, id); });
}

std::optional<std::string> Journal::signedDocument(std::int64_t id) {
    return m_store->read([&](session& sql) -> std::optional<std::string> {
        soci::blob packed(sql);
        soci::indicator present = soci::i_null;
        long long size = 0;
        soci::indicator hasSize{};
        const long long document = id;
        sql << "SELECT signed, signed_size FROM texts WHERE document = :document", into(packed, present),
            into(size, hasSize), use(document);
        if (!sql.got_data() || present != soci::i_ok) return std::nullopt;
        return unpack(contentOf(packed), static_cast<std::size_t>(size), requestOf(sql, id));
    });
}

std::size_t Journal::queueLength() {
    return m_store->read([](session& sql) {
        long long waiting = 0;
        sql << "SELECT COUNT(*) FROM documents WHERE state = 0", into(waiting);
        return static_cast<std::size_t>(waiting);
    });
}

void Journal::tryToWrite() {
    m_store->write([](session& sql) { sql << "UPDATE sessions SET next = next"; });
}

Journal::Withdrawal Journal::withdraw(std::string_view key, Kind kind, const Identity& who) {
    return m_store->write([&](session& sql) -> Withdrawal {
        auto known = byKey(sql, std::string(key));
        if (!known) {
            // What an administrator withdraws may be any till's.
            const auto till = who.role == Role::Administrator ? std::nullopt : who.till;
            const long long id = insert(sql, {std::string(key), kind, till, "", ""}, "", State::Withdrawn);
            return {true, byId(sql, id).value()};
        }
        const bool theirs = who.role == Role::Administrator || isFor(*known, who.till);
        if (known->kind != kind || !theirs) return {false, std::move(*known)};
        if (known->state != State::Queued) return {known->state == State::Withdrawn, std::move(*known)};
        writeState(sql, known->id, State::Withdrawn);
        if (known->till == who.till)
            addHistory(sql, known->id, std::nullopt, State::Withdrawn, "retirada pelo caixa");
        else
            addHistory(sql, known->id, std::nullopt, State::Withdrawn, "retirada por quem administra",
                       who.person);
        return {true, byId(sql, known->id).value()};
    });
}

// ---- for the dispatcher ----

int Journal::takeSession() {
    const std::lock_guard lock(m_sessions);
    if (m_sessionsLeft == 0) {
        m_nextSession = m_store->write([](session& sql) {
            int next = 0;
            sql << "SELECT next FROM sessions", into(next);
            const int after = (next + SESSION_BLOCK) % SESSION_NUMBERS;
            sql << "UPDATE sessions SET next = :after", use(after);
            return next;
        });
        m_sessionsLeft = SESSION_BLOCK;
    }
    --m_sessionsLeft;
    return m_nextSession++ % SESSION_NUMBERS + 1;
}

std::optional<Document> Journal::oldestQueued() {
    return m_store->read(
        [](session& sql) { return first(inState(sql, State::Queued, "ORDER BY d.id LIMIT 1")); });
}

std::vector<Document> Journal::open() {
    return m_store->read([](session& sql) {
        auto open = inState(sql, State::Sent, "");
        auto uncertain = inState(sql, State::Uncertain, "");
        open.insert(open.end(), std::make_move_iterator(uncertain.begin()),
                    std::make_move_iterator(uncertain.end()));
        std::sort(open.begin(), open.end(),
                  [](const Document& left, const Document& right) { return left.id < right.id; });
        return open;
    });
}

std::vector<Document> Journal::undecided(std::string_view serial, std::size_t limit) {
    return m_store->read([&](session& sql) {
        const std::string device(serial);
        const auto most = static_cast<long long>(limit);
        return documentsWhere(
            sql,
            "WHERE d.state = 6 AND :serial = (SELECT a.serial FROM attempts a WHERE"
            " a.document = d.id ORDER BY a.id DESC LIMIT 1) ORDER BY d.id DESC LIMIT :limit",
            [&](soci::statement& query) {
                query.exchange(use(device));
                query.exchange(use(most));
            });
    });
}

std::optional<Attempt> Journal::lastAttempt(std::int64_t document) {
    return m_store->read([&](session& sql) { return lastAttemptOf(sql, document); });
}

std::optional<Attempt> Journal::beginAttempt(const Attempt& attempt) {
    return m_store->write([&](session& sql) -> std::optional<Attempt> {
        const long long document = attempt.document;
        const auto now = byId(sql, document);
        if (!now || now->state != State::Queued) return std::nullopt;
        const long long madeAt = toMs(attempt.madeAt);
        sql << "INSERT INTO attempts (document, session, serial, last_document, node, made_at)"
               " VALUES (:document, :session, :serial, :last, :node, :at)",
            use(document), use(attempt.session), use(attempt.serial), use(attempt.lastDocument),
            use(attempt.node), use(madeAt);
        auto made = lastAttemptOf(sql, document);
        writeState(sql, document, State::Sent);
        addHistory(sql, document, made->id, State::Sent, "enviada");
        return made;
    });
}

bool Journal::settle(const Attempt& attempt, State from, const Outcome& outcome) {
    std::string signedDocument;
    if (outcome.state == State::Booked)
        signedDocument = pack(outcome.booking.document, body(attempt.document));
    return m_store->write([&](session& sql) {
        const long long document = attempt.document;
        const auto now = byId(sql, document);
        const auto last = lastAttemptOf(sql, document);
        if (!now || now->state != from || !last || last->id != attempt.id) return false;
        if (outcome.state == State::Booked) {
            if (holdsKey(sql, outcome.booking.accessKey))
                throw JournalError(tool::filled(tool::tr("%s belongs to another document"),
                                                outcome.booking.accessKey.c_str()));
            writeBooking(sql, document, outcome.booking, signedDocument);
        }
        writeState(sql, document, outcome.state);
        if (!outcome.answer.empty())
            sql << "UPDATE documents SET answer = :answer WHERE id = :id", use(outcome.answer), use(document);
        if (outcome.notBooked)
            sql << "UPDATE documents SET not_booked = not_booked + 1 WHERE id = :id", use(document);
        if (outcome.device) writeRecord(sql, *outcome.device);
        addHistory(sql, document, attempt.id, outcome.state, outcome.evidence);
        return true;
    });
}

bool Journal::isBooked(std::string_view accessKey) {
    return m_store->read([&](session& sql) { return holdsKey(sql, std::string(accessKey)); });
}

std::optional<rules::DeviceRecord> Journal::device(std::string_view serial) {
    return m_store->read([&](session& sql) { return recordOf(sql, std::string(serial)); });
}

void Journal::record(const rules::DeviceRecord& device) {
    if (sameRecord(this->device(device.serial), device)) return;
    m_store->write([&](session& sql) { writeRecord(sql, device); });
}

bool Journal::raise(const Alarm& alarm) {
    const auto standing = alarms();
    const bool stands = std::any_of(standing.begin(), standing.end(), [&](const Alarm& other) {
        return other.serial == alarm.serial && other.shown == alarm.shown;
    });
    if (stands) return false;
    m_store->write([&](session& sql) {
        const long long since = toMs(alarm.since);
        const int halts = alarm.halts ? 1 : 0;
        sql << "INSERT INTO alarms (serial, explained, shown, since, halts)"
               " VALUES (:serial, :explained, :shown, :since, :halts)",
            use(alarm.serial), use(alarm.explained), use(alarm.shown), use(since), use(halts);
    });
    return true;
}

std::vector<Alarm> Journal::alarms() {
    return m_store->read([](session& sql) {
        long long id = 0, since = 0;
        int halts = 0;
        Alarm alarm;
        soci::statement query =
            (sql.prepare
                 << "SELECT id, serial, explained, shown, since, halts FROM alarms a WHERE confirmed_at IS NULL"
                    " AND NOT EXISTS (SELECT 1 FROM documents d WHERE d.access_key = 'CFe' || a.shown)"
                    " ORDER BY id",
             into(id), into(alarm.serial), into(alarm.explained), into(alarm.shown), into(since),
             into(halts));
        query.execute();
        std::vector<Alarm> alarms;
        while (query.fetch()) {
            alarm.id = id;
            alarm.since = fromMs(since);
            alarm.halts = halts != 0;
            alarms.push_back(alarm);
        }
        return alarms;
    });
}

// ---- for people ----

std::vector<Attempt> Journal::attempts(std::int64_t document) {
    return m_store->read([&](session& sql) { return attemptsWhere(sql, "ORDER BY id", document); });
}

std::vector<HistoryEntry> Journal::history(std::int64_t document) {
    return m_store->read([&](session& sql) {
        long long attempt = 0, at = 0;
        int state = 0;
        std::string text, person, reason;
        soci::indicator hasAttempt{}, isDecision{}, hasReason{};
        const long long id = document;
        soci::statement query = (sql.prepare << "SELECT attempt, at, state, text, person, reason FROM history"
                                                " WHERE document = :document ORDER BY id",
                                 into(attempt, hasAttempt), into(at), into(state), into(text),
                                 into(person, isDecision), into(reason, hasReason), use(id));
        query.execute();
        std::vector<HistoryEntry> history;
        while (query.fetch()) {
            HistoryEntry entry{fromMs(at), std::nullopt, static_cast<State>(state), text, "", ""};
            if (hasAttempt == soci::i_ok) entry.attempt = attempt;
            if (isDecision == soci::i_ok) entry.person = person;
            if (hasReason == soci::i_ok) entry.reason = reason;
            history.push_back(std::move(entry));
        }
        return history;
    });
}

std::optional<Document> Journal::rule(std::string_view key, const Ruling& ruling) {
    return m_store->write([&](session& sql) -> std::optional<Document> {
        const auto document = byKey(sql, std::string(key));
        if (!document || (document->state != State::Undecided && document->state != State::Uncertain))
            return std::nullopt;
        const long long id = document->id;
        State state = State::Abandoned;
        std::string text = "abandonada por decisão";
        switch (ruling.kind) {
            case Ruling::Kind::Booked: {
                const auto accessKey = AccessKey::parse(ruling.accessKey);
                if (!accessKey)
                    throw std::invalid_argument(
                        tool::filled(tool::tr("%s is not an access key"), ruling.accessKey.c_str()));
                if (holdsKey(sql, accessKey->text()))
                    throw std::invalid_argument(
                        tool::filled(tool::tr("%s belongs to another document"), accessKey->text().c_str()));
                const std::string given = accessKey->text();
                sql << "UPDATE documents SET access_key = :key WHERE id = :id", use(given), use(id);
                recordRuling(sql, *document, *accessKey);
                state = State::Booked;
                text = "emitida por decisão: " + accessKey->text();
                break;
            }
            case Ruling::Kind::SendAgain:
                sql << "UPDATE documents SET not_booked = 0 WHERE id = :id", use(id);
                state = State::Queued;
                text = "enviar de novo por decisão";
                break;
            case Ruling::Kind::Abandon: break;
        }
        writeState(sql, id, state);
        const auto attempt = lastAttemptOf(sql, id);
        addHistory(sql, id, attempt ? std::optional<long long>(attempt->id) : std::nullopt, state, text,
                   ruling.person, ruling.reason);
        return byId(sql, id);
    });
}

void Journal::removeTexts(const std::vector<std::int64_t>& documents) {
    m_store->write([&](session& sql) {
        for (const long long id : documents) {
            const auto document = byId(sql, id);
            if (!document || !document->hasDocument) continue;
            soci::blob digest(sql);
            fill(digest, tool::sha256(requestOf(sql, id)));
            sql << "UPDATE texts SET request = :digest, signed = NULL, signed_size = NULL WHERE document = :id",
                use(digest), use(id);
            sql << "UPDATE documents SET has_document = :removed WHERE id = :id", use(REMOVED), use(id);
        }
    });
}

bool Journal::shrink(int pages) {
    return m_store->write([&](session& sql) {
        const auto freePages = [&] {
            int count = 0;
            sql << "PRAGMA freelist_count", into(count);
            return count;
        };
        const int before = freePages();
        // One step gives back one page.
        soci::statement step(sql);
        step.alloc();
        step.prepare("PRAGMA incremental_vacuum(" + std::to_string(pages) + ")");
        step.define_and_bind();
        step.execute(true);
        while (step.fetch()) {
        }
        const int after = freePages();
        return after > 0 && after < before;
    });
}

void Journal::confirm(std::int64_t alarm, std::string_view person, std::string_view reason) {
    m_store->write([&](session& sql) {
        const long long id = alarm;
        const long long at = toMs(now());
        const std::string who(person);
        const std::string why(reason);
        rules::DeviceRecord record;
        int halts = 0;
        sql << "SELECT serial, shown, halts FROM alarms WHERE id = :id AND confirmed_at IS NULL",
            into(record.serial), into(record.lastDocument), into(halts), use(id);
        if (!sql.got_data()) return;
        sql << "UPDATE alarms SET confirmed_at = :at, person = :person, reason = :reason WHERE id = :id",
            use(at), use(who), use(why), use(id);
        if (halts != 0) writeRecord(sql, record);
    });
}

std::int64_t Journal::foreignChanges() { return m_store->foreignChanges(); }

void Journal::copyTo(const std::string& path) {
    std::string quoted;
    for (const char c : path) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    m_store->execute("VACUUM INTO '" + quoted + "'");
}

int Journal::nextSession() {
    return m_store->read([](session& sql) {
        int next = 0;
        sql << "SELECT next FROM sessions", into(next);
        return next;
    });
}

void Journal::goOnFromCopy(std::optional<int> nextSession) {
    // Random, so that restoring the same copy twice does not reuse the same numbers.
    std::random_device random;
    const int jump = std::uniform_int_distribution(SHORTEST_JUMP, LONGEST_JUMP)(random);
    m_store->write([&](session& sql) {
        sql << "UPDATE sessions SET next = (next + " << jump << ") % " << SESSION_NUMBERS;
        if (nextSession) sql << "UPDATE sessions SET next = " << *nextSession;
        for (const State waiting : {State::Queued, State::Sent, State::Uncertain}) {
            for (const Document& document : inState(sql, waiting, "ORDER BY d.id")) {
                writeState(sql, document.id, State::Undecided);
                addHistory(sql, document.id, std::nullopt, State::Undecided,
                           "cópia restaurada: pode ter sido enviada depois que ela foi feita");
            }
        }
    });
}

}  // namespace fiscorad
