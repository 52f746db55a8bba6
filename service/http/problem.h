#pragma once

#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "http/message.h"

namespace fiscorad::http {

/// A kind of error as tills see it (RFC 9457).
struct Problem {
    int status;
    const char* name;  ///< its type is "/problemas/" and this
    const char* title;
    int retryAfter = 0;  ///< seconds, for the header; 0: none
};

namespace problems {
constexpr Problem MALFORMED{400, "requisicao-invalida", "Requisição inválida"};
constexpr Problem KEY{400, "chave-invalida", "Chave de idempotência ausente ou inválida"};
constexpr Problem ACCESS_KEY{400, "chave-de-acesso-invalida", "Chave de acesso inválida"};
constexpr Problem BODY{400, "corpo-invalido", "Corpo inválido"};
constexpr Problem PARAMETER{400, "parametro-invalido", "Parâmetro inválido"};
constexpr Problem ARGUMENT{400, "argumento-invalido", "Argumento inválido"};
constexpr Problem NOT_SIGNED_IN{401, "nao-autenticado", "Token ausente ou inválido"};
constexpr Problem FORBIDDEN{403, "sem-permissao", "Sem permissão"};
constexpr Problem FORGED{403, "origem-recusada", "Origem recusada"};
constexpr Problem NOT_FOUND{404, "nao-encontrado", "Não encontrado"};
constexpr Problem METHOD{405, "metodo-nao-permitido", "Método não permitido"};
constexpr Problem ALREADY_SENT{409, "ja-enviada", "O documento não está mais na fila"};
constexpr Problem DECIDED{409, "nada-a-decidir", "Não há o que decidir sobre o documento"};
constexpr Problem PRESENT{409, "equipamento-presente", "O equipamento está presente"};
constexpr Problem IS_DOCUMENT{409, "operacao-de-documento", "Esta operação emite um documento"};
constexpr Problem WITHDRAWN{410, "retirada", "Documento retirado"};
constexpr Problem REMOVED{410, "removido", "Documento removido do registro"};
constexpr Problem ABANDONED{410, "abandonada", "Documento abandonado"};
constexpr Problem TOO_LARGE{413, "grande-demais", "Documento grande demais"};
constexpr Problem CONTENT_TYPE{415, "tipo-nao-suportado", "Tipo de conteúdo não suportado"};
constexpr Problem REFUSED{422, "recusada", "Documento recusado"};
constexpr Problem KEY_REUSED{422, "chave-reutilizada", "Chave já usada para outro documento"};
constexpr Problem INTERNAL{500, "erro-interno", "Erro interno"};
constexpr Problem CODE_NOT_KEPT{500, "codigo-nao-gravado", "O código de ativação não pode ser gravado"};
constexpr Problem CALL_FAILED{502, "falha-na-chamada", "A chamada ao equipamento falhou"};
constexpr Problem NO_ANSWER{502, "sem-retorno", "Documento emitido sem retorno do equipamento"};
constexpr Problem QUEUE_FULL{503, "fila-cheia", "Fila cheia", 5};
constexpr Problem NOT_READY{503, "indisponivel", "Sem condições de aceitar documentos", 5};
constexpr Problem OVERLOADED{503, "sobrecarga", "Muitos documentos grandes ao mesmo tempo", 5};
constexpr Problem DOCUMENT_OPEN{503, "documento-em-aberto", "Um documento está sem desfecho", 5};
constexpr Problem NO_DEVICE{503, "sem-equipamento", "Equipamento ausente", 10};
constexpr Problem CODE_REFUSED{503, "codigo-recusado", "Código de ativação recusado", 30};
constexpr Problem NO_OUTCOME{504, "sem-desfecho", "Documento ainda sem desfecho"};
}  // namespace problems

/// `members` is an object whose members are added, or null.
Response problemResponse(const Problem& problem, const std::string& detail, nlohmann::json members = nullptr);

/// A request that is answered with a problem. The detail is Portuguese, for the till's programmer.
class Rejection : public std::exception {
  public:
    Rejection(const Problem& problem, std::string detail) : m_problem(problem), m_detail(std::move(detail)) {}

    const Problem& problem() const { return m_problem; }
    Response response() const { return problemResponse(m_problem, m_detail); }
    const char* what() const noexcept override { return m_detail.c_str(); }

  private:
    Problem m_problem;
    std::string m_detail;
};

}  // namespace fiscorad::http
