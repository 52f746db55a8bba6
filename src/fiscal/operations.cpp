#include "fiscal/operations.h"

#include <algorithm>

namespace manipulaDados {

namespace {

constexpr char F1[] = "%06d|%01d|%s|%s|%02d";
constexpr char F2[] = "%06d|%s|%s";
constexpr char F3[] = "%06d|%s|%s|%s";
constexpr char F4[] = "%06d";
constexpr char F5[] = "%06d|%s";
constexpr char F6[] = "%06d|%s|%06d";
constexpr char F7[] = "%06d|%s|%01d|%s|%s";

}  // namespace

// clang-format off
constexpr std::array<Operation, 20> OPERATIONS = {{
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
}};
// clang-format on

const Operation* findOperation(std::string_view command) {
    const auto found = std::find_if(OPERATIONS.begin(), OPERATIONS.end(),
                                    [&](const Operation& operation) { return command == operation.command; });
    return found == OPERATIONS.end() ? nullptr : &*found;
}

}  // namespace manipulaDados
