#include "sim/SimulatedDevice.h"

#include <algorithm>
#include <array>

#include "fields.h"
#include "fiscal/operations.h"
#include "local_time.h"

namespace sim {
namespace {

using manipulaDados::Effect;
using manipulaDados::Kind;

/// Room in an answer, in bytes, for everything but its document.
constexpr std::size_t ANSWER_SURPLUS = 4096;
constexpr std::size_t MAX_DOCUMENT = (SimulatedDevice::MAX_ANSWER - ANSWER_SURPLUS) / 4 * 3;
constexpr std::size_t KEPT_LOG_LINES = 1000;
constexpr std::size_t LONGEST_SESSION = 11;  // an int with its sign

// The last three digits of EEEEE that mean the same in every operation.
constexpr int DONE = 0;
constexpr int WRONG_CODE = 1;
constexpr int NO_SUCH_SESSION = 3;
constexpr int BUSY = 98;
constexpr int UNKNOWN_ERROR = 99;
// Refusals of a document's content, of a sale and of a cancellation.
constexpr int SALE_CONTENT = 10;
constexpr int CANCELLATION_CONTENT = 7;

constexpr std::string_view NOT_ACTIVATED_TEXT = "SAT ainda não ativado";
constexpr std::string_view CONTENT_TEXT = "Erro de validação do conteúdo";

bool isDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isSessionNumber(std::string_view text) {
    return text.size() <= LONGEST_SESSION &&
           isDigits(!text.empty() && text.front() == '-' ? text.substr(1) : text);
}

/// A longer one than there can be is cut, so that it is refused and not echoed.
std::string sessionOf(const std::string& request) {
    return request.substr(0, std::min(request.find('|'), LONGEST_SESSION + 1));
}

std::string unknownCommand(const std::string& request) {
    return sessionOf(request) + "|99099|Comando desconhecido||";
}

/// `text` as one field of an answer: whatever would end the field becomes a blank.
std::string fieldText(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '|' || c == '\r' || c == '\n'; }, ' ');
    return text;
}

}  // namespace

/// Whom the device answers.
enum class Access {
    Anyone,
    CodeHolder,          ///< whoever gives the activation code
    ActivatedDeviceOnly  ///< the same, and a device that is not activated says so
};

/// How the device serves an operation.
struct SimulatedDevice::Service {
    std::string_view command;
    Handler handler;
    std::string_view confirmation;  ///< text of a success
    Access access = Access::CodeHolder;
};

const SimulatedDevice::Service& SimulatedDevice::serviceOf(const manipulaDados::Operation& operation) {
    using namespace manipulaDados;
    using Device = SimulatedDevice;
    static const std::array<Service, OPERATIONS.size()> services{{
        {CMD_ATIVAR_SAT, &Device::activate, "Ativado corretamente", Access::Anyone},
        {CMD_COMUNICAR_ICP_BRASIL, &Device::communicateCertificate, "Certificado transmitido com sucesso"},
        {CMD_ENVIAR_DADOS_VENDA, &Device::sell, "Emitido com sucesso + conteúdo notas",
         Access::ActivatedDeviceOnly},
        {CMD_CANCELA_ULTIMA_VENDA, &Device::cancel,
         "Cupom cancelado com sucesso + conteúdo CF-e-SAT cancelado"},
        {CMD_CONSULTA_SAT, &Device::confirm, "SAT em Operação", Access::Anyone},
        {CMD_TESTE_FIM_A_FIM, &Device::testEndToEnd, "Emitido com sucesso", Access::ActivatedDeviceOnly},
        {CMD_CONSULTA_STATUS_OP, &Device::status, "Resposta com sucesso"},
        {CMD_CONSULTA_ULTIMA_SESSAO_FISCAL, &Device::answerOfLastFiscalSession, ""},
        {CMD_CONSULTA_STATUS_OP_MFE, &Device::status, "Resposta com sucesso"},
        {CMD_CONSULTAR_NUM_SESSAO, &Device::answerOfSession, ""},
        {CMD_CONFIG_REDE, &Device::configureNetwork, "Rede configurada com sucesso"},
        {CMD_CONFIG_REDE_MFE, &Device::configureNetwork, "Rede configurada com sucesso"},
        {CMD_ASSOCIAR_ASSINATURA, &Device::associateSignature, "Assinatura do AC registrada"},
        {CMD_ATUALIZAR_SOFTWARE, &Device::confirm, "Software atualizado com sucesso"},
        {CMD_EXTRAIR_LOG, &Device::extractLog, "Transferência completa"},
        {CMD_BLOQUEAR_SAT, &Device::block, "Equipamento SAT bloqueado com sucesso"},
        {CMD_DESBLOQUEAR_SAT, &Device::unblock, "Equipamento SAT desbloqueado com sucesso"},
        {CMD_TROCA_COD_ATIVACAO, &Device::changeCode, "Código de ativação alterado com sucesso"},
        {CMD_REINICIAR_MFE, &Device::confirm, "Equipamento reiniciado com sucesso"},
        {CMD_ENVIAR_STATUS_AC, &Device::confirm, "Status do AC recebido", Access::Anyone},
    }};
    return *std::find_if(services.begin(), services.end(),
                         [&](const Service& service) { return service.command == operation.command; });
}

SimulatedDevice::SimulatedDevice(DeviceSettings settings)
    : m_state(settings.state),
      m_activationCode(std::move(settings.activationCode)),
      m_serialNumber(std::move(settings.serialNumber)),
      m_memory(settings.memory),
      m_clock(std::move(settings.clock)),
      m_booking(std::move(settings.booked)) {}

std::string SimulatedDevice::answer(const std::string& operation, const std::string& request) {
    const auto parsed = parse(operation, request);
    if (!parsed) return unknownCommand(request);
    std::string text = judge(*parsed);
    remember(*parsed, text);
    return text;
}

std::string SimulatedDevice::busyAnswer(const std::string& operation, const std::string& request) const {
    const auto parsed = parse(operation, request);
    if (!parsed) return unknownCommand(request);
    return reply(*parsed, BUSY, "SAT em processamento. Tente novamente.");
}

/// Empty if there is no such operation.
std::optional<SimulatedDevice::Request> SimulatedDevice::parse(const std::string& operation,
                                                               const std::string& request) {
    const auto* const known = manipulaDados::findOperation(operation);
    if (known == nullptr) return std::nullopt;
    const auto views = fieldsOf(request, '|', known->parameters.size());
    std::vector<std::string> fields(views.begin(), views.end());
    fields.front() = sessionOf(request);
    return Request{*known, serviceOf(*known), std::move(fields)};
}

void SimulatedDevice::forgetSessions() {
    m_sessions.clear();
    m_booked.clear();
    m_lastFiscalAnswer.clear();
}

bool SimulatedDevice::isSecret(std::string_view operation, std::size_t field) {
    const auto* const known = manipulaDados::findOperation(operation);
    if (known == nullptr) return field == 1;
    return field < known->parameters.size() && known->parameters[field].kind == Kind::ActivationCode;
}

bool SimulatedDevice::isActivationCode(std::string_view code) {
    return code.size() >= 8 && code.size() <= 32 && code.find('|') == std::string_view::npos;
}

bool SimulatedDevice::isSerialNumber(std::string_view number) {
    return number.size() == 9 && isDigits(number);
}

std::string SimulatedDevice::judge(const Request& request) {
    const auto& [operation, service, fields] = request;
    if (fields.size() < operation.parameters.size() || !isSessionNumber(fields[0]))
        return reply(request, UNKNOWN_ERROR, "Requisição fora do formato");
    if (service.access != Access::Anyone) {
        const bool activated = m_state != DeviceState::NotActivated;
        if (!activated && service.access == Access::ActivatedDeviceOnly)
            return reply(request, 2, NOT_ACTIVATED_TEXT);
        const auto code = std::find_if(operation.parameters.begin(), operation.parameters.end(),
                                       [](const auto& given) { return given.kind == Kind::ActivationCode; });
        if (!activated || fields[code - operation.parameters.begin()] != m_activationCode)
            return reply(request, WRONG_CODE, "Código de ativação inválido");
    }
    return (this->*service.handler)(request);
}

/// session|EEEEE|text|cod|mensagemSEFAZ, the last two empty, then `more`. Operations that book a document
/// have CCCC after EEEEE.
std::string SimulatedDevice::reply(const Request& request, int code, std::string_view text,
                                   const std::vector<std::string>& more) const {
    std::string result = request.fields[0] + "|" + request.operation.codePrefix + padded(code, 3) + "|";
    if (request.operation.effect == Effect::Books)
        result += code == SALE_CONTENT || code == CANCELLATION_CONTENT ? "1999|" : "0000|";
    result.append(text).append("||");
    for (const std::string& field : more) result.append("|").append(field);
    return result;
}

void SimulatedDevice::remember(const Request& request, const std::string& answer) {
    const auto& operation = request.operation;
    const std::string& session = request.fields[0];
    const std::string code(fieldsOf(answer, '|', 3)[1]);
    m_log.push_back(localTimeText("%Y%m%d%H%M%S ", m_clock()) + operation.command + " sessao " + session +
                    " retorno " + code);
    if (m_log.size() > KEPT_LOG_LINES) m_log.pop_front();

    // A query for an earlier answer leaves none of its own, and nothing takes the place of the answer that
    // issued a document.
    const bool query = operation.answer.fields == nullptr;
    const bool issued = operation.effect == Effect::Books && operation.succeededWith(code);
    if (query || (m_booked.count(session) != 0 && !issued)) return;
    m_sessions.emplace_back(session, answer);
    if (m_sessions.size() > m_memory) m_sessions.pop_front();
}

/// The earlier `answer` again, under the session number of this request; a refusal if it is empty.
std::string SimulatedDevice::replay(const Request& request, const std::string& answer) const {
    if (answer.empty()) return reply(request, NO_SUCH_SESSION, "Sessão não existe");
    return request.fields[0] + answer.substr(answer.find('|'));
}

std::string SimulatedDevice::confirm(const Request& request) {
    return reply(request, DONE, request.service.confirmation);
}

std::string SimulatedDevice::activate(const Request& request) {
    const std::string& type = request.fields[1];
    const std::string& code = request.fields[2];
    const std::string& taxpayer = request.fields[3];
    const std::string& stateCode = request.fields[4];
    if (m_state != DeviceState::NotActivated) return reply(request, 3, "SAT já ativado");
    if (taxpayer.size() != 14 || !isDigits(taxpayer)) {
        return reply(request, 2, "SEFAZ não reconhece este SAT (CNPJ inválido)");
    }
    const bool knownType = type == "1" || type == "2" || type == "3";
    if (!knownType || !isActivationCode(code) || stateCode.size() != 2 || !isDigits(stateCode)) {
        return reply(request, UNKNOWN_ERROR, "Erro desconhecido na ativação");
    }
    m_state = DeviceState::Active;
    m_activationCode = code;
    m_taxpayer = taxpayer;
    m_stateCode = stateCode;
    return reply(request, DONE, request.service.confirmation, {""});  // a field for the CSR
}

std::string SimulatedDevice::communicateCertificate(const Request& request) {
    const bool plausible = request.fields[2].find("BEGIN CERTIFICATE") != std::string::npos;
    return plausible ? confirm(request) : reply(request, 3, "Certificado inválido");
}

Issuer SimulatedDevice::issuer() const {
    return {m_stateCode, m_taxpayer, m_serialNumber, m_documents + 1, m_clock()};
}

/// Why no document can be issued now; empty if one can.
std::string SimulatedDevice::refusalOfDocument(const Request& request, int blockedCode) const {
    if (m_state == DeviceState::Blocked)
        return reply(request, blockedCode, "SAT bloqueado pelo contribuinte");
    if (m_booked.count(request.fields[0]) != 0)
        return reply(request, UNKNOWN_ERROR, "Número de sessão já utilizado");
    return {};
}

/// Afterwards `cancellable` is the sale that may be cancelled.
std::string SimulatedDevice::book(const Request& request, const SignedDocument& document,
                                  std::optional<SignedDocument> cancellable) {
    const auto& fields = request.fields;
    if (!m_booking({document.time, request.operation.command, fields.front(), document.key, fields.back()}))
        return reply(request, UNKNOWN_ERROR, "Erro desconhecido: o equipamento não consegue gravar");
    ++m_documents;
    m_lastSale = std::move(cancellable);
    m_lastKey = document.key;
    m_lastTime = document.time;
    m_booked.insert(request.fields[0]);
    m_lastFiscalAnswer = reply(request, DONE, request.service.confirmation,
                               {base64(document.xml), localTimeText("%Y%m%d%H%M%S", document.time),
                                document.key, document.total, document.customer, qrCodeSignature()});
    return m_lastFiscalAnswer;
}

std::string SimulatedDevice::sell(const Request& request) {
    if (std::string refusal = refusalOfDocument(request, 6); !refusal.empty()) return refusal;
    try {
        const SignedDocument document = signSale(request.fields[2], issuer(), MAX_DOCUMENT);
        return book(request, document, document);
    } catch (const InvalidDocument& problem) {
        return reply(request, SALE_CONTENT, fieldText(std::string(CONTENT_TEXT) + ": " + problem.what()));
    }
}

std::string SimulatedDevice::cancel(const Request& request) {
    if (std::string refusal = refusalOfDocument(request, 3); !refusal.empty()) return refusal;
    const bool known = m_lastSale && m_lastSale->key == request.fields[2];
    if (!known || m_clock() - m_lastSale->time > CANCELLATION_SECONDS)
        return reply(request, 2, "Cupom inválido");
    try {
        return book(request, signCancellation(request.fields[3], *m_lastSale, issuer()), std::nullopt);
    } catch (const InvalidDocument& problem) {
        return reply(request, CANCELLATION_CONTENT,
                     fieldText(std::string(CONTENT_TEXT) + ": " + problem.what()));
    }
}

std::string SimulatedDevice::testEndToEnd(const Request& request) {
    try {
        const Issuer tester = issuer();
        const SignedDocument document = signSale(request.fields[2], tester, MAX_DOCUMENT);
        return reply(request, DONE, request.service.confirmation,
                     {base64(document.xml), localTimeText("%Y%m%d%H%M%S", document.time),
                      padded(tester.number, 6), document.key});
    } catch (const InvalidDocument& problem) {
        return reply(request, UNKNOWN_ERROR, fieldText(std::string(CONTENT_TEXT) + ": " + problem.what()));
    }
}

std::string SimulatedDevice::status(const Request& request) {
    const std::string now = localTimeText("%Y%m%d%H%M%S", m_clock());
    const std::string key = m_lastKey.empty() ? "" : m_lastKey.substr(3);
    const std::string issued = m_lastKey.empty() ? "" : localTimeText("%Y%m%d%H%M%S", m_lastTime);
    return reply(request, DONE, request.service.confirmation,
                 {m_serialNumber,
                  "DHCP",
                  "192.168.0.50",
                  "02:00:00:00:00:01",
                  "255.255.255.0",
                  "192.168.0.1",
                  "192.168.0.1",
                  "8.8.8.8",
                  "CONECTADO",
                  "ALTO",
                  "4 GB",
                  "1 GB",
                  now,
                  "01.00.00",
                  "0.07",
                  key,
                  key,
                  key,
                  issued,
                  now,
                  "20260101",
                  "20310101",
                  m_state == DeviceState::Blocked ? "2" : "0"});
}

std::string SimulatedDevice::answerOfSession(const Request& request) {
    const auto found = std::find_if(m_sessions.rbegin(), m_sessions.rend(),
                                    [&](const auto& entry) { return entry.first == request.fields[2]; });
    return replay(request, found == m_sessions.rend() ? std::string() : found->second);
}

std::string SimulatedDevice::answerOfLastFiscalSession(const Request& request) {
    return replay(request, m_lastFiscalAnswer);
}

std::string SimulatedDevice::configureNetwork(const Request& request) {
    try {
        requireWellFormed(request.fields[2]);
    } catch (const InvalidDocument&) {
        return reply(request, 2, "Dados fora do padrão a ser informado");
    }
    return confirm(request);
}

std::string SimulatedDevice::associateSignature(const Request& request) {
    const bool complete = isDigits(request.fields[2]) && !request.fields[3].empty();
    return complete ? confirm(request) : reply(request, 3, "Assinatura fora do padrão informado");
}

std::string SimulatedDevice::extractLog(const Request& request) {
    std::string log = "SAT " + m_serialNumber + " (simulado)\n";
    for (const std::string& line : m_log) log += line + "\n";
    return reply(request, DONE, request.service.confirmation, {base64(log)});
}

std::string SimulatedDevice::block(const Request& request) {
    if (m_state == DeviceState::Blocked) return reply(request, 2, "Equipamento SAT já está bloqueado");
    m_state = DeviceState::Blocked;
    return confirm(request);
}

std::string SimulatedDevice::unblock(const Request& request) {
    if (m_state != DeviceState::Blocked)
        return reply(request, UNKNOWN_ERROR, "Equipamento SAT não está bloqueado");
    m_state = DeviceState::Active;
    return confirm(request);
}

std::string SimulatedDevice::changeCode(const Request& request) {
    const std::string& option = request.fields[2];
    const std::string& code = request.fields[3];
    if (option == "2") return reply(request, 2, "Código de ativação de emergência incorreto");
    if (option != "1" || code != request.fields[4] || !isActivationCode(code)) {
        return reply(request, UNKNOWN_ERROR, "Novo código de ativação fora do padrão ou sem confirmação");
    }
    m_activationCode = code;
    return confirm(request);
}

}  // namespace sim
