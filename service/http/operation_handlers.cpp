#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "fiscal/operations.h"
#include "fiscora.h"
#include "http/form.h"
#include "http/handlers.h"
#include "http/operation_request.h"
#include "http/problem.h"
#include "http/representation.h"

namespace fiscorad::http {
namespace {

using nlohmann::json;

Response operationResponse(const manipulaDados::Operation& operation, const OperationResult& result) {
    json body{{"status", result.status}, {"sessao", sessionText(result.session)}};
    body["campos"] =
        result.status == FISCORA_STATUS_OK ? namedFields(operation, result.answer) : json::object();
    return jsonResponse(200, body);
}

/// The form API's answer to a document whose waiting has ended. Reads the journal.
Response formOutcomeOf(Service& service, const Document& document) {
    const char* const operation = commandOf(document.kind);
    if (document.state == State::Refused && !document.answer.empty())
        return formResponse(operation, document.answer);
    if (auto failure = failureOf(document)) return std::move(*failure);
    if (document.state != State::Booked)
        throw Rejection(problems::NO_OUTCOME, "O documento " + document.key + " está no estado " +
                                                  std::string(nameOf(document.state)) +
                                                  "; consulte-o ou reenvie com a mesma chave.");
    if (document.documentRemoved)
        throw Rejection(problems::REMOVED,
                        "O documento " + document.accessKey + " foi removido do registro.");
    const auto signedDocument = service.signedDocument(document.id);
    if (document.answer.empty() || !signedDocument)
        throw Rejection(problems::NO_ANSWER, "Uma pessoa confirmou a emissão de " + document.accessKey + ".");
    return formResponse(operation, wholeAnswer(document, *signedDocument));
}

void submitFormDocument(Context& context, const Submission& submission, const Responder& respond) {
    const Document document = accept(context, submission);
    context.waiting.wait(document, context.formWait, [&context, respond](const Document& now) {
        context.workers.postFirst([&context, respond, now] {
            answerOr(context.warn, respond, [&] { respond(formOutcomeOf(context.service, now)); });
        });
    });
}

void operateByForm(Context& context, OperationRequest request, const Responder& respond) {
    const char* const command = request.operation->command;
    context.service.operate(
        std::move(request), [warn = context.warn, respond, command](const OperationResult& result) {
            answerOr(warn, respond, [&] {
                requireDone(result);
                if (result.status != FISCORA_STATUS_OK)
                    throw Rejection(problems::CALL_FAILED, std::string(command) + " terminou com o status " +
                                                               std::to_string(result.status) + ".");
                respond(formResponse(command, result.answer));
            });
        });
}

/// Throws Rejection unless the call's sender may call the operation.
void requirePermission(const Call& call, const manipulaDados::Operation& operation) {
    constexpr std::array<std::string_view, 3> FOR_TILLS{manipulaDados::CMD_CONSULTA_SAT,
                                                        manipulaDados::CMD_CONSULTA_STATUS_OP,
                                                        manipulaDados::CMD_TESTE_FIM_A_FIM};
    const bool forTills = std::find(FOR_TILLS.begin(), FOR_TILLS.end(), operation.command) != FOR_TILLS.end();
    if (call.who.role != Role::Administrator && !forTills)
        throw Rejection(problems::FORBIDDEN, std::string("A operação ") + operation.command +
                                                 " é só para quem administra o serviço.");
}

/// Keeps that an administrator called the operation.
void record(Context& context, const Call& call, const manipulaDados::Operation& operation) {
    if (call.who.role == Role::Administrator)
        context.service.recordAction(call.who.person, "operação", operation.command);
}

}  // namespace

void requireDone(const OperationResult& result) {
    switch (result.result) {
        case OperationResult::Result::Done: return;
        case OperationResult::Result::DocumentOpen:
            throw Rejection(
                problems::DOCUMENT_OPEN,
                "O serviço ainda está apurando o desfecho de um documento. Tente de novo em alguns segundos.");
        case OperationResult::Result::NoDevice:
            throw Rejection(problems::NO_DEVICE,
                            "O equipamento não foi encontrado, ou outro programa o está usando.");
        case OperationResult::Result::CodeRefused:
            throw Rejection(problems::CODE_REFUSED,
                            "O equipamento recusou o código de ativação. Corrija o arquivo do código.");
        case OperationResult::Result::CodeNotKept:
            throw Rejection(problems::CODE_NOT_KEPT,
                            "O código novo não pôde ser gravado no arquivo; nada foi trocado.");
        case OperationResult::Result::Stopping:
            throw Rejection(problems::NOT_READY, "O serviço está parando.");
    }
}

void operate(Context& context, Call& call) {
    const manipulaDados::Operation& operation = operationNamed(call.name);
    requirePermission(call, operation);
    OperationRequest request = operationRequestOf(operation, call.request.body);
    record(context, call, operation);
    context.service.operate(
        std::move(request),
        [warn = context.warn, &operation, respond = std::move(call.respond)](const OperationResult& result) {
            answerOr(warn, respond, [&] {
                requireDone(result);
                respond(operationResponse(operation, result));
            });
        });
}

void submitForm(Context& context, Call& call) {
    auto wanted = formRequestOf(call.name, call.request, context.maxDocumentBytes);
    if (auto* submission = std::get_if<Submission>(&wanted)) {
        if (call.who.till) submission->till = call.who.till;
        return submitFormDocument(context, *submission, call.respond);
    }
    auto& request = std::get<OperationRequest>(wanted);
    requirePermission(call, *request.operation);
    record(context, call, *request.operation);
    operateByForm(context, std::move(request), call.respond);
}

}  // namespace fiscorad::http
