#include "http/operation_request.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "fiscal/operations.h"
#include "http/problem.h"

namespace fiscorad::http {
namespace {

using manipulaDados::Operation;
using manipulaDados::Parameter;
using nlohmann::json;
using ParameterKind = manipulaDados::Kind;

constexpr int SESSION_AT_MOST = 999999;
constexpr int NUMBER_AT_MOST = 65535;

/// Whether the service adds it itself.
bool isOwn(const Parameter& parameter, const OperationRequest& request) {
    const std::string_view name = parameter.name;
    return name == "numeroSessao" || (name == "codigoDeAtivacao" && !usesEmergencyCode(request));
}

void checkNumber(const Parameter& parameter, const std::string& text) {
    const int most = parameter.kind == ParameterKind::SessionNumber ? SESSION_AT_MOST : NUMBER_AT_MOST;
    int number = -1;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < 0 || number > most)
        throw Rejection(
            problems::ARGUMENT,
            std::string(parameter.name) + " deve ser um número inteiro de 0 a " + std::to_string(most) + ".");
}

void checkText(const Parameter& parameter, const std::string& text) {
    if (text.find('\0') != std::string::npos)
        throw Rejection(problems::ARGUMENT, std::string(parameter.name) + "  contém um byte zero.");
}

std::string argumentText(const std::string& name, const json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number_integer()) return value.dump();
    throw Rejection(problems::ARGUMENT, name + " deve ser um texto ou um número inteiro.");
}

}  // namespace

const Operation& operationNamed(std::string_view name) {
    const Operation* const operation = manipulaDados::findOperation(name);
    if (operation == nullptr)
        throw Rejection(problems::NOT_FOUND, "A operação " + std::string(name) + " não existe.");
    if (operation->effect == manipulaDados::Effect::Books)
        throw Rejection(problems::IS_DOCUMENT,
                        "Envie vendas a /v1/vendas e cancelamentos a /v1/cancelamentos.");
    return *operation;
}

OperationRequest operationRequestOf(const Operation& operation, const std::string& body) {
    OperationRequest request{&operation, {}};
    const json content = body.empty() ? json::object() : json::parse(body, nullptr, false);
    if (!content.is_object()) throw Rejection(problems::BODY, "O corpo não é um objeto JSON em UTF-8.");
    for (const auto& [member, value] : content.items()) {
        if (member != "argumentos") throw Rejection(problems::BODY, "Membro desconhecido: " + member + ".");
        if (!value.is_object()) throw Rejection(problems::BODY, "argumentos deve ser um objeto.");
        for (const auto& [name, argument] : value.items())
            request.arguments[name] = argumentText(name, argument);
    }
    check(request);
    return request;
}

void check(const OperationRequest& request) {
    const auto& parameters = request.operation->parameters;
    for (const auto& [name, text] : request.arguments) {
        const auto* const found = std::find_if(parameters.begin(), parameters.end(),
                                               [&name = name](const Parameter& p) { return name == p.name; });
        if (found == parameters.end() || isOwn(*found, request))
            throw Rejection(problems::ARGUMENT,
                            std::string(request.operation->command) + " não tem o argumento " + name + ".");
        if (isNumber(found->kind))
            checkNumber(*found, text);
        else
            checkText(*found, text);
    }
    for (const Parameter& parameter : parameters)
        if (!isOwn(parameter, request) && request.arguments.count(parameter.name) == 0)
            throw Rejection(problems::ARGUMENT, std::string("Falta o argumento ") + parameter.name + ".");
}

}  // namespace fiscorad::http
