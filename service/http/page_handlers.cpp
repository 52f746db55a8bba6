#include "http/handlers.h"
#include "http/page.h"

namespace fiscorad::http {
namespace {

Response fileResponse(const char* type, std::string_view content) {
    Response response;
    response.type = type;
    response.body = content;
    response.headers.emplace_back("Cache-Control", "no-cache");
    return response;
}

}  // namespace

void sendPage(Context& /*context*/, Call& call) {
    call.respond(fileResponse("text/html; charset=utf-8", PAGE));
}
void sendStyle(Context& /*context*/, Call& call) {
    call.respond(fileResponse("text/css; charset=utf-8", STYLE));
}
void sendScript(Context& /*context*/, Call& call) {
    call.respond(fileResponse("text/javascript; charset=utf-8", SCRIPT));
}
void sendIcon(Context& /*context*/, Call& call) { call.respond(fileResponse("image/svg+xml", ICON)); }

}  // namespace fiscorad::http
