#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "answer_size.h"

/// Where the three document operations build their requests: a document of an answer's size, and what else
/// the request holds. Each keeps its last request.
extern char g_bufferVenda[manipulaDados::ANSWER_MAX_BYTES + 40];
extern char g_bufferCancela[manipulaDados::ANSWER_MAX_BYTES + 88];
extern char g_bufferFimAFim[manipulaDados::ANSWER_MAX_BYTES + 40];

namespace manipulaDados {

// Each command's name is the name of its operation, and the code of the message that carries it.
constexpr char CMD_ATIVAR_SAT[] = "AtivarSAT";
constexpr char CMD_COMUNICAR_ICP_BRASIL[] = "ComunicarCertificadoICPBRASIL";
constexpr char CMD_ENVIAR_DADOS_VENDA[] = "EnviarDadosVenda";
constexpr char CMD_CANCELA_ULTIMA_VENDA[] = "CancelarUltimaVenda";
constexpr char CMD_CONSULTA_SAT[] = "ConsultarSAT";
constexpr char CMD_TESTE_FIM_A_FIM[] = "TesteFimAFim";
constexpr char CMD_CONSULTA_STATUS_OP[] = "ConsultarStatusOperacional";
constexpr char CMD_CONSULTA_ULTIMA_SESSAO_FISCAL[] = "ConsultarUltimaSessaoFiscal";
constexpr char CMD_CONSULTA_STATUS_OP_MFE[] = "ConsultarStatusOperacionalMFE";
constexpr char CMD_CONSULTAR_NUM_SESSAO[] = "ConsultarNumeroSessao";
constexpr char CMD_CONFIG_REDE[] = "ConfigurarInterfaceDeRede";
constexpr char CMD_CONFIG_REDE_MFE[] = "ConfigurarInterfaceDeRedeMFE";
constexpr char CMD_ASSOCIAR_ASSINATURA[] = "AssociarAssinatura";
constexpr char CMD_ATUALIZAR_SOFTWARE[] = "AtualizarSoftwareSAT";
constexpr char CMD_EXTRAIR_LOG[] = "ExtrairLogs";
constexpr char CMD_BLOQUEAR_SAT[] = "BloquearSAT";
constexpr char CMD_DESBLOQUEAR_SAT[] = "DesbloquearSAT";
constexpr char CMD_TROCA_COD_ATIVACAO[] = "TrocarCodigoDeAtivacao";
constexpr char CMD_REINICIAR_MFE[] = "ReiniciarMFE";
constexpr char CMD_ENVIAR_STATUS_AC[] = "EnviarStatusAC";

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

/// All of them, in the order of the class.
extern const std::array<Operation, 20> OPERATIONS;

/// The operation of that name; null where there is none.
const Operation* findOperation(std::string_view command);

}  // namespace manipulaDados
