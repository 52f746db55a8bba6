#include <nlohmann/json.hpp>
#include <utility>

#include "http/handlers.h"
#include "http/listing.h"
#include "http/problem.h"
#include "http/representation.h"
#include "http/submission.h"

namespace fiscorad::http {
namespace {

using nlohmann::json;

constexpr std::chrono::seconds DEFAULT_WAIT{30};

std::string refusalText(const Document& document, const json& members) {
    if (document.answer.empty()) return "A biblioteca recusou o documento; nada foi enviado ao equipamento.";
    return "O equipamento recusou o documento: " + members.value("EEEEE", "") + " " +
           members.value("mensagem", "") + ".";
}

/// The answer to a submission; `booked` is the status if the document is booked.
Response outcomeOf(const Document& document, int booked) {
    if (auto failure = failureOf(document)) return std::move(*failure);
    Response response =
        jsonResponse(document.state == State::Booked ? booked : 202, representationOf(document));
    response.headers.emplace_back("Location", pathTo(document));
    return response;
}

/// Whether the call's sender may see the document.
bool maySee(const Call& call, const Document& document) {
    return call.who.role == Role::Administrator || isFor(document, call.who.till);
}

Rejection notFound(const std::string& key) {
    return {problems::NOT_FOUND, "Não há documento com a chave " + key + "."};
}

Document existing(Service& service, const Call& call) {
    if (!isKey(call.name)) throw Rejection(problems::KEY, "A chave no caminho é inválida.");
    auto document = service.find(call.name);
    if (!document || document->kind != call.kind || !maySee(call, *document)) throw notFound(call.name);
    return std::move(*document);
}

}  // namespace

Document accept(Context& context, const Submission& submission) {
    if (context.stopped)
        throw Rejection(problems::NOT_READY, "O serviço está parando. Reenvie a mesma chave.");
    Receipt receipt = context.service.submit(submission);
    if (receipt.result == Receipt::Result::KeyReused)
        throw Rejection(problems::KEY_REUSED,
                        "A chave já foi usada com outro conteúdo, em outro tipo de documento ou por outro "
                        "caixa.");
    if (receipt.result == Receipt::Result::QueueFull)
        throw Rejection(problems::QUEUE_FULL, "Há documentos demais na fila. Reenvie a mesma chave.");
    return std::move(receipt.document);
}

std::optional<Response> failureOf(const Document& document) {
    json members = representationOf(document);
    switch (document.state) {
        case State::Refused: {
            const std::string detail = refusalText(document, members);
            return problemResponse(problems::REFUSED, detail, std::move(members));
        }
        case State::Withdrawn:
            return problemResponse(problems::WITHDRAWN, "O documento foi retirado antes do envio.",
                                   std::move(members));
        case State::Abandoned:
            return problemResponse(problems::ABANDONED, "Uma pessoa decidiu abandonar o documento.",
                                   std::move(members));
        default: return std::nullopt;
    }
}

void submit(Context& context, Call& call) {
    const auto limit = waitOf(call.request, DEFAULT_WAIT);
    Submission submission = submissionOf(std::move(call.request), call.kind, context.maxDocumentBytes);
    submission.till = call.who.till;
    const Document document = accept(context, submission);
    // 201 for all who waited for the booking, 200 for those who come later.
    const int booked = document.state == State::Booked ? 200 : 201;
    context.waiting.wait(document, limit, [respond = std::move(call.respond), booked](const Document& now) {
        respond(outcomeOf(now, booked));
    });
}

void show(Context& context, Call& call) {
    const Document document = existing(context.service, call);
    const auto limit = waitOf(call.request, std::chrono::seconds(0));
    context.waiting.wait(document, limit, [respond = std::move(call.respond)](const Document& now) {
        respond(jsonResponse(200, representationOf(now)));
    });
}

void withdraw(Context& context, Call& call) {
    if (!isKey(call.name)) throw Rejection(problems::KEY, "A chave no caminho é inválida.");
    const auto withdrawal = context.service.withdraw(call.name, call.kind, call.who);
    if (!maySee(call, withdrawal.document)) throw notFound(call.name);
    if (!withdrawal.withdrawn)
        return call.respond(problemResponse(problems::ALREADY_SENT,
                                            withdrawal.document.kind == call.kind
                                                ? "Só se retira um documento na fila."
                                                : "A chave é de um documento de outro tipo.",
                                            representationOf(withdrawal.document)));
    if (call.who.role == Role::Administrator && call.who.till)
        context.service.recordAction(call.who.person, "retirada", call.name);
    Response response;
    response.status = 204;
    call.respond(std::move(response));
}

void list(Context& context, Call& call) {
    Filter filter = filterOf(call.request, call.kind);
    if (call.who.role == Role::Till) filter.till = call.who.till;
    const std::size_t pageSize = filter.limit++;  // one more tells whether another page follows
    std::vector<Document> documents = context.service.list(filter);
    json body{{"documentos", json::array()}};
    if (documents.size() > pageSize) {
        documents.resize(pageSize);
        body["depois"] = std::to_string(documents.back().id);
    }
    for (const Document& document : documents) body["documentos"].push_back(representationOf(document));
    call.respond(jsonResponse(200, body));
}

void sendSignedDocument(Context& context, Call& call) {
    const Document document = existing(context.service, call);
    if (document.documentRemoved)
        throw Rejection(problems::REMOVED,
                        "O prazo legal de " + document.accessKey +
                            " passou, e o XML foi removido do registro; ele está nos arquivos "
                            "exportados.");
    if (document.state == State::Booked && !document.hasDocument)
        throw Rejection(problems::NOT_FOUND, "Uma pessoa confirmou a emissão de " + document.accessKey +
                                                 "; o XML não está no registro. Busque-o na SEFAZ.");
    auto xml = context.service.signedDocument(document.id);
    if (!xml) throw Rejection(problems::NOT_FOUND, "O documento ainda não foi emitido.");
    Response response;
    response.type = "application/xml";
    response.body = std::move(*xml);
    call.respond(std::move(response));
}

}  // namespace fiscorad::http
