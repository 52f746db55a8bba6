#include "http/submission.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "fields.h"
#include "http/Query.h"
#include "http/problem.h"
#include "rules/AccessKey.h"

namespace fiscorad::http {
namespace {

constexpr std::size_t KEY_CHARACTERS = 128;
constexpr std::chrono::seconds LONGEST_WAIT{120};

bool isKeyCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

std::string_view withoutQuotes(std::string_view text) {
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') return text.substr(1, text.size() - 2);
    return text;
}

/// The seconds of the preference "wait=SECONDS"; none of any other preference.
std::optional<std::chrono::seconds> waitIn(std::string_view preference) {
    const auto parts = fieldsOf(trimmed(preference.substr(0, preference.find(';'))), '=', 2);
    if (parts.size() != 2 || trimmed(parts[0]).size() != 4 ||
        strncasecmp(trimmed(parts[0]).data(), "wait", 4) != 0)
        return std::nullopt;
    const std::string_view digits = withoutQuotes(trimmed(parts[1]));
    const bool number = !digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos;
    if (!number) return std::nullopt;
    int seconds = 0;
    const auto error = std::from_chars(digits.data(), digits.data() + digits.size(), seconds).ec;
    return error == std::errc() ? std::min(std::chrono::seconds(seconds), LONGEST_WAIT) : LONGEST_WAIT;
}

bool isXml(const Request& request) {
    const std::string type = contentTypeOf(request);
    return type == "application/xml" || type == "text/xml";
}

}  // namespace

bool isKey(std::string_view text) {
    return !text.empty() && text.size() <= KEY_CHARACTERS &&
           std::all_of(text.begin(), text.end(), isKeyCharacter) && text != "." && text != "..";
}

std::string keyOf(const Request& request) {
    const auto [first, last] = request.headers.equal_range("idempotency-key");
    if (first == last) throw Rejection(problems::KEY, "Falta o cabeçalho Idempotency-Key.");
    const std::string_view key = withoutQuotes(trimmed(first->second));
    if (std::next(first) != last)
        throw Rejection(problems::KEY, "O cabeçalho Idempotency-Key veio mais de uma vez.");
    if (!isKey(key))
        throw Rejection(problems::KEY,
                        "A chave deve ter de 1 a 128 caracteres entre A-Z, a-z, 0-9, ponto, sublinhado e "
                        "hífen, e não pode ser \".\" nem \"..\".");
    return std::string(key);
}

std::chrono::seconds waitOf(const Request& request, std::chrono::seconds otherwise) {
    const auto [first, last] = request.headers.equal_range("prefer");
    for (auto header = first; header != last; ++header)
        for (const std::string_view preference : fieldsOf(header->second, ','))
            if (const auto wait = waitIn(preference)) return *wait;
    return otherwise;
}

Submission checked(Submission submission, std::size_t maxBytes) {
    if (submission.body.empty()) throw Rejection(problems::BODY, "O documento está vazio.");
    if (submission.body.size() > maxBytes) throw tooLarge(maxBytes);
    if (submission.body.find('\0') != std::string::npos)
        throw Rejection(problems::BODY, "O documento contém um byte zero.");
    if (submission.kind == Kind::Sale) return submission;

    const auto key = AccessKey::parse(submission.saleKey);
    if (!key || key->text() != submission.saleKey)
        throw Rejection(problems::ACCESS_KEY,
                        "A chave de acesso da venda deve ser \"CFe\" e 44 dígitos, com o dígito verificador "
                        "certo.");
    return submission;
}

Submission submissionOf(Request&& request, Kind kind, std::size_t maxBytes) {
    Submission submission;
    submission.key = keyOf(request);
    submission.kind = kind;
    if (!isXml(request))
        throw Rejection(problems::CONTENT_TYPE, "O documento deve vir como application/xml ou text/xml.");
    Query query(request);
    if (kind == Kind::Cancellation) submission.saleKey = query.take("chave").value_or("");
    query.refuseOthers();
    submission.body = std::move(request.body);
    return checked(std::move(submission), maxBytes);
}

}  // namespace fiscorad::http
