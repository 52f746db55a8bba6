#include "fiscal/UCManipulaDadosSat.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string_view>

#include "encoding/Base64.h"
#include "file_probe.h"
#include "fiscora.h"
#include "local_time.h"
#include "protocol/Message.h"
#include "protocol/pbs.h"
#include "quiet_writes.h"
#include "transaction/DoTransaction.h"

// In assembly, because the zero byte after the buffer must not count in the symbol's size: it terminates an
// answer that fills the buffer. An alias of a longer array with a .size directive works in most builds, but
// with gcc's link-time optimisation the directive can land in another partition, and the size is wrong.
asm(R"(
    .pushsection .bss
    .balign 64
    .globl g_resp
    .type g_resp, STT_OBJECT
    .size g_resp, 1572864
g_resp:
    .zero 1572864 + 1
    .popsection
)");
static_assert(sizeof g_resp == 1572864 && sizeof g_resp == FISCORA_ANSWER_MAX_BYTES);

char g_bufferVenda[manipulaDados::ANSWER_MAX_BYTES + 40];
char g_bufferCancela[manipulaDados::ANSWER_MAX_BYTES + 88];
char g_bufferFimAFim[manipulaDados::ANSWER_MAX_BYTES + 40];

namespace manipulaDados {

namespace {

void replaceFirst(std::string& text, std::string_view wanted, std::string_view replacement) {
    const auto position = text.find(wanted);
    if (position != std::string::npos) text.replace(position, wanted.size(), replacement);
}

/// A header that tells when an answer passed a stage, and the record's column for the step to the next stage.
/// From the outermost stage to the innermost.
struct Stage {
    const char* header;
    const char* step;  ///< null for the innermost
};
constexpr Stage STAGES[] = {
    {"DELTA_DRS", "PROC_DRS"},          {"DELTA_DRS_CCO", "TRANS_DRS_CCO"}, {"DELTA_CCO", "PROC_CCO"},
    {"DELTA_CSE_COM", "TRANS_CCO_CSE"}, {"DELTA_CSE", "PROC_CSE"},          {"DELTA_SWB", nullptr},
};

/// Appends a row to the performance record, starting with the time; a new file gets its heading first. Does
/// nothing if the file cannot be opened.
void appendToPerformanceRecord(const std::vector<std::string>& columns, const std::string& cells) {
    constexpr char NAME[] = "teste_desempenho.csv";
    const bool isNew = !opensForUpdate(NAME);
    const QuietWrites guard;
    std::ofstream file(NAME, std::ios::app);
    if (isNew) {
        for (const auto& column : columns) file << '"' << column << "\";";
        file << std::endl;
    }
    file << localTimeText("%Y/%d/%m/%H:%M:%S") << ';' << cells << std::endl;
}

/// How printf writes an argument into a request.
constexpr const char* conversionOf(Kind kind) {
    switch (kind) {
        case Kind::SessionNumber: return "%06d";
        case Kind::Number: return "%01d";
        case Kind::TwoDigitNumber: return "%02d";
        default: return "%s";
    }
}

/// Writes `arguments` into `buffer`, of the operation's size. The length of the request without its
/// terminating zero; none if `makeRequest` refuses it, which may leave a part of it in `buffer`.
std::optional<std::size_t> writeRequest(const std::vector<Argument>& arguments, const Operation& operation,
                                        char* buffer) {
    if (arguments.size() != operation.parameters.size()) return std::nullopt;
    std::size_t used = 0;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const Argument& argument = arguments[i];
        const Kind kind = operation.parameters[i].kind;
        if (argument == Argument(nullptr) || std::holds_alternative<int>(argument) != isNumber(kind))
            return std::nullopt;
        const std::string format = (i == 0 ? "" : "|") + std::string(conversionOf(kind));
        const std::size_t left = operation.buffer.bytes - used;
        const int length = std::visit(
            [&](auto value) { return std::snprintf(buffer + used, left, format.c_str(), value); }, argument);
        if (length < 0 || static_cast<std::size_t>(length) >= left) return std::nullopt;
        used += static_cast<std::size_t>(length);
    }
    return used;
}

/// `a` minus `b` in 32 bits, wrapping around.
std::int32_t difference(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}

}  // namespace

ManipulaDadosSat::ManipulaDadosSat() = default;
ManipulaDadosSat::~ManipulaDadosSat() = default;

char* ManipulaDadosSat::AtivarSAT(int numeroSessao, int subComando, const char* codigoDeAtivacao,
                                  const char* cnpj, int cUF) {
    return run(CMD_ATIVAR_SAT, {numeroSessao, subComando, codigoDeAtivacao, cnpj, cUF});
}

char* ManipulaDadosSat::ComunicarCertificadoICPBRASIL(int numeroSessao, const char* codigoDeAtivacao,
                                                      const char* certificado) {
    return run(CMD_COMUNICAR_ICP_BRASIL, {numeroSessao, codigoDeAtivacao, certificado});
}

char* ManipulaDadosSat::EnviarDadosVenda(int numeroSessao, const char* codigoDeAtivacao,
                                         const char* dadosVenda) {
    return run(CMD_ENVIAR_DADOS_VENDA, {numeroSessao, codigoDeAtivacao, dadosVenda});
}

char* ManipulaDadosSat::CancelarUltimaVenda(int numeroSessao, const char* codigoDeAtivacao, const char* chave,
                                            const char* dadosCancelamento) {
    return run(CMD_CANCELA_ULTIMA_VENDA, {numeroSessao, codigoDeAtivacao, chave, dadosCancelamento});
}

char* ManipulaDadosSat::ConsultarSAT(int numeroSessao) { return run(CMD_CONSULTA_SAT, {numeroSessao}); }

char* ManipulaDadosSat::TesteFimAFim(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda) {
    return run(CMD_TESTE_FIM_A_FIM, {numeroSessao, codigoDeAtivacao, dadosVenda});
}

char* ManipulaDadosSat::ConsultarStatusOperacional(int numeroSessao, const char* codigoDeAtivacao) {
    return run(CMD_CONSULTA_STATUS_OP, {numeroSessao, codigoDeAtivacao});
}

char* ManipulaDadosSat::ConsultarUltimaSessaoFiscal(int numeroSessao, const char* codigoDeAtivacao) {
    return run(CMD_CONSULTA_ULTIMA_SESSAO_FISCAL, {numeroSessao, codigoDeAtivacao});
}

char* ManipulaDadosSat::ConsultarStatusOperacionalMFE(int numeroSessao, const char* codigoDeAtivacao) {
    return run(CMD_CONSULTA_STATUS_OP_MFE, {numeroSessao, codigoDeAtivacao});
}

char* ManipulaDadosSat::ConsultarNumeroSessao(int numeroSessao, const char* codigoDeAtivacao,
                                              int cNumeroDeSessao) {
    return run(CMD_CONSULTAR_NUM_SESSAO, {numeroSessao, codigoDeAtivacao, cNumeroDeSessao});
}

char* ManipulaDadosSat::ConfigurarInterfaceDeRede(int numeroSessao, const char* codigoDeAtivacao,
                                                  const char* dadosConfiguracao) {
    return run(CMD_CONFIG_REDE, {numeroSessao, codigoDeAtivacao, dadosConfiguracao});
}

char* ManipulaDadosSat::ConfigurarInterfaceDeRedeMFE(int numeroSessao, const char* codigoDeAtivacao,
                                                     const char* dadosConfiguracao) {
    return run(CMD_CONFIG_REDE_MFE, {numeroSessao, codigoDeAtivacao, dadosConfiguracao});
}

char* ManipulaDadosSat::AssociarAssinatura(int numeroSessao, const char* codigoDeAtivacao,
                                           const char* cnpjValue, const char* assinaturaCNPJs) {
    return run(CMD_ASSOCIAR_ASSINATURA, {numeroSessao, codigoDeAtivacao, cnpjValue, assinaturaCNPJs});
}

char* ManipulaDadosSat::AtualizarSoftwareSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return run(CMD_ATUALIZAR_SOFTWARE, {numeroSessao, codigoDeAtivacao});
}

char* ManipulaDadosSat::ExtrairLogs(int numeroSessao, const char* codigoDeAtivacao) {
    return run(CMD_EXTRAIR_LOG, {numeroSessao, codigoDeAtivacao});
}

char* ManipulaDadosSat::BloquearSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return run(CMD_BLOQUEAR_SAT, {numeroSessao, codigoDeAtivacao});
}

char* ManipulaDadosSat::DesbloquearSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return run(CMD_DESBLOQUEAR_SAT, {numeroSessao, codigoDeAtivacao});
}

char* ManipulaDadosSat::TrocarCodigoDeAtivacao(int numeroSessao, const char* codigoDeAtivacao, int opcao,
                                               const char* novoCodigo, const char* confNovoCodigo) {
    return run(CMD_TROCA_COD_ATIVACAO, {numeroSessao, codigoDeAtivacao, opcao, novoCodigo, confNovoCodigo});
}

char* ManipulaDadosSat::ReiniciarMFE(int numeroSessao, const char* codigoDeAtivacao) {
    return run(CMD_REINICIAR_MFE, {numeroSessao, codigoDeAtivacao});
}

char* ManipulaDadosSat::EnviarStatusAC(int numeroSessao, const char* campoA, const char* campoB,
                                       const char* campoC) {
    return run(CMD_ENVIAR_STATUS_AC, {numeroSessao, campoA, campoB, campoC});
}

char* ManipulaDadosSat::run(const char* command, std::initializer_list<Argument> arguments) try {
    const Operation& operation = *findOperation(command);
    pbs::Message answer;
    return exchange(operation, makeRequest(operation, arguments), answer);
} catch (const std::exception&) {  // out of memory
    return respond(FISCORA_STATUS_NO_ANSWER, {});
}

Request ManipulaDadosSat::makeRequest(const Operation& operation, const std::vector<Argument>& arguments) {
    const std::size_t size = operation.buffer.bytes;
    std::vector<char> own(operation.buffer.shared == nullptr ? size : 0);
    char* const buffer = operation.buffer.shared == nullptr ? own.data() : operation.buffer.shared;
    std::memset(buffer, 0, size);
    const auto used = writeRequest(arguments, operation, buffer);
    if (!used) {
        std::memset(buffer, 0, size);
        return std::nullopt;
    }

    std::string request(buffer, *used);
    if (operation.cleaning == Cleaning::TagsAndEmptyFields) replaceTag(request);
    if (operation.cleaning != Cleaning::None) cleanEmptyFields(request);
    return request;
}

char* ManipulaDadosSat::exchange(const Operation& operation, const Request& request, pbs::Message& answer) {
    m_lastCommand = operation.command;
    if (!request) return respond(FISCORA_STATUS_BAD_REQUEST, {});
    DoTransaction transaction;
    const int status = transaction.run(operation.timeoutMs, operation.command, *request, answer);
    return respond(status, answer.body());
}

char* ManipulaDadosSat::respond(int status, const std::string& body) {
    m_status = status;
    char* const end = std::copy_n(body.data(), std::min(body.size(), sizeof g_resp), g_resp);
    std::fill(end, std::end(g_resp), '\0');
    return g_resp;
}

int ManipulaDadosSat::CodigoErro() { return m_status; }

char* ManipulaDadosSat::Base64ToAscii() {
    static std::string document;
    document.clear();
    try {
        const auto fields = split(std::string(g_resp, strnlen(g_resp, sizeof g_resp)), '|');
        const Operation* const operation = findOperation(m_lastCommand);
        const auto field = operation == nullptr ? AnswerLayout::NO_FIELD : operation->answer.decodedField;
        if (field != AnswerLayout::NO_FIELD && field < fields.size())
            document = Base64::decode(fields[field]);
    } catch (const std::exception&) {  // out of memory: the document stays empty
    }
    return document.data();
}

int ManipulaDadosSat::AbreSerialSAT(const char*) { return 0; }
void ManipulaDadosSat::closePortSerial() {}

void ManipulaDadosSat::cleanEmptyFields(std::string& text) { text.resize(std::strlen(text.c_str())); }

void ManipulaDadosSat::replaceTag(std::string& text) {
    replaceFirst(text, "<CNPJ/>", "<CNPJ></CNPJ>");
    replaceFirst(text, "<CPF/>", "<CPF></CPF>");
}

std::vector<std::string> ManipulaDadosSat::split(const std::string& text, char delimiter) {
    auto pieces = ::split(text, delimiter);
    const QuietWrites guard;
    for (const auto& piece : pieces) std::cout << piece << std::endl;
    return pieces;
}

void ManipulaDadosSat::gravaArquivoDesempenho(std::string text) {
    text += ';';
    appendToPerformanceRecord({"DATA_HORA", "DELTA_DRS"}, text);
}

void ManipulaDadosSat::gravaArquivoDesempenho(pbs::Message& answer) {
    std::vector<std::string> columns = {"DATA_HORA", "CODE"};
    std::string cells = answer.code() + ';';
    for (const Stage* stage = std::begin(STAGES); stage != std::end(STAGES); ++stage) {
        const std::string value = answer.header(stage->header);
        columns.emplace_back(stage->header);
        cells += value + ';';
        if (stage->step == nullptr) break;
        const std::string next = answer.header(stage[1].header);
        columns.emplace_back(stage->step);
        cells += pbs::to_string(difference(pbs::readNumber(value), pbs::readNumber(next))) + ';';
    }
    appendToPerformanceRecord(columns, cells);
}

}  // namespace manipulaDados
