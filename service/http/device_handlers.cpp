#include <utility>

#include "http/handlers.h"
#include "http/openapi.h"
#include "http/problem.h"
#include "http/representation.h"

namespace fiscorad::http {

void showDevice(Context& context, Call& call) {
    Service& service = context.service;
    call.respond(
        jsonResponse(200, representationOf(service.device(), service.queueLength(), service.alarms())));
}

void streamEvents(Context& context, Call& call) {
    Response response;
    response.type = "text/event-stream";
    response.events = context.events.open([&doorkeeper = context.doorkeeper, request = call.request] {
        try {
            return std::holds_alternative<Identity>(doorkeeper.admit(request, Access::Administrator));
        } catch (const JournalError&) {
            return true;  // asked again soon
        }
    });
    call.respond(std::move(response));
}

void showHealth(Context& /*context*/, Call& call) { call.respond(jsonResponse(200, {{"vivo", true}})); }

void showReadiness(Context& context, Call& call) {
    if (context.stopped || !context.service.takesDocuments())
        throw Rejection(problems::NOT_READY, "O serviço está parando, ou o registro não pode ser gravado.");
    call.respond(jsonResponse(200, {{"pronto", true}}));
}

void showMetrics(Context& context, Call& call) {
    Response response;
    response.type = "text/plain; version=0.0.4; charset=utf-8";
    response.body = context.metrics();
    call.respond(std::move(response));
}

void sendDescription(Context& /*context*/, Call& call) {
    Response response;
    response.type = "application/yaml";
    response.body = OPENAPI;
    call.respond(std::move(response));
}

}  // namespace fiscorad::http
