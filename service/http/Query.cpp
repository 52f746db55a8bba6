#include "http/Query.h"

#include <algorithm>
#include <cctype>

namespace fiscorad::http {

Query::Query(const Request& request) {
    const auto mark = request.target.find('?');
    if (mark == std::string::npos) return;
    auto values = formValues(std::string_view(request.target).substr(mark + 1));
    if (!values) throw Rejection(problems::PARAMETER, "Há um \"%\" sem dois dígitos hexadecimais.");
    m_left = std::move(*values);
}

std::optional<std::string> Query::take(std::string_view name) {
    const auto isIt = [&](const auto& parameter) { return parameter.first == name; };
    const auto found = std::find_if(m_left.begin(), m_left.end(), isIt);
    if (found == m_left.end()) return std::nullopt;
    std::string value = std::move(found->second);
    m_left.erase(found);
    if (std::any_of(m_left.begin(), m_left.end(), isIt))
        throw Rejection(problems::PARAMETER, "O parâmetro " + std::string(name) + " veio mais de uma vez.");
    return value;
}

void Query::refuseOthers() const {
    if (!m_left.empty())
        throw Rejection(problems::PARAMETER, "Parâmetro desconhecido: " + m_left.front().first + ".");
}

std::string_view pathOf(const Request& request) {
    return std::string_view(request.target).substr(0, request.target.find('?'));
}

std::string contentTypeOf(const Request& request) {
    const auto header = request.headers.find("content-type");
    if (header == request.headers.end()) return "";
    std::string type(trimmed(std::string_view(header->second).substr(0, header->second.find(';'))));
    for (char& c : type) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return type;
}

std::string_view trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

Rejection tooLarge(std::size_t maxBytes) {
    return {problems::TOO_LARGE, "O documento pode ter até " + std::to_string(maxBytes) + " bytes."};
}

Rejection bodyTooLarge(std::size_t maxBytes) {
    return {problems::TOO_LARGE, "O corpo da requisição passa de " + std::to_string(maxBytes) + " bytes."};
}

}  // namespace fiscorad::http
