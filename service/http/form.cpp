#include "http/form.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <random>

#include "encoding/Base64.h"
#include "fields.h"
#include "fiscal/operations.h"
#include "http/Query.h"
#include "http/operation_request.h"
#include "http/problem.h"
#include "http/submission.h"
#include "http/text.h"
#include "terminal_text.h"

namespace fiscorad::http {
namespace {

namespace fiscal = manipulaDados;

constexpr std::size_t TILL_BYTES = 64;

/// A field of the form, and the parameter of the operation that it fills.
struct Field {
    const char* name = nullptr;
    const char* parameter = nullptr;
};
struct Function {
    std::string_view name;
    const char* operation;
    std::array<Field, 3> fields{};
};

// clang-format off
constexpr std::array<Function, 16> FUNCTIONS{{
    {"ativarsat",                     fiscal::CMD_ATIVAR_SAT,                    {{{"tipo_certificado", "subComando"}, {"cnpj", "cnpj"}, {"codigo_uf", "cUF"}}}},
    {"comunicarcertificadoicpbrasil", fiscal::CMD_COMUNICAR_ICP_BRASIL,          {{{"certificado", "certificado"}}}},
    {"enviardadosvenda",              fiscal::CMD_ENVIAR_DADOS_VENDA,            {{{"dados_venda", "dadosVenda"}}}},
    {"cancelarultimavenda",           fiscal::CMD_CANCELA_ULTIMA_VENDA,          {{{"chave_cfe", "chave"}, {"dados_cancelamento", "dadosCancelamento"}}}},
    {"consultarsat",                  fiscal::CMD_CONSULTA_SAT},
    {"testefimafim",                  fiscal::CMD_TESTE_FIM_A_FIM,               {{{"dados_venda", "dadosVenda"}}}},
    {"consultarstatusoperacional",    fiscal::CMD_CONSULTA_STATUS_OP},
    {"consultarultimasessaofiscal",   fiscal::CMD_CONSULTA_ULTIMA_SESSAO_FISCAL},
    {"consultarnumerosessao",         fiscal::CMD_CONSULTAR_NUM_SESSAO,          {{{"numero_sessao", "cNumeroDeSessao"}}}},
    {"configurarinterfacederede",     fiscal::CMD_CONFIG_REDE,                   {{{"configuracao", "dadosConfiguracao"}}}},
    {"associarassinatura",            fiscal::CMD_ASSOCIAR_ASSINATURA,           {{{"sequencia_cnpj", "cnpjValue"}, {"assinatura_ac", "assinaturaCNPJs"}}}},
    {"atualizarsoftwaresat",          fiscal::CMD_ATUALIZAR_SOFTWARE},
    {"extrairlogs",                   fiscal::CMD_EXTRAIR_LOG},
    {"bloquearsat",                   fiscal::CMD_BLOQUEAR_SAT},
    {"desbloquearsat",                fiscal::CMD_DESBLOQUEAR_SAT},
    {"trocarcodigodeativacao",        fiscal::CMD_TROCA_COD_ATIVACAO,            {{{"opcao", "opcao"}, {"novo_codigo_ativacao", "novoCodigo"}, {"novo_codigo_ativacao", "confNovoCodigo"}}}},
}};
// clang-format on

const Function& functionNamed(std::string_view name) {
    const auto* const found = std::find_if(FUNCTIONS.begin(), FUNCTIONS.end(),
                                           [&](const Function& function) { return function.name == name; });
    if (found == FUNCTIONS.end())
        throw Rejection(problems::NOT_FOUND, "A função " + std::string(name) + " não existe.");
    return *found;
}

std::string take(const NamedValues& form, std::string_view name) {
    const auto found =
        std::find_if(form.begin(), form.end(), [&](const auto& field) { return field.first == name; });
    if (found == form.end()) throw Rejection(problems::ARGUMENT, "Falta o campo " + std::string(name) + ".");
    return found->second;
}

std::string randomKey() {
    std::random_device random;
    std::string key = "hub-";
    constexpr std::string_view DIGITS = "0123456789abcdef";
    for (int i = 0; i < 32; ++i) key += DIGITS[random() % DIGITS.size()];
    return key;
}

Submission submissionIn(std::map<std::string, std::string>& arguments, const Request& request, Kind kind) {
    Submission submission;
    submission.kind = kind;
    submission.key = request.headers.count("idempotency-key") == 0 ? randomKey() : keyOf(request);
    if (kind == Kind::Sale) {
        submission.body = std::move(arguments["dadosVenda"]);
    } else {
        submission.body = std::move(arguments["dadosCancelamento"]);
        submission.saleKey = std::move(arguments["chave"]);
    }
    return submission;
}

}  // namespace

std::variant<Submission, OperationRequest> formRequestOf(std::string_view name, const Request& request,
                                                         std::size_t maxBytes) {
    const Function& function = functionNamed(name);
    if (contentTypeOf(request) != "application/x-www-form-urlencoded")
        throw Rejection(problems::CONTENT_TYPE,
                        "Os campos devem vir como application/x-www-form-urlencoded.");
    const auto form = formValues(request.body);
    if (!form) throw Rejection(problems::BODY, "Há um \"%\" sem dois dígitos hexadecimais.");

    const std::string till = take(*form, "numero_caixa");
    if (till.empty() || till.size() > TILL_BYTES)
        throw Rejection(problems::ARGUMENT,
                        "O campo numero_caixa deve ter de 1 a " + std::to_string(TILL_BYTES) + " bytes.");
    OperationRequest operation{fiscal::findOperation(function.operation), {}};
    for (const Field& field : function.fields)
        if (field.name != nullptr) operation.arguments[field.parameter] = take(*form, field.name);
    if (usesEmergencyCode(operation)) operation.arguments[EMERGENCY_CODE] = take(*form, "codigo_emergencia");

    if (operation.operation->effect != fiscal::Effect::Books) {
        check(operation);
        return operation;
    }
    const Kind kind = function.operation == std::string_view(fiscal::CMD_ENVIAR_DADOS_VENDA)
                          ? Kind::Sale
                          : Kind::Cancellation;
    Submission submission = submissionIn(operation.arguments, request, kind);
    submission.till = till;
    return checked(std::move(submission), maxBytes);
}

Response formResponse(const char* operation, std::string_view answer) {
    Response response;
    response.body = nlohmann::json{{"funcao", operation}, {"retorno", tool::toUtf8(answer)}}.dump();
    return response;
}

std::string wholeAnswer(const Document& document, const std::string& signedDocument) {
    const std::size_t place = fiscal::findOperation(commandOf(document.kind))->answer.documentField;
    const auto fields = fieldsOf(document.answer);
    std::string whole;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) whole += '|';
        if (i == place && fields[i].empty())
            whole += Base64::encode(reinterpret_cast<const unsigned char*>(signedDocument.data()),
                                    static_cast<std::uint32_t>(signedDocument.size()));
        else
            whole += fields[i];
    }
    return whole;
}

}  // namespace fiscorad::http
