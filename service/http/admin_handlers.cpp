// What the page shows and does, for administrators.
#include <array>
#include <charconv>
#include <ctime>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "dispatcher/diagnosis.h"
#include "http/Query.h"
#include "http/handlers.h"
#include "http/problem.h"
#include "http/representation.h"
#include "http/submission.h"
#include "local_time.h"
#include "rules/AccessKey.h"
#include "terminal_text.h"
#include "time_text.h"

namespace fiscorad::http {
namespace {

using nlohmann::json;

constexpr int HOURS_AT_MOST = 24;
constexpr int DEFAULT_HOURS = 3;
constexpr std::size_t MAX_REASON = 500;

/// The text member `name` of the request's body, which is a JSON object; empty if it is not there.
std::string textIn(const json& body, const char* name) {
    if (!body.is_object()) throw Rejection(problems::BODY, "O corpo deve ser um objeto JSON.");
    const auto member = body.find(name);
    if (member == body.end()) return "";
    if (!member->is_string()) throw Rejection(problems::ARGUMENT, std::string(name) + " deve ser um texto.");
    return member->get<std::string>();
}

std::string reasonIn(const json& body) {
    std::string reason = textIn(body, "motivo");
    if (trimmed(reason).empty()) throw Rejection(problems::ARGUMENT, "Falta o motivo.");
    if (reason.size() > MAX_REASON)
        throw Rejection(problems::ARGUMENT, "O motivo passa de " + std::to_string(MAX_REASON) + " bytes.");
    return reason;
}

Ruling rulingIn(const json& body, const std::string& person) {
    Ruling ruling;
    ruling.person = person;
    ruling.reason = reasonIn(body);
    const std::string decision = textIn(body, "decisao");
    if (decision == "enviar-de-novo") {
        ruling.kind = Ruling::Kind::SendAgain;
    } else if (decision == "emitida") {
        const auto key = AccessKey::parse(textIn(body, "chaveConsulta"));
        if (!key) throw Rejection(problems::ACCESS_KEY, "chaveConsulta não é uma chave de acesso.");
        ruling.kind = Ruling::Kind::Booked;
        ruling.accessKey = key->text();
    } else if (decision != "abandonada") {
        throw Rejection(problems::ARGUMENT, "decisao deve ser emitida, enviar-de-novo ou abandonada.");
    }
    return ruling;
}

Document existing(Service& service, const Call& call) {
    if (!isKey(call.name)) throw Rejection(problems::KEY, "A chave no caminho é inválida.");
    auto document = service.find(call.name);
    if (!document || document->kind != call.kind)
        throw Rejection(problems::NOT_FOUND, "Não há documento com a chave " + call.name + ".");
    return std::move(*document);
}

json attemptsOf(Service& service, const Document& document) {
    json attempts = json::array();
    for (const Attempt& attempt : service.attempts(document.id))
        attempts.push_back({{"sessao", sessionText(attempt.session)},
                            {"numeroDeSerie", attempt.serial},
                            {"ultimoDocumento", attempt.lastDocument},
                            {"no", tool::toUtf8(attempt.node)},
                            {"em", timeText(attempt.madeAt)}});
    return attempts;
}

json historyOf(Service& service, const Document& document) {
    json history = json::array();
    for (const HistoryEntry& entry : service.history(document.id)) {
        json step{
            {"em", timeText(entry.at)}, {"estado", nameOf(entry.state)}, {"texto", tool::toUtf8(entry.text)}};
        if (!entry.person.empty()) {
            step["pessoa"] = tool::toUtf8(entry.person);
            step["motivo"] = tool::toUtf8(entry.reason);
        }
        history.push_back(std::move(step));
    }
    return history;
}

/// The total of a booked sale, in hundredths; 0 if its answer has none.
long long centsOf(const std::string& answer) {
    // valorTotalCFe, written as "12.30".
    constexpr std::size_t TOTAL_FIELD = 9;
    const rules::Fields fields(answer);
    const std::string text(fields[TOTAL_FIELD]);
    const auto point = text.find('.');
    std::string digits = text.substr(0, point);
    digits += point == std::string::npos ? "00" : (text.substr(point + 1) + "00").substr(0, 2);
    long long cents = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), cents);
    return cents;
}

std::string decimalOf(long long cents) {
    const std::string digits = std::to_string(cents);
    const std::string padded = digits.size() < 3 ? std::string(3 - digits.size(), '0') + digits : digits;
    return padded.substr(0, padded.size() - 2) + "." + padded.substr(padded.size() - 2);
}

}  // namespace

void summarize(Context& context, Call& call) {
    const Span today = parseTime(localTimeText("%Y-%m-%d")).value();
    const Intake intake = context.service.intake(today.begin);
    long long cents = 0;
    for (const std::string& answer : intake.bookedAnswers) cents += centsOf(answer);
    const auto count = [&](State state) {
        Filter filter;
        filter.state = state;
        return context.service.count(filter);
    };
    call.respond(jsonResponse(200, {{"dia", localTimeText("%Y-%m-%d")},
                                    {"emitidas", intake.bookedAnswers.size()},
                                    {"total", decimalOf(cents)},
                                    {"recusadas", intake.refusedSales},
                                    {"canceladas", intake.cancellations},
                                    {"fila", count(State::Queued)},
                                    {"aDecidir", count(State::Undecided) + count(State::Uncertain)}}));
}

void showCalls(Context& context, Call& call) {
    Query query(call.request);
    const std::string text = query.take("horas").value_or(std::to_string(DEFAULT_HOURS));
    query.refuseOthers();
    int hours = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), hours);
    if (error != std::errc() || stop != text.data() + text.size() || hours < 1 || hours > HOURS_AT_MOST)
        throw Rejection(problems::PARAMETER, "horas deve ser um número inteiro de 1 a 24.");
    json calls = json::array();
    const Time since = std::chrono::system_clock::now() - std::chrono::hours(hours);
    for (const LastCall& made : context.calls.since(since)) calls.push_back(representationOf(made));
    call.respond(jsonResponse(200, {{"chamadas", std::move(calls)}}));
}

void showAttempts(Context& context, Call& call) {
    const Document document = existing(context.service, call);
    json body{{"documento", representationOf(document)},
              {"tentativas", attemptsOf(context.service, document)},
              {"historico", historyOf(context.service, document)}};
    call.respond(jsonResponse(200, body));
}

void decide(Context& context, Call& call) {
    const Document document = existing(context.service, call);
    const auto body = json::parse(call.request.body, nullptr, false);
    try {
        const auto after = context.service.decide(document.key, rulingIn(body, call.who.person));
        if (!after)
            throw Rejection(problems::DECIDED,
                            "O documento está no estado " + std::string(nameOf(document.state)) + ".");
        context.service.recordAction(call.who.person, "decisão", document.key);
        call.respond(jsonResponse(200, representationOf(*after)));
    } catch (const std::invalid_argument& taken) {
        throw Rejection(problems::ACCESS_KEY, "A chave de acesso já é de outro documento.");
    }
}

void diagnoseDevice(Context& context, Call& call) {
    // It looks at the port, which is the running call's alone.
    if (context.service.device().condition != DeviceState::Condition::Absent)
        throw Rejection(problems::PRESENT, "O diagnóstico é para quando o equipamento está ausente.");
    const auto told = json::parse(diagnose(), nullptr, false);
    json steps = json::array();
    for (const json& finding : told.is_object() ? told.value("findings", json::array()) : json::array())
        steps.push_back({{"passo", finding.value("step", "")},
                         {"resultado", finding.value("verdict", "")},
                         {"achado", finding.value("found", "")},
                         {"conselho", finding.value("advice", "")}});
    call.respond(jsonResponse(200, {{"passos", std::move(steps)}}));
}

void confirmDevice(Context& context, Call& call) {
    const std::string reason = reasonIn(json::parse(call.request.body, nullptr, false));
    context.service.confirmDevice(call.who.person, reason);
    context.service.recordAction(call.who.person, "confirmação do equipamento", reason);
    showDevice(context, call);
}

}  // namespace fiscorad::http
