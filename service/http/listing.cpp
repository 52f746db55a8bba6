#include "http/listing.h"

#include <charconv>

#include "http/Query.h"
#include "http/problem.h"
#include "http/text.h"
#include "time_text.h"

namespace fiscorad::http {
namespace {

constexpr std::int64_t PAGE_AT_MOST = 1000;

State stateOf(const std::string& text) {
    if (const auto state = stateNamed(text)) return *state;
    throw Rejection(problems::PARAMETER, "O estado \"" + text + "\" não existe.");
}

Span spanOf(const char* name, const std::string& text) {
    if (const auto span = parseTime(text)) return *span;
    throw Rejection(problems::PARAMETER, std::string(name) +
                                             " deve ser um dia (2026-11-23) ou um horário com fuso "
                                             "(2026-11-23T10:00:00-03:00).");
}

std::int64_t numberOf(const char* name, const std::string& text, std::int64_t most) {
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < 1 || number > most)
        throw Rejection(problems::PARAMETER, std::string(name) + " deve ser um número inteiro de 1 a " +
                                                 std::to_string(most) + ".");
    return number;
}

}  // namespace

Filter filterOf(const Request& request, Kind kind) {
    Query query(request);
    Filter filter;
    filter.kind = kind;
    if (const auto text = query.take("estado")) filter.state = stateOf(*text);
    if (const auto text = query.take("desde")) filter.since = spanOf("desde", *text).begin;
    if (const auto text = query.take("ate")) filter.until = spanOf("ate", *text).end;
    filter.till = query.take("caixa");
    filter.named = query.take("busca").value_or("");
    if (const auto text = query.take("depois")) filter.before = numberOf("depois", *text, INT64_MAX);
    if (const auto text = query.take("limite"))
        filter.limit = static_cast<std::size_t>(numberOf("limite", *text, PAGE_AT_MOST));
    query.refuseOthers();
    return filter;
}

}  // namespace fiscorad::http
