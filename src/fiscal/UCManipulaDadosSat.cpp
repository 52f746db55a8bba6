#include "fiscal/UCManipulaDadosSat.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string_view>

#include "encoding/Base64.h"
#include "local_time.h"
#include "protocol/Message.h"
#include "protocol/pbs.h"
#include "transaction/DoTransaction.h"

// In assembly language, because no object of C++ has a byte of its own behind its end: the symbol keeps its
// size, and an answer that fills the buffer is still a zero-terminated text. The size is
// FISCORA_ANSWER_MAX_BYTES.
asm(R"(
    .bss
    .balign 64
    .globl g_resp
    .type g_resp, STT_OBJECT
    .size g_resp, 1572864
g_resp:
    .zero 1572864 + 1
    .text
)");
static_assert(sizeof g_resp == 1572864);

char g_bufferVenda[FISCORA_ANSWER_MAX_BYTES + 40];
char g_bufferCancela[FISCORA_ANSWER_MAX_BYTES + 88];
char g_bufferFimAFim[FISCORA_ANSWER_MAX_BYTES + 40];

namespace manipulaDados {

namespace {

constexpr char F1[] = "%06d|%01d|%s|%s|%02d";
constexpr char F2[] = "%06d|%s|%s";
constexpr char F3[] = "%06d|%s|%s|%s";
constexpr char F4[] = "%06d";
constexpr char F5[] = "%06d|%s";
constexpr char F6[] = "%06d|%s|%06d";
constexpr char F7[] = "%06d|%s|%01d|%s|%s";

using Request = std::optional<std::string>;

bool isGiven(int) { return true; }
bool isGiven(const char* text) { return text != nullptr; }

/// Builds a request in `buffer`. None where a text is null, or where the request and its terminating zero do
/// not fit: a shortened document or activation code must never reach the device.
template <const char* Format, std::size_t Size, typename... Arguments>
Request requestIn(char (&buffer)[Size], Arguments... arguments) {
    std::memset(buffer, 0, Size);
    if (!(isGiven(arguments) && ...)) return std::nullopt;
    const int length = std::snprintf(buffer, Size, Format, arguments...);
    if (length < 0 || static_cast<std::size_t>(length) >= Size) return std::nullopt;
    return buffer;
}

/// The same in a buffer of the operation's own.
template <const char* Format, std::size_t Size, typename... Arguments>
Request request(Arguments... arguments) {
    char buffer[Size];
    return requestIn<Format>(buffer, arguments...);
}

void replaceFirst(std::string& text, std::string_view wanted, std::string_view replacement) {
    const auto position = text.find(wanted);
    if (position != std::string::npos) text.replace(position, wanted.size(), replacement);
}

/// Which field of its answer holds a command's document.
struct DocumentField {
    const char* command;
    std::size_t field;
};
constexpr DocumentField DOCUMENT_FIELDS[] = {
    {CMD_ENVIAR_DADOS_VENDA, 6},
    {CMD_CANCELA_ULTIMA_VENDA, 6},
    {CMD_EXTRAIR_LOG, 5},
};

/// The headers in which an answer tells when it passed each stage, from the outermost to the innermost, each
/// with the name of the record's column for the step from it to the next.
struct Stage {
    const char* header;
    const char* step;  ///< null at the innermost
};
constexpr Stage STAGES[] = {
    {"DELTA_DRS", "PROC_DRS"},          {"DELTA_DRS_CCO", "TRANS_DRS_CCO"}, {"DELTA_CCO", "PROC_CCO"},
    {"DELTA_CSE_COM", "TRANS_CCO_CSE"}, {"DELTA_CSE", "PROC_CSE"},          {"DELTA_SWB", nullptr},
};

/// Opens the performance record to append a row; a new file gets its heading first.
std::ofstream openPerformanceRecord(const std::vector<std::string>& columns) {
    constexpr char NAME[] = "teste_desempenho.csv";
    if (std::fstream(NAME, std::ios::in | std::ios::out).is_open()) return std::ofstream(NAME, std::ios::app);
    std::ofstream file(NAME, std::ios::trunc);
    for (const auto& column : columns) file << '"' << column << "\";";
    file << std::endl;
    return file;
}

std::string performanceTime() { return localTimeText("%Y/%d/%m/%H:%M:%S"); }

/// `a` minus `b` in 32 bits, wrapping around.
std::int32_t difference(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}

}  // namespace

ManipulaDadosSat::ManipulaDadosSat() = default;
ManipulaDadosSat::~ManipulaDadosSat() = default;

char* ManipulaDadosSat::AtivarSAT(int numeroSessao, int subComando, const char* codigoDeAtivacao,
                                  const char* cnpj, int cUF) {
    return exchange(CMD_ATIVAR_SAT, 302000,
                    request<F1, 64>(numeroSessao, subComando, codigoDeAtivacao, cnpj, cUF));
}

char* ManipulaDadosSat::ComunicarCertificadoICPBRASIL(int numeroSessao, const char* codigoDeAtivacao,
                                                      const char* certificado) {
    return exchange(CMD_COMUNICAR_ICP_BRASIL, 302000,
                    request<F2, 2096>(numeroSessao, codigoDeAtivacao, certificado));
}

char* ManipulaDadosSat::EnviarDadosVenda(int numeroSessao, const char* codigoDeAtivacao,
                                         const char* dadosVenda) {
    auto request = requestIn<F2>(g_bufferVenda, numeroSessao, codigoDeAtivacao, dadosVenda);
    if (request) cleanEmptyFields(*request);
    return exchange(CMD_ENVIAR_DADOS_VENDA, 10000, request);
}

char* ManipulaDadosSat::CancelarUltimaVenda(int numeroSessao, const char* codigoDeAtivacao, const char* chave,
                                            const char* dadosCancelamento) {
    auto request = requestIn<F3>(g_bufferCancela, numeroSessao, codigoDeAtivacao, chave, dadosCancelamento);
    if (request) {
        replaceTag(*request);
        cleanEmptyFields(*request);
    }
    return exchange(CMD_CANCELA_ULTIMA_VENDA, 7000, request);
}

char* ManipulaDadosSat::ConsultarSAT(int numeroSessao) {
    return exchange(CMD_CONSULTA_SAT, 6000, request<F4, 16>(numeroSessao));
}

char* ManipulaDadosSat::TesteFimAFim(int numeroSessao, const char* codigoDeAtivacao, const char* dadosVenda) {
    return exchange(CMD_TESTE_FIM_A_FIM, 22000,
                    requestIn<F2>(g_bufferFimAFim, numeroSessao, codigoDeAtivacao, dadosVenda));
}

char* ManipulaDadosSat::ConsultarStatusOperacional(int numeroSessao, const char* codigoDeAtivacao) {
    return exchange(CMD_CONSULTA_STATUS_OP, 20000, request<F5, 48>(numeroSessao, codigoDeAtivacao));
}

char* ManipulaDadosSat::ConsultarUltimaSessaoFiscal(int numeroSessao, const char* codigoDeAtivacao) {
    return exchange(CMD_CONSULTA_ULTIMA_SESSAO_FISCAL, 22000,
                    request<F5, 48>(numeroSessao, codigoDeAtivacao));
}

char* ManipulaDadosSat::ConsultarStatusOperacionalMFE(int numeroSessao, const char* codigoDeAtivacao) {
    return exchange(CMD_CONSULTA_STATUS_OP_MFE, 20000, request<F5, 48>(numeroSessao, codigoDeAtivacao));
}

char* ManipulaDadosSat::ConsultarNumeroSessao(int numeroSessao, const char* codigoDeAtivacao,
                                              int cNumeroDeSessao) {
    return exchange(CMD_CONSULTAR_NUM_SESSAO, 22000,
                    request<F6, 48>(numeroSessao, codigoDeAtivacao, cNumeroDeSessao));
}

char* ManipulaDadosSat::ConfigurarInterfaceDeRede(int numeroSessao, const char* codigoDeAtivacao,
                                                  const char* dadosConfiguracao) {
    return exchange(CMD_CONFIG_REDE, 22000,
                    request<F2, 1072>(numeroSessao, codigoDeAtivacao, dadosConfiguracao));
}

char* ManipulaDadosSat::ConfigurarInterfaceDeRedeMFE(int numeroSessao, const char* codigoDeAtivacao,
                                                     const char* dadosConfiguracao) {
    return exchange(CMD_CONFIG_REDE_MFE, 22000,
                    request<F2, 1072>(numeroSessao, codigoDeAtivacao, dadosConfiguracao));
}

char* ManipulaDadosSat::AssociarAssinatura(int numeroSessao, const char* codigoDeAtivacao,
                                           const char* cnpjValue, const char* assinaturaCNPJs) {
    return exchange(CMD_ASSOCIAR_ASSINATURA, 900000,
                    request<F3, 2128>(numeroSessao, codigoDeAtivacao, cnpjValue, assinaturaCNPJs));
}

char* ManipulaDadosSat::AtualizarSoftwareSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return exchange(CMD_ATUALIZAR_SOFTWARE, 1800000, request<F5, 48>(numeroSessao, codigoDeAtivacao));
}

char* ManipulaDadosSat::ExtrairLogs(int numeroSessao, const char* codigoDeAtivacao) {
    return exchange(CMD_EXTRAIR_LOG, 22000, request<F5, 48>(numeroSessao, codigoDeAtivacao));
}

char* ManipulaDadosSat::BloquearSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return exchange(CMD_BLOQUEAR_SAT, 302000, request<F5, 48>(numeroSessao, codigoDeAtivacao));
}

char* ManipulaDadosSat::DesbloquearSAT(int numeroSessao, const char* codigoDeAtivacao) {
    return exchange(CMD_DESBLOQUEAR_SAT, 22000, request<F5, 48>(numeroSessao, codigoDeAtivacao));
}

char* ManipulaDadosSat::TrocarCodigoDeAtivacao(int numeroSessao, const char* codigoDeAtivacao, int opcao,
                                               const char* novoCodigo, const char* confNovoCodigo) {
    return exchange(CMD_TROCA_COD_ATIVACAO, 22000,
                    request<F7, 112>(numeroSessao, codigoDeAtivacao, opcao, novoCodigo, confNovoCodigo));
}

char* ManipulaDadosSat::ReiniciarMFE(int numeroSessao, const char* codigoDeAtivacao) {
    return exchange(CMD_REINICIAR_MFE, 17000, request<F5, 48>(numeroSessao, codigoDeAtivacao));
}

char* ManipulaDadosSat::EnviarStatusAC(int numeroSessao, const char* campoA, const char* campoB,
                                       const char* campoC) {
    return exchange(CMD_ENVIAR_STATUS_AC, 7000, request<F3, 80>(numeroSessao, campoA, campoB, campoC));
}

char* ManipulaDadosSat::exchange(const char* command, int timeoutMs, const Request& request) {
    m_lastCommand = command;
    if (!request) {
        m_status = FISCORA_STATUS_BAD_REQUEST;
        std::memset(g_resp, 0, sizeof g_resp);
        return g_resp;
    }
    DoTransaction transaction;
    pbs::Message answer;
    m_status = transaction.run(timeoutMs, command, *request, answer);
    std::memset(g_resp, 0, sizeof g_resp);
    std::memcpy(g_resp, answer.body().data(), std::min<std::size_t>(answer.bodySize(), sizeof g_resp));
    return g_resp;
}

int ManipulaDadosSat::CodigoErro() { return m_status; }

char* ManipulaDadosSat::Base64ToAscii() {
    static std::string document;
    document.clear();
    const auto fields = split(std::string(g_resp, strnlen(g_resp, sizeof g_resp)), '|');
    for (const auto& [command, field] : DOCUMENT_FIELDS)
        if (m_lastCommand == command && field < fields.size()) document = Base64::decode(fields[field]);
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
    for (const auto& piece : pieces) std::cout << piece << std::endl;
    return pieces;
}

void ManipulaDadosSat::gravaArquivoDesempenho(std::string text) {
    auto file = openPerformanceRecord({"DATA_HORA", "DELTA_DRS"});
    if (file.is_open()) file << performanceTime() << ';' << text << ';' << std::endl;
}

void ManipulaDadosSat::gravaArquivoDesempenho(pbs::Message& answer) {
    std::vector<std::string> columns = {"DATA_HORA", "CODE"};
    for (const auto& stage : STAGES) {
        columns.emplace_back(stage.header);
        if (stage.step != nullptr) columns.emplace_back(stage.step);
    }
    auto file = openPerformanceRecord(columns);
    if (!file.is_open()) return;

    file << performanceTime() << ';' << answer.code() << ';';
    for (const Stage* stage = std::begin(STAGES); stage != std::end(STAGES); ++stage) {
        const std::string value = answer.header(stage->header);
        file << value << ';';
        if (stage->step == nullptr) break;
        const std::string next = answer.header(stage[1].header);
        file << pbs::to_string(difference(pbs::readNumber(value), pbs::readNumber(next))) << ';';
    }
    file << std::endl;
}

}  // namespace manipulaDados
