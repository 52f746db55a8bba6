#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "../protocol/Message.h"
#include "answer_size.h"
#include "operations.h"

/// Body of the last answer, padded with zeros; every operation returns its address. One more zero byte, which
/// nothing writes, follows. Read it through the pointer that an operation returns: a program that names this
/// symbol may get a copy of its own, without that byte.
extern char g_resp[manipulaDados::ANSWER_MAX_BYTES];

namespace manipulaDados {

/// One argument of an operation.
using Argument = std::variant<int, const char*>;

/// A request's text; none if it cannot be made.
using Request = std::optional<std::string>;

/// The fiscal operations. Each builds a request from its arguments, exchanges it with the device and returns
/// the address of `g_resp`. fiscora.h documents those with a flat function, and what all have in common. The
/// operations and Base64ToAscii throw nothing, since C calls them.
class ManipulaDadosSat {
  public:
    ManipulaDadosSat();
    virtual ~ManipulaDadosSat();

    char* AtivarSAT(int numeroSessao, int subComando, const char* codigoDeAtivacao, const char* cnpj,
                    int cUF);
    char* ComunicarCertificadoICPBRASIL(int numeroSessao, const char* codigoDeAtivacao,
                                        const char* certificado);
    char* EnviarDadosVenda(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda);
    char* CancelarUltimaVenda(int numeroSessao, const char* codigoDeAtivacao, const char* chave,
                              const char* dadosCancelamento);
    char* ConsultarSAT(int numeroSessao);
    char* TesteFimAFim(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda);
    char* ConsultarStatusOperacional(int numeroSessao, const char* codigoDeAtivacao);
    /// The answer to the last fiscal document, whatever its session. Text: 40 bytes. Timeout: 22 s.
    char* ConsultarUltimaSessaoFiscal(int numeroSessao, const char* codigoDeAtivacao);
    /// As ConsultarStatusOperacional, with an MFE's fields. Text: 40 bytes. Timeout: 20 s.
    char* ConsultarStatusOperacionalMFE(int numeroSessao, const char* codigoDeAtivacao);
    char* ConsultarNumeroSessao(int numeroSessao, const char* codigoDeAtivacao, int cNumeroDeSessao);
    char* ConfigurarInterfaceDeRede(int numeroSessao, const char* codigoDeAtivacao,
                                    const char* dadosConfiguracao);
    /// As ConfigurarInterfaceDeRede, for an MFE. Texts: 1063 bytes together. Timeout: 22 s.
    char* ConfigurarInterfaceDeRedeMFE(int numeroSessao, const char* codigoDeAtivacao,
                                       const char* dadosConfiguracao);
    char* AssociarAssinatura(int numeroSessao, const char* codigoDeAtivacao, const char* cnpjValue,
                             const char* assinaturaCNPJs);
    char* AtualizarSoftwareSAT(int numeroSessao, const char* codigoDeAtivacao);
    char* ExtrairLogs(int numeroSessao, const char* codigoDeAtivacao);
    char* BloquearSAT(int numeroSessao, const char* codigoDeAtivacao);
    char* DesbloquearSAT(int numeroSessao, const char* codigoDeAtivacao);
    char* TrocarCodigoDeAtivacao(int numeroSessao, const char* codigoDeAtivacao, int opcao,
                                 const char* novoCodigo, const char* confNovoCodigo);
    /// Restarts an MFE. Text: 40 bytes. Timeout: 17 s.
    char* ReiniciarMFE(int numeroSessao, const char* codigoDeAtivacao);
    /// Tells an MFE the state of the commercial application. Texts: 70 bytes together. Timeout: 7 s.
    char* EnviarStatusAC(int numeroSessao, const char* campoA, const char* campoB, const char* campoC);

    /// Status of the last operation, a FiscoraStatus; 0 before the first.
    int CodigoErro();
    /// The document inside the last answer; see fiscora.h.
    char* Base64ToAscii();
    /// Does nothing: every exchange opens the port and closes it again. Returns 0.
    int AbreSerialSAT(const char* porta);
    /// Does nothing.
    void closePortSerial();

    /// Cuts `text` at its first NUL.
    void cleanEmptyFields(std::string& text);
    /// Replaces the first "<CNPJ/>" by "<CNPJ></CNPJ>", then the first "<CPF/>" by "<CPF></CPF>".
    void replaceTag(std::string& text);
    /// Splits as the free function of this name does, and prints each piece on a line of its own on standard
    /// output.
    std::vector<std::string> split(const std::string& text, char delimiter);

    /// Appends a row with the answer's timing headers and the differences between neighbouring stages to
    /// teste_desempenho.csv in the working directory; a new file gets a heading first. Does nothing if the
    /// file cannot be opened.
    void gravaArquivoDesempenho(pbs::Message& answer);
    /// The same with `text` as the only cell after the time.
    void gravaArquivoDesempenho(std::string text);

    /// The request text of any operation from its arguments, numeroSessao first. None if their number or a
    /// type is not the operation's, a text is null, or the request and its terminating zero do not fit the
    /// operation's buffer: a shortened document or activation code must never reach the device. The buffer is
    /// left zeroed then.
    Request makeRequest(const Operation& operation, const std::vector<Argument>& arguments);
    /// Exchanges a request of `operation` with the device, as each of the operations above does. `answer`, a
    /// fresh message, then holds the answer with its headers, if one was accepted. Without a request nothing
    /// is sent, and the status is FISCORA_STATUS_BAD_REQUEST.
    char* exchange(const Operation& operation, const Request& request, pbs::Message& answer);

  private:
    char* run(const char* command, std::initializer_list<Argument> arguments);
    char* respond(int status, const std::string& body);

    std::string m_lastCommand;  ///< of the last operation, however it ended
    int m_status = 0;
};

}  // namespace manipulaDados

/// The object that the flat functions call.
extern manipulaDados::ManipulaDadosSat objManipulaDadosSat;
