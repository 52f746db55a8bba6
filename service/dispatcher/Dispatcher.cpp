#include "dispatcher/Dispatcher.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>

#include "fiscal/operations.h"
#include "fiscora.h"
#include "i18n.h"
#include "rules/AccessKey.h"

namespace fiscorad {

namespace fiscal = manipulaDados;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Condition = DeviceState::Condition;
using Proof = rules::Proof;

constexpr milliseconds AT_ONCE{0};
/// How often to look whether a device has come, the code file has changed or a person has decided.
constexpr seconds IDLE{1};
/// How old a reading may be when a document is sent.
constexpr seconds FRESH{5};
/// Time allowed for what a step does besides its call and its pause, such as waiting for a slow disk.
constexpr seconds LEEWAY{60};
/// How many timeouts a call can last, since answers to something else restart it.
constexpr int LONGEST_CALL = 6;
/// How many undecided documents a reconnected device is asked about.
constexpr std::size_t ASKED_AGAIN = 32;

/// What came of a call, for the attempt's history.
std::string evidenceOf(const char* command, const rules::Reply& reply) {
    std::string text = std::string(command) + ": status " + std::to_string(reply.status);
    const rules::Fields fields(reply.body);
    if (reply.status == FISCORA_STATUS_OK && !fields.result().empty())
        text += ", EEEEE " + std::string(fields.code());
    return text;
}

bool needsCode(const fiscal::Operation& operation) {
    const auto& parameters = operation.parameters;
    return std::any_of(parameters.begin(), parameters.end(), [](const fiscal::Parameter& parameter) {
        return parameter.kind == fiscal::Kind::ActivationCode;
    });
}

}  // namespace

Dispatcher::Dispatcher(Journal& journal, Equipment& equipment, ActivationCode& code, Changes& changes,
                       Settings settings)
    : m_journal(journal),
      m_equipment(equipment),
      m_code(code),
      m_changes(changes),
      m_settings(std::move(settings)) {
    expect(seconds(0));
    Filter unsettled;
    unsettled.limit = std::numeric_limits<int>::max();
    for (const State state : {State::Uncertain, State::Undecided}) {
        unsettled.state = state;
        for (const Document& document : m_journal.list(unsettled)) m_unsettled.insert(document.id);
    }
}

// ---- the thread ----

void Dispatcher::run() {
    std::string lastFailure;
    std::unique_lock lock(m_mutex);
    while (!m_stopped) {
        m_awake = false;
        lock.unlock();
        milliseconds pause = IDLE;
        try {
            pause = step();
            lastFailure.clear();
        } catch (const std::exception& failure) {  // the journal, or memory
            // If a call's result did not reach the disk, the device is asked for it again.
            if (failure.what() != lastFailure) m_settings.warn(failure.what());
            lastFailure = failure.what();
        }
        expect(pause);
        lock.lock();
        m_news.wait_for(lock, pause, [&] { return m_stopped || m_awake; });
    }
    m_ended = true;
    m_due = Clock::time_point::max();
    lock.unlock();
    failOperations(OperationResult::Result::Stopping);
}

void Dispatcher::stop() {
    const std::lock_guard lock(m_mutex);
    m_stopped = true;
    m_news.notify_all();
}

void Dispatcher::wake() {
    const std::lock_guard lock(m_mutex);
    m_awake = true;
    m_news.notify_all();
}

void Dispatcher::operate(OperationRequest request, Done done) {
    {
        const std::lock_guard lock(m_mutex);
        if (!m_ended) {
            m_operations.emplace_back(std::move(request), std::move(done));
            m_awake = true;
            m_news.notify_all();
            return;
        }
    }
    done({OperationResult::Result::Stopping, 0, 0, ""});
}

DeviceState Dispatcher::device() const {
    const std::lock_guard lock(m_mutex);
    return m_state;
}

bool Dispatcher::moves() const { return m_settings.now() <= m_due.load(); }

/// Says how long the thread may be busy or pause now.
void Dispatcher::expect(Clock::duration duration) { m_due = m_settings.now() + duration + LEEWAY; }

// ---- one step ----

milliseconds Dispatcher::step() {
    expect(seconds(0));
    publishForeignChanges();
    if (m_code.changed()) {
        m_codeRefused = false;
        m_settings.codeChanged();
    }
    if (m_codeRefused) {
        become(Condition::CodeRefused);
        failOperations(OperationResult::Result::CodeRefused,
                       [](const OperationRequest& r) { return !setsCode(r); });
        if (!hasOperation()) return IDLE;
    }
    if (!findsConnection()) {
        become(Condition::Absent);
        failOperations(OperationResult::Result::NoDevice);
        return IDLE;
    }
    const auto now = m_settings.now();
    if (now < m_nextCall) return std::chrono::ceil<milliseconds>(m_nextCall - now);
    return dispatch();
}

bool Dispatcher::findsConnection() {
    const auto connection = m_equipment.connection();
    if (connection != m_connection) {
        m_connection = connection;
        m_serial.clear();
        m_reading.reset();
        m_halted = false;
        m_greeted = false;
        m_undecided.clear();
        if (m_open) m_open->next = Open::Question::Status;
    }
    return m_connection.has_value();
}

milliseconds Dispatcher::dispatch() {
    // While an attempt may still book, its device is only asked about it.
    if (const auto open = m_journal.open(); !open.empty()) {
        failOperations(OperationResult::Result::DocumentOpen);
        return m_codeRefused ? IDLE : resolve(open);
    }
    m_open.reset();
    if (m_codeRefused) {
        operate();
        return AT_ONCE;
    }

    const auto document = m_journal.oldestQueued();
    if (hasOperation() && !(document && m_operatedLast)) {
        operate();
        return AT_ONCE;
    }
    if (!document && m_greeted && !m_halted) {
        become(Condition::Answering);
        return IDLE;
    }
    if (!m_reading || (!m_halted && !hasFreshReading())) {
        read();
        return AT_ONCE;
    }
    if (!m_undecided.empty()) {
        askAboutUndecided();
        return AT_ONCE;
    }
    if (!stands()) return IDLE;
    m_greeted = true;
    return document ? send(*document) : AT_ONCE;
}

// ---- calls ----

/// Makes one call, with the activation code if the operation takes one; `arguments` are those after it.
Dispatcher::Call Dispatcher::call(const char* command, int session, const std::vector<Argument>& arguments) {
    const fiscal::Operation& operation = *fiscal::findOperation(command);
    const std::string code = m_code.text();
    std::vector<Argument> all{session};
    if (needsCode(operation)) all.emplace_back(code.c_str());
    all.insert(all.end(), arguments.begin(), arguments.end());
    return call(operation, session, all);
}

Dispatcher::Call Dispatcher::call(const fiscal::Operation& operation, int session,
                                  const std::vector<Argument>& all) {
    LastCall last{operation.command, session, 0, "", std::chrono::system_clock::now(), milliseconds(0)};
    m_reading.reset();
    expect(LONGEST_CALL * milliseconds(operation.timeoutMs));
    const auto began = Clock::now();
    Call call{m_equipment.call(operation, all), false};
    expect(seconds(0));
    call.reply.session = session;
    call.sameConnection = m_equipment.connection() == m_connection;

    last.duration = std::chrono::duration_cast<milliseconds>(Clock::now() - began);
    last.status = call.reply.status;
    if (const rules::Fields fields(call.reply.body); !fields.result().empty()) last.code = fields.code();
    m_settings.called(last);
    {
        const std::lock_guard lock(m_mutex);
        m_state.lastCall = std::move(last);
    }
    if (rules::refusesCode(call.reply)) m_codeRefused = true;
    return call;
}

/// Asks the device under a new session number.
Dispatcher::Call Dispatcher::ask(const char* command, const std::vector<Argument>& more) {
    return call(command, m_journal.takeSession(), more);
}

/// A call got no answer of its own. The next one waits; otherwise it could receive this one's answer, and
/// every later call the answer of the one before.
void Dispatcher::unanswered() {
    m_nextCall = m_settings.now() + m_pause;
    m_pause = rules::longer(m_pause);
    if (m_open) m_open->next = Open::Question::Status;
}

void Dispatcher::answered() { m_pause = seconds(1); }

/// Reads the device's serial number and last document into m_reading.
bool Dispatcher::read() {
    const Call status = ask(fiscal::CMD_CONSULTA_STATUS_OP);
    if (m_codeRefused) return false;
    auto reading = rules::readingIn(status.reply);
    if (!reading || !status.sameConnection) {
        if (rules::isOwnAnswer(status.reply) && status.sameConnection)
            m_settings.warn(tool::filled(tool::tr("the device's state cannot be read: %s"),
                                         evidenceOf(fiscal::CMD_CONSULTA_STATUS_OP, status.reply).c_str()));
        if (!m_open) become(Condition::Absent);
        unanswered();
        return false;
    }
    answered();
    if (m_serial.empty()) m_undecided = m_journal.undecided(reading->serial, ASKED_AGAIN);
    m_serial = reading->serial;
    m_reading = std::move(reading);
    m_readAt = m_settings.now();
    {
        const std::lock_guard lock(m_mutex);
        m_state.serial = m_reading->serial;
        m_state.lastDocument = m_reading->lastDocument;
    }
    return true;
}

bool Dispatcher::hasFreshReading() const {
    return m_reading.has_value() && m_settings.now() - m_readAt <= FRESH;
}

/// Whether the device's last document is the journal's, so that a document may be sent.
bool Dispatcher::stands() {
    const auto known = m_journal.device(m_reading->serial);
    const rules::DeviceRecord record =
        known ? *known : rules::DeviceRecord{m_reading->serial, m_reading->lastDocument, ""};
    // An attempt that a person is to decide about may have booked what the device shows.
    const auto undecided = m_journal.undecided(record.serial, ASKED_AGAIN);
    const auto perhaps = std::count_if(undecided.begin(), undecided.end(), [&](const Document& document) {
        const auto attempt = m_journal.lastAttempt(document.id);
        return attempt && attempt->lastDocument == record.lastDocument;
    });
    const auto standing = rules::standingOf(*m_reading, record, static_cast<int>(perhaps));
    if (standing == rules::Standing::Unexplained) {
        alarm(record, Halts::Yes);
        m_halted = true;
        become(Condition::Divergent);
        return false;
    }
    if (m_halted) {  // a person has confirmed the device since
        m_halted = false;
        m_reading.reset();
        return false;
    }
    if (standing == rules::Standing::PerhapsAttempt) alarm(record, Halts::No);
    m_journal.record(rules::afterReading(record, *m_reading));
    return true;
}

// ---- sending ----

milliseconds Dispatcher::send(const Document& document) {
    const Attempt wanted{0,
                         document.id,
                         m_journal.takeSession(),
                         m_reading->serial,
                         m_reading->lastDocument,
                         m_settings.node,
                         std::chrono::system_clock::now()};
    const std::string body = m_journal.body(document.id);
    const auto attempt = m_journal.beginAttempt(wanted);
    if (!attempt) return AT_ONCE;  // withdrawn meanwhile
    m_changes.publish(m_journal.find(document.id).value());
    m_operatedLast = false;

    // The terminal must still be the one that has shown the serial number and the last document.
    if (m_equipment.connection() != m_connection) {
        settle(*attempt, State::Sent,
               {State::Queued, "", {}, false, "não enviada: o equipamento foi desconectado", {}});
        return AT_ONCE;
    }
    become(Condition::Busy);
    m_open = Open{{*attempt, document.kind, body, document.saleKey, true},
                  {m_settings.now(), {}, true, "", seconds(1)}};
    std::vector<Argument> arguments;
    if (document.kind == Kind::Cancellation) arguments.emplace_back(document.saleKey.c_str());
    arguments.emplace_back(body.c_str());
    const char* const command = commandOf(document.kind);
    const Call sent = call(command, attempt->session, arguments);

    const Proof proof = rules::proofInCall(m_open->trial, sent.reply);
    if (rules::isOwnAnswer(sent.reply) || proof.kind == Proof::Kind::NothingSent)
        answered();
    else
        unanswered();
    if (settleByProof(m_open->trial, State::Sent, proof, evidenceOf(command, sent.reply))) return AT_ONCE;
    Outcome uncertain;
    uncertain.evidence = evidenceOf(command, sent.reply);
    settle(*attempt, State::Sent, uncertain);
    return AT_ONCE;
}

// ---- resolving ----

milliseconds Dispatcher::resolve(const std::vector<Document>& open) {
    const Document& document = open.front();
    if (!m_open || m_open->trial.attempt.document != document.id) takeOver(document);
    if (document.state == State::Sent) {
        Outcome uncertain;
        uncertain.evidence = "o serviço parou durante a chamada";
        settle(m_open->trial.attempt, State::Sent, uncertain);
        return AT_ONCE;
    }
    if (!m_halted) become(Condition::Resolving, document.key);
    switch (m_open->next) {
        case Open::Question::Status: return judgeByReading(document, open);
        case Open::Question::Session: askForSession(document); break;
        case Open::Question::LastFiscal: askForLastFiscal(document); break;
    }
    return AT_ONCE;
}

/// Begins to ask about an attempt of an earlier process, or of this one if its outcome could not be written.
void Dispatcher::takeOver(const Document& document) {
    const Attempt attempt = m_journal.lastAttempt(document.id).value();
    m_open = Open{{attempt, document.kind, m_journal.body(document.id), document.saleKey,
                   attempt.node == m_settings.node},
                  {m_settings.now(), {}, true, "", seconds(1)}};
}

milliseconds Dispatcher::judgeByReading(const Document& document, const std::vector<Document>& open) {
    if ((!m_reading || !m_halted) && !read()) return AT_ONCE;
    const rules::Trial& trial = m_open->trial;
    if (m_reading->serial != trial.attempt.serial) {
        leaveToAPerson(document, "outro equipamento está no lugar: " + m_reading->serial);
        return AT_ONCE;
    }
    const auto here = std::count_if(open.begin(), open.end(), [&](const Document& other) {
        return m_journal.lastAttempt(other.id).value().serial == m_reading->serial;
    });
    const rules::DeviceRecord record =
        m_journal.device(m_reading->serial)
            .value_or(rules::DeviceRecord{trial.attempt.serial, trial.attempt.lastDocument, ""});
    if (rules::standingOf(*m_reading, record, static_cast<int>(here)) == rules::Standing::Unexplained) {
        alarm(record, Halts::Yes);
        m_halted = true;
        become(Condition::Divergent);
        return IDLE;
    }
    if (m_halted) {
        m_halted = false;
        return AT_ONCE;  // a person has confirmed the device since: read it again
    }
    switch (rules::conclude(trial, m_open->inquiry, *m_reading)) {
        case rules::Conclusion::Open: m_open->next = Open::Question::Session; break;
        case rules::Conclusion::NotBooked: {
            Outcome outcome;
            outcome.state = rules::afterNotBooked(document.notBooked + 1);
            outcome.notBooked = true;
            outcome.evidence = "comprovado que não foi emitida";
            settle(trial.attempt, State::Uncertain, outcome);
            break;
        }
        case rules::Conclusion::Refused: {
            Outcome outcome;
            outcome.state = State::Refused;
            outcome.answer = m_open->inquiry.refusal;
            outcome.evidence = evidenceOf(fiscal::CMD_CONSULTAR_NUM_SESSAO, {0, 0, outcome.answer});
            settle(trial.attempt, State::Uncertain, outcome);
            break;
        }
        case rules::Conclusion::Undecided:
            leaveToAPerson(document, "o equipamento respondeu e nada ficou provado");
            break;
    }
    return AT_ONCE;
}

void Dispatcher::askForSession(const Document& document) {
    const auto asked = m_settings.now();
    const int session = m_open->trial.attempt.session;
    const Call answer = ask(fiscal::CMD_CONSULTAR_NUM_SESSAO, {session});
    if (!rules::isOwnAnswer(answer.reply, session) || !answer.sameConnection) return unanswered();
    answered();
    m_open->next = Open::Question::LastFiscal;
    const Proof proof = rules::proofInStoredAnswer(m_open->trial, answer.reply);
    if (settleByProof(m_open->trial, document.state, proof,
                      evidenceOf(fiscal::CMD_CONSULTAR_NUM_SESSAO, answer.reply)))
        return;
    m_open->inquiry = rules::afterStoredAnswer(m_open->inquiry, m_open->trial, answer.reply, asked);
}

/// The last question of a round.
void Dispatcher::askForLastFiscal(const Document& document) {
    const Call answer = ask(fiscal::CMD_CONSULTA_ULTIMA_SESSAO_FISCAL);
    if (!rules::isOwnAnswer(answer.reply, m_open->trial.attempt.session) || !answer.sameConnection)
        return unanswered();
    answered();
    m_open->next = Open::Question::Status;
    if (!rules::awaitsReading(m_open->inquiry)) {
        m_nextCall = m_settings.now() + m_open->inquiry.pause;
        m_open->inquiry.pause = rules::longer(m_open->inquiry.pause);
    }
    settleByProof(m_open->trial, document.state, rules::proofInStoredAnswer(m_open->trial, answer.reply),
                  evidenceOf(fiscal::CMD_CONSULTA_ULTIMA_SESSAO_FISCAL, answer.reply));
}

/// Asks a newly connected device about one of the documents that a person is to decide about: proof may turn
/// up.
void Dispatcher::askAboutUndecided() {
    const Document document = m_undecided.back();
    const auto attempt = m_journal.lastAttempt(document.id);
    const auto now = m_journal.find(document.id);
    if (!attempt || !now || now->state != State::Undecided || attempt->serial != m_serial) {
        m_undecided.pop_back();
        return;
    }
    const Call answer = ask(fiscal::CMD_CONSULTAR_NUM_SESSAO, {attempt->session});
    if (!rules::isOwnAnswer(answer.reply, attempt->session) || !answer.sameConnection) return unanswered();
    answered();
    m_undecided.pop_back();
    const rules::Trial trial{*attempt, document.kind, m_journal.body(document.id), document.saleKey, true};
    const Proof proof = rules::proofInStoredAnswer(trial, answer.reply);
    if (proof.kind == Proof::Kind::Booked)
        settleByProof(trial, State::Undecided, proof,
                      evidenceOf(fiscal::CMD_CONSULTAR_NUM_SESSAO, answer.reply));
}

// ---- outcomes ----

void Dispatcher::settle(const Attempt& attempt, State from, const Outcome& outcome) {
    if (!m_journal.settle(attempt, from, outcome)) return;  // a person has decided meanwhile
    if (outcome.state == State::Uncertain || outcome.state == State::Undecided)
        m_unsettled.insert(attempt.document);
    else
        m_unsettled.erase(attempt.document);
    m_changes.publish(m_journal.find(attempt.document).value());
}

/// Writes what the answer proves. False if it proves nothing, or if another row holds the access key.
bool Dispatcher::settleByProof(const rules::Trial& trial, State from, const Proof& proof,
                               const std::string& evidence) {
    Outcome outcome;
    outcome.evidence = evidence;
    switch (proof.kind) {
        case Proof::Kind::None: return false;
        case Proof::Kind::Booked: {
            if (m_journal.isBooked(proof.booking.accessKey)) return false;
            outcome.state = State::Booked;
            outcome.booking = proof.booking;
            outcome.answer = proof.booking.answer;
            const rules::DeviceRecord before =
                m_journal.device(trial.attempt.serial)
                    .value_or(rules::DeviceRecord{trial.attempt.serial, trial.attempt.lastDocument, ""});
            outcome.device = rules::afterBooking(before, trial.kind, proof.booking.accessKey);
            const std::lock_guard lock(m_mutex);
            m_state.lastDocument = AccessKey::parse(proof.booking.accessKey).value().digits();
            break;
        }
        case Proof::Kind::Refused:
            outcome.state = State::Refused;
            outcome.answer = proof.answer;
            break;
        case Proof::Kind::NothingSent: outcome.state = State::Refused; break;
    }
    settle(trial.attempt, from, outcome);
    return true;
}

/// No proof can be had. What the device shows now counts as explained, so that it can go on with other
/// documents; an alarm remains, because no row has that document.
void Dispatcher::leaveToAPerson(const Document& document, const std::string& why) {
    const Attempt& attempt = m_open->trial.attempt;
    Outcome outcome;
    outcome.state = State::Undecided;
    outcome.evidence = why;
    if (const auto record = m_journal.device(attempt.serial);
        record && m_reading && m_reading->serial == attempt.serial) {
        outcome.device = rules::afterReading(*record, *m_reading);
        if (outcome.device->lastDocument != record->lastDocument) alarm(*record, Halts::No);
    }
    settle(attempt, document.state, outcome);
}

void Dispatcher::alarm(const rules::DeviceRecord& record, Halts halts) {
    Alarm alarm;
    alarm.serial = record.serial;
    alarm.explained = record.lastDocument;
    alarm.shown = m_reading->lastDocument;
    alarm.since = std::chrono::system_clock::now();
    alarm.halts = halts == Halts::Yes;
    if (!m_journal.raise(alarm)) return;
    m_settings.warn(
        alarm.shown.empty()
            ? tool::filled(tool::tr("device %s shows no document, which the journal does not explain"),
                           alarm.serial.c_str())
            : tool::filled(tool::tr("device %s shows CFe%s, which the journal does not explain"),
                           alarm.serial.c_str(), alarm.shown.c_str()));
    m_changes.publishDevice();
}

// ---- other operations ----

bool Dispatcher::hasOperation() const {
    const std::lock_guard lock(m_mutex);
    return !m_operations.empty();
}

void Dispatcher::operate() {
    std::unique_lock lock(m_mutex);
    const auto [request, done] = std::move(m_operations.front());
    m_operations.pop_front();
    lock.unlock();
    m_operatedLast = true;
    become(Condition::Busy);
    try {
        done(perform(request));
    } catch (const JournalError&) {
        done({OperationResult::Result::NoDevice, 0, 0, ""});
        throw;
    }
}

OperationResult Dispatcher::perform(const OperationRequest& request) {
    const fiscal::Operation& operation = *request.operation;
    const std::string code = m_code.text();
    const int session = m_journal.takeSession();
    std::vector<Argument> arguments;
    for (const fiscal::Parameter& parameter : operation.parameters) {
        const auto given = request.arguments.find(parameter.name);
        if (&parameter == operation.parameters.begin())
            arguments.emplace_back(session);
        else if (given == request.arguments.end())
            arguments.emplace_back(code.c_str());
        else if (isNumber(parameter.kind))
            arguments.emplace_back(std::stoi(given->second));
        else
            arguments.emplace_back(given->second.c_str());
    }
    const bool changesCode = std::string_view(operation.command) == fiscal::CMD_TROCA_COD_ATIVACAO;
    if (changesCode) {
        try {
            m_code.prepare(request.arguments.at("novoCodigo"));
        } catch (const ActivationCodeError& failure) {
            m_settings.warn(failure.what());
            return {OperationResult::Result::CodeNotKept, 0, 0, ""};
        }
    }
    const Call called = call(operation, session, arguments);
    const rules::Reply& reply = called.reply;
    const bool own = rules::isOwnAnswer(reply);
    if (own || reply.status == FISCORA_STATUS_BAD_REQUEST)
        answered();
    else
        unanswered();
    OperationResult result{OperationResult::Result::Done, reply.status, session, reply.body};
    const bool succeeded = own && operation.succeededWith(rules::Fields(reply.body).code());
    if (succeeded && setsCode(request)) m_codeRefused = false;
    if (!succeeded || !changesCode) return result;
    try {
        m_code.commit();
        m_settings.codeChanged();
        return result;
    } catch (const ActivationCodeError& failure) {
        m_settings.warn(failure.what());
        return {OperationResult::Result::CodeNotKept, 0, 0, ""};
    }
}

void Dispatcher::failOperations(OperationResult::Result result,
                                const std::function<bool(const OperationRequest&)>& which) {
    std::unique_lock lock(m_mutex);
    const auto kept = std::stable_partition(m_operations.begin(), m_operations.end(),
                                            [&](const auto& waiting) { return !which(waiting.first); });
    const std::vector<std::pair<OperationRequest, Done>> failed(std::make_move_iterator(kept),
                                                                std::make_move_iterator(m_operations.end()));
    m_operations.erase(kept, m_operations.end());
    lock.unlock();
    for (const auto& [request, done] : failed) done({result, 0, 0, ""});
}

// ---- telling ----

/// Tells what a person has decided in another process.
void Dispatcher::publishForeignChanges() {
    const std::int64_t changes = m_journal.foreignChanges();
    if (changes == m_foreignChanges) return;
    m_foreignChanges = changes;
    for (auto id = m_unsettled.begin(); id != m_unsettled.end();) {
        const auto document = m_journal.find(*id);
        const bool unsettled =
            document && (document->state == State::Uncertain || document->state == State::Undecided);
        if (document && !unsettled) m_changes.publish(*document);
        id = unsettled ? std::next(id) : m_unsettled.erase(id);
    }
    m_changes.publishDevice();
}

void Dispatcher::become(Condition condition, const std::string& resolving) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_state.condition == condition && m_state.resolving == resolving) return;
        m_state.condition = condition;
        m_state.resolving = resolving;
    }
    m_changes.publishDevice();
}

}  // namespace fiscorad
