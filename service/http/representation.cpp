#include "http/representation.h"

#include <algorithm>

#include "fields.h"
#include "fiscal/operations.h"
#include "http/text.h"
#include "terminal_text.h"
#include "time_text.h"

namespace fiscorad::http {
namespace {

using manipulaDados::AnswerLayout;
using manipulaDados::Operation;
using nlohmann::json;

constexpr std::size_t CODE_FIELD = 1;

std::string alarmText(const Alarm& alarm) {
    std::string text = "Desde " + timeText(alarm.since) + ", o equipamento " + alarm.serial;
    text += alarm.shown.empty() ? " não mostra nenhum documento; "
                                : " mostra como último documento " + alarm.shown + "; ";
    text += alarm.explained.empty() ? "o registro não explica nenhum."
                                    : "o último que o registro explica é " + alarm.explained + ".";
    if (alarm.halts) text += " Nada é enviado a ele até que uma pessoa confirme.";
    return tool::toUtf8(text);
}

}  // namespace

std::string sessionText(int session) {
    std::string digits = std::to_string(session);
    return digits.insert(0, 6 - std::min<std::size_t>(6, digits.size()), '0');
}

std::string pathTo(const Document& document) {
    return (document.kind == Kind::Sale ? "/v1/vendas/" : "/v1/cancelamentos/") + document.key;
}

json namedFields(const Operation& operation, std::string_view answer) {
    const auto values = fieldsOf(answer);
    const AnswerLayout& layout =
        layoutOf(operation, values.size() > CODE_FIELD ? values[CODE_FIELD] : std::string_view());
    const auto names = fieldsOf(layout.fields);
    json result = json::object();
    for (std::size_t i = 0; i < std::min(names.size(), values.size()); ++i)
        result[std::string(names[i])] = tool::toUtf8(values[i]);
    return result;
}

json representationOf(const Document& document) {
    json result = json::object();
    if (!document.answer.empty()) {
        const Operation& operation = *manipulaDados::findOperation(commandOf(document.kind));
        result = namedFields(operation, document.answer);
        result.erase("numeroSessao");
        result.erase("arquivoCFeBase64");
        result["retorno"] = tool::toUtf8(document.answer);
    }
    result["chave"] = document.key;
    result["tipo"] = nameOf(document.kind);
    result["estado"] = nameOf(document.state);
    result["tentativas"] = document.attempts;
    result["recebidaEm"] = timeText(document.receivedAt);
    if (document.till) result["caixa"] = tool::toUtf8(*document.till);
    if (document.session) result["sessao"] = sessionText(*document.session);
    if (document.concludedAt) result["concluidaEm"] = timeText(*document.concludedAt);
    if (!document.accessKey.empty()) result["chaveConsulta"] = document.accessKey;
    if (document.state == State::Booked && document.hasDocument)
        result["documento"] = pathTo(document) + "/documento";
    return result;
}

json representationOf(const LastCall& call) {
    json result{{"operacao", call.operation},
                {"sessao", sessionText(call.session)},
                {"status", call.status},
                {"inicio", timeText(call.began)},
                {"duracaoMs", call.duration.count()}};
    if (!call.code.empty()) result["EEEEE"] = tool::toUtf8(call.code);
    return result;
}

json representationOf(const DeviceState& device, std::size_t queueLength, const std::vector<Alarm>& alarms) {
    json result{{"estado", CONDITION_NAMES.at(static_cast<std::size_t>(device.condition))},
                {"fila", queueLength},
                {"alarmes", json::array()}};
    if (!device.serial.empty()) result["numeroDeSerie"] = tool::toUtf8(device.serial);
    if (!device.lastDocument.empty()) result["ultimoDocumento"] = tool::toUtf8(device.lastDocument);
    if (!device.resolving.empty()) result["resolvendo"] = device.resolving;
    if (device.lastCall) result["ultimaChamada"] = representationOf(*device.lastCall);
    for (const Alarm& alarm : alarms) result["alarmes"].push_back(alarmText(alarm));
    return result;
}

}  // namespace fiscorad::http
