#include "fiscal/operations.h"

#include <algorithm>

namespace manipulaDados {

namespace {

constexpr Parameter SUBCOMMAND{"subComando", Kind::Number};
constexpr Parameter CODE{"codigoDeAtivacao", Kind::ActivationCode};
constexpr Parameter TAXPAYER{"cnpj", Kind::Text};
constexpr Parameter STATE{"cUF", Kind::TwoDigitNumber};
constexpr Parameter CERTIFICATE{"certificado", Kind::Document};
constexpr Parameter SALE{"dadosVenda", Kind::Document};
constexpr Parameter KEY{"chave", Kind::Text};
constexpr Parameter CANCELLATION{"dadosCancelamento", Kind::Document};
constexpr Parameter EARLIER_SESSION{"cNumeroDeSessao", Kind::SessionNumber};
constexpr Parameter CONFIGURATION{"dadosConfiguracao", Kind::Document};
constexpr Parameter TAXPAYERS{"cnpjValue", Kind::Text};
constexpr Parameter SIGNATURE{"assinaturaCNPJs", Kind::Text};
constexpr Parameter OPTION{"opcao", Kind::Number};
constexpr Parameter NEW_CODE{"novoCodigo", Kind::ActivationCode};
constexpr Parameter NEW_CODE_AGAIN{"confNovoCodigo", Kind::ActivationCode};
constexpr Parameter FIELD_A{"campoA", Kind::Text};
constexpr Parameter FIELD_B{"campoB", Kind::Text};
constexpr Parameter FIELD_C{"campoC", Kind::Text};

constexpr AnswerLayout PLAIN{"numeroSessao|EEEEE|mensagem|cod|mensagemSEFAZ"};
constexpr AnswerLayout ACTIVATION{"numeroSessao|EEEEE|mensagem|cod|mensagemSEFAZ|CSR"};
constexpr AnswerLayout SIGNED_DOCUMENT{
    "numeroSessao|EEEEE|CCCC|mensagem|cod|mensagemSEFAZ|arquivoCFeBase64|timeStamp|chaveConsulta|"
    "valorTotalCFe|CPFCNPJValue|assinaturaQRCODE",
    6, 6};
constexpr AnswerLayout TEST_DOCUMENT{
    "numeroSessao|EEEEE|mensagem|cod|mensagemSEFAZ|arquivoCFeBase64|timeStamp|numDocFiscal|chaveConsulta", 5};
constexpr AnswerLayout DEVICE_LOG{"numeroSessao|EEEEE|mensagem|cod|mensagemSEFAZ|logBase64", 5, 5};
constexpr AnswerLayout DEVICE_STATUS{
    "numeroSessao|EEEEE|mensagem|cod|mensagemSEFAZ|NSERIE|TIPO_LAN|LAN_IP|LAN_MAC|LAN_MASK|LAN_GW|LAN_DNS_1|"
    "LAN_DNS_2|STATUS_LAN|NIVEL_BATERIA|MT_TOTAL|MT_USADA|DH_ATUAL|VER_SB|VER_LAYOUT|ULTIMO_CF_E_SAT|"
    "LISTA_INICIAL|LISTA_FINAL|DH_CFE|DH_ULTIMA|CERT_EMISSAO|CERT_VENCIMENTO|ESTADO_OPERACAO"};
constexpr AnswerLayout EARLIER_ANSWER{nullptr};

constexpr Effect ASKS = Effect::Asks;
constexpr Effect CHANGES = Effect::Changes;
constexpr Effect BOOKS = Effect::Books;

}  // namespace

// clang-format off
constexpr std::array<Operation, 20> OPERATIONS = {{
//   command                            EEEEE  time ms  buffer           arguments after numeroSessao              effect   answer           cleaning
    {CMD_ATIVAR_SAT,                    "04",   302000,   64,            {SUBCOMMAND, CODE, TAXPAYER, STATE},      CHANGES, ACTIVATION},
    {CMD_COMUNICAR_ICP_BRASIL,          "05",   302000, 2096,            {CODE, CERTIFICATE},                      CHANGES, PLAIN},
    {CMD_ENVIAR_DADOS_VENDA,            "06",    10000, g_bufferVenda,   {CODE, SALE},                             BOOKS,   SIGNED_DOCUMENT, Cleaning::EmptyFields},
    {CMD_CANCELA_ULTIMA_VENDA,          "07",     7000, g_bufferCancela, {CODE, KEY, CANCELLATION},                BOOKS,   SIGNED_DOCUMENT, Cleaning::TagsAndEmptyFields},
    {CMD_CONSULTA_SAT,                  "08",     6000,   16,            {},                                       ASKS,    PLAIN},
    {CMD_TESTE_FIM_A_FIM,               "09",    22000, g_bufferFimAFim, {CODE, SALE},                             ASKS,    TEST_DOCUMENT},
    {CMD_CONSULTA_STATUS_OP,            "10",    20000,   48,            {CODE},                                   ASKS,    DEVICE_STATUS},
    {CMD_CONSULTA_ULTIMA_SESSAO_FISCAL, "19",    22000,   48,            {CODE},                                   ASKS,    EARLIER_ANSWER},
    {CMD_CONSULTA_STATUS_OP_MFE,        "10",    20000,   48,            {CODE},                                   ASKS,    DEVICE_STATUS},
    {CMD_CONSULTAR_NUM_SESSAO,          "11",    22000,   48,            {CODE, EARLIER_SESSION},                  ASKS,    EARLIER_ANSWER},
    {CMD_CONFIG_REDE,                   "12",    22000, 1072,            {CODE, CONFIGURATION},                    CHANGES, PLAIN},
    {CMD_CONFIG_REDE_MFE,               "12",    22000, 1072,            {CODE, CONFIGURATION},                    CHANGES, PLAIN},
    {CMD_ASSOCIAR_ASSINATURA,           "13",   900000, 2128,            {CODE, TAXPAYERS, SIGNATURE},             CHANGES, PLAIN},
    {CMD_ATUALIZAR_SOFTWARE,            "14",  1800000,   48,            {CODE},                                   CHANGES, PLAIN},
    {CMD_EXTRAIR_LOG,                   "15",    22000,   48,            {CODE},                                   ASKS,    DEVICE_LOG},
    {CMD_BLOQUEAR_SAT,                  "16",   302000,   48,            {CODE},                                   CHANGES, PLAIN},
    {CMD_DESBLOQUEAR_SAT,               "17",    22000,   48,            {CODE},                                   CHANGES, PLAIN},
    {CMD_TROCA_COD_ATIVACAO,            "18",    22000,  112,            {CODE, OPTION, NEW_CODE, NEW_CODE_AGAIN}, CHANGES, PLAIN},
    {CMD_REINICIAR_MFE,                 "20",    17000,   48,            {CODE},                                   CHANGES, PLAIN},
    {CMD_ENVIAR_STATUS_AC,              "21",     7000,   80,            {FIELD_A, FIELD_B, FIELD_C},              CHANGES, PLAIN},
}};
// clang-format on

const Operation* findOperation(std::string_view command) {
    const auto found = std::find_if(OPERATIONS.begin(), OPERATIONS.end(),
                                    [&](const Operation& operation) { return command == operation.command; });
    return found == OPERATIONS.end() ? nullptr : &*found;
}

}  // namespace manipulaDados
