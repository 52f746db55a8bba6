#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "answer_size.h"

/// The three document operations build their requests here: room for a document as long as an answer, and for
/// the other fields. Each buffer keeps its last request.
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

/// What an argument is. It decides the argument's form in the request.
enum class Kind {
    SessionNumber,   ///< 0 to 999999; six digits in the request
    Number,          ///< 0 to 65535; as many digits as it needs
    TwoDigitNumber,  ///< 0 to 65535; at least two digits
    Text,
    ActivationCode,  ///< a text of one line, and a secret
    Document,        ///< a text that applications usually read from a file
};

/// Whether an argument of that kind is an `int`; else it is a text.
constexpr bool isNumber(Kind kind) {
    return kind == Kind::SessionNumber || kind == Kind::Number || kind == Kind::TwoDigitNumber;
}

/// One argument of an operation.
struct Parameter {
    const char* name = "";
    Kind kind = Kind::Text;
};

/// The arguments of an operation in order, numeroSessao first.
class Parameters {
  public:
    static constexpr std::size_t MOST = 5;

    /// `others` are those after numeroSessao.
    template <typename... Others>
    constexpr Parameters(const Others&... others)
        : m_all{{{"numeroSessao", Kind::SessionNumber}, others...}}, m_size(1 + sizeof...(others)) {
        static_assert(sizeof...(others) < MOST);
    }

    constexpr std::size_t size() const { return m_size; }
    constexpr const Parameter& operator[](std::size_t index) const { return m_all[index]; }
    constexpr const Parameter* begin() const { return m_all.data(); }
    constexpr const Parameter* end() const { return m_all.data() + m_size; }

  private:
    std::array<Parameter, MOST> m_all;
    std::size_t m_size;
};

/// Space for a request and its terminating zero.
struct RequestBuffer {
    constexpr RequestBuffer(std::size_t size) : bytes(size) {}
    template <std::size_t SIZE>
    constexpr RequestBuffer(char (&array)[SIZE]) : bytes(SIZE), shared(array) {}

    std::size_t bytes;
    char* shared = nullptr;  ///< one of the buffers above; null if each call makes its own
};

/// How a request's text is changed before it is sent.
enum class Cleaning { None, EmptyFields, TagsAndEmptyFields };

/// What an operation does to the device: only asks it, changes it, or has it issue a fiscal document.
enum class Effect { Asks, Changes, Books };

/// The fields of an answer, numeroSessao and EEEEE first.
struct AnswerLayout {
    static constexpr std::size_t NO_FIELD = 0;  ///< field 0 is the session number

    const char* fields;  ///< their names, "|" between them; null if an earlier answer comes again
    std::size_t documentField = NO_FIELD;  ///< the one that holds a document in Base64
    std::size_t decodedField = NO_FIELD;   ///< the one that Base64ToAscii decodes
};

/// What tells one fiscal operation from another. The class, the command `fiscora`, the simulated device and
/// the documents all go by this. Codes and names of fields are those of the tax authority's "Especificação
/// de Requisitos do SAT-CF-e".
struct Operation {
    const char* command;
    const char* codePrefix;  ///< the first two of the five digits of its codes EEEEE
    int timeoutMs;           ///< of the exchange, from the start of the sending
    RequestBuffer buffer;
    Parameters parameters;
    Effect effect;
    AnswerLayout answer;
    Cleaning cleaning = Cleaning::None;

    /// Whether an answer with the code `EEEEE` says that the operation was done.
    bool succeededWith(std::string_view code) const {
        return code.size() == 5 && code.substr(2) == "000" &&
               (answer.fields == nullptr || code.substr(0, 2) == codePrefix);
    }
    /// EEEEE of success; empty if it is that of an earlier answer.
    std::string successCode() const {
        return answer.fields == nullptr ? "" : codePrefix + std::string("000");
    }
};

/// All operations, in the order of ManipulaDadosSat.
extern const std::array<Operation, 20> OPERATIONS;

/// The operation of that name; null if there is none.
const Operation* findOperation(std::string_view command);

/// The layout of an answer to `operation` with the code `EEEEE`. An earlier answer that comes again shows by
/// its code which operation it belongs to.
__attribute__((visibility("hidden"))) inline const AnswerLayout& layoutOf(const Operation& operation,
                                                                          std::string_view code) {
    if (operation.answer.fields != nullptr) return operation.answer;
    for (const Operation& other : OPERATIONS)
        if (other.answer.fields != nullptr && code.substr(0, 2) == other.codePrefix) return other.answer;
    return findOperation(CMD_CONSULTA_SAT)->answer;
}

}  // namespace manipulaDados
