#pragma once

#include <cstddef>
#include <string_view>

#include "fiscora.h"

/// Where the three document operations build their requests: a document of an answer's size, and what else
/// the request holds. Each keeps its last request.
extern char g_bufferVenda[FISCORA_ANSWER_MAX_BYTES + 40];
extern char g_bufferCancela[FISCORA_ANSWER_MAX_BYTES + 88];
extern char g_bufferFimAFim[FISCORA_ANSWER_MAX_BYTES + 40];

namespace manipulaDados {

// Each command's name is the name of its operation, and the code of the message that carries it.
inline constexpr char CMD_ATIVAR_SAT[] = "AtivarSAT";
inline constexpr char CMD_COMUNICAR_ICP_BRASIL[] = "ComunicarCertificadoICPBRASIL";
inline constexpr char CMD_ENVIAR_DADOS_VENDA[] = "EnviarDadosVenda";
inline constexpr char CMD_CANCELA_ULTIMA_VENDA[] = "CancelarUltimaVenda";
inline constexpr char CMD_CONSULTA_SAT[] = "ConsultarSAT";
inline constexpr char CMD_TESTE_FIM_A_FIM[] = "TesteFimAFim";
inline constexpr char CMD_CONSULTA_STATUS_OP[] = "ConsultarStatusOperacional";
inline constexpr char CMD_CONSULTA_ULTIMA_SESSAO_FISCAL[] = "ConsultarUltimaSessaoFiscal";
inline constexpr char CMD_CONSULTA_STATUS_OP_MFE[] = "ConsultarStatusOperacionalMFE";
inline constexpr char CMD_CONSULTAR_NUM_SESSAO[] = "ConsultarNumeroSessao";
inline constexpr char CMD_CONFIG_REDE[] = "ConfigurarInterfaceDeRede";
inline constexpr char CMD_CONFIG_REDE_MFE[] = "ConfigurarInterfaceDeRedeMFE";
inline constexpr char CMD_ASSOCIAR_ASSINATURA[] = "AssociarAssinatura";
inline constexpr char CMD_ATUALIZAR_SOFTWARE[] = "AtualizarSoftwareSAT";
inline constexpr char CMD_EXTRAIR_LOG[] = "ExtrairLogs";
inline constexpr char CMD_BLOQUEAR_SAT[] = "BloquearSAT";
inline constexpr char CMD_DESBLOQUEAR_SAT[] = "DesbloquearSAT";
inline constexpr char CMD_TROCA_COD_ATIVACAO[] = "TrocarCodigoDeAtivacao";
inline constexpr char CMD_REINICIAR_MFE[] = "ReiniciarMFE";
inline constexpr char CMD_ENVIAR_STATUS_AC[] = "EnviarStatusAC";

/// What tells one fiscal operation from another.
struct Operation {
    const char* command;
    const char* format;       ///< of the request: a conversion of printf for each argument, "|" between
    int timeoutMs;            ///< of the exchange, from the start of the sending
    std::size_t bufferBytes;  ///< space for the request, its terminating zero included
    char* buffer = nullptr;   ///< that space, where it is not the operation's own
    bool cleansEmptyFields = false;        ///< whether `cleanEmptyFields` runs on the request
    bool replacesTags = false;             ///< whether `replaceTag` does, before it
    static constexpr int NO_DOCUMENT = 0;  ///< field 0 is the session number
    int documentField = NO_DOCUMENT;       ///< which field of the answer holds a document for `Base64ToAscii`
};

inline constexpr char F1[] = "%06d|%01d|%s|%s|%02d";
inline constexpr char F2[] = "%06d|%s|%s";
inline constexpr char F3[] = "%06d|%s|%s|%s";
inline constexpr char F4[] = "%06d";
inline constexpr char F5[] = "%06d|%s";
inline constexpr char F6[] = "%06d|%s|%06d";
inline constexpr char F7[] = "%06d|%s|%01d|%s|%s";

// clang-format off
inline constexpr Operation OPERATIONS[] = {
    {CMD_ATIVAR_SAT,                    F1,  302000,   64},
    {CMD_COMUNICAR_ICP_BRASIL,          F2,  302000, 2096},
    {CMD_ENVIAR_DADOS_VENDA,            F2,   10000, sizeof g_bufferVenda,   g_bufferVenda,   true,  false, 6},
    {CMD_CANCELA_ULTIMA_VENDA,          F3,    7000, sizeof g_bufferCancela, g_bufferCancela, true,  true,  6},
    {CMD_CONSULTA_SAT,                  F4,    6000,   16},
    {CMD_TESTE_FIM_A_FIM,               F2,   22000, sizeof g_bufferFimAFim, g_bufferFimAFim},
    {CMD_CONSULTA_STATUS_OP,            F5,   20000,   48},
    {CMD_CONSULTA_ULTIMA_SESSAO_FISCAL, F5,   22000,   48},
    {CMD_CONSULTA_STATUS_OP_MFE,        F5,   20000,   48},
    {CMD_CONSULTAR_NUM_SESSAO,          F6,   22000,   48},
    {CMD_CONFIG_REDE,                   F2,   22000, 1072},
    {CMD_CONFIG_REDE_MFE,               F2,   22000, 1072},
    {CMD_ASSOCIAR_ASSINATURA,           F3,  900000, 2128},
    {CMD_ATUALIZAR_SOFTWARE,            F5, 1800000,   48},
    {CMD_EXTRAIR_LOG,                   F5,   22000,   48, nullptr, false, false, 5},
    {CMD_BLOQUEAR_SAT,                  F5,  302000,   48},
    {CMD_DESBLOQUEAR_SAT,               F5,   22000,   48},
    {CMD_TROCA_COD_ATIVACAO,            F7,   22000,  112},
    {CMD_REINICIAR_MFE,                 F5,   17000,   48},
    {CMD_ENVIAR_STATUS_AC,              F3,    7000,   80},
};
// clang-format on

/// The operation of that name; null where there is none.
constexpr const Operation* findOperation(std::string_view command) {
    for (const Operation& operation : OPERATIONS)
        if (command == operation.command) return &operation;
    return nullptr;
}

}  // namespace manipulaDados
