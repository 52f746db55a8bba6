#include "sim/SimulatedDevice.h"

#include <algorithm>
#include <array>

#include "local_time.h"

namespace sim {
namespace {

/// Bytes of an answer with a document that are not the document.
constexpr std::size_t ANSWER_SURPLUS = 4096;
constexpr std::size_t MAX_DOCUMENT = (SimulatedDevice::MAX_ANSWER - ANSWER_SURPLUS) / 4 * 3;
constexpr std::size_t KEPT_LOG_LINES = 1000;
constexpr std::size_t LONGEST_SESSION = 11;  // an int with its sign

// Refusals that mean the same in every operation: the last three digits of EEEEE.
constexpr int DONE = 0;
constexpr int WRONG_CODE = 1;
constexpr int NO_SUCH_SESSION = 3;
constexpr int UNKNOWN_ERROR = 99;
// Refusals of a document's content, of a sale and of a cancellation.
constexpr int SALE_CONTENT = 10;
constexpr int CANCELLATION_CONTENT = 7;

constexpr std::string_view NOT_ACTIVATED_TEXT = "SAT ainda não ativado";
constexpr std::string_view CONTENT_TEXT = "Erro de validação do conteúdo";

/// The fields of `request`, at most `count` of them: a "|" in the last one belongs to it.
std::vector<std::string> fieldsOf(const std::string& request, std::size_t count) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    while (fields.size() + 1 < count) {
        const std::size_t end = request.find('|', start);
        if (end == std::string::npos) break;
        fields.push_back(request.substr(start, end - start));
        start = end + 1;
    }
    fields.push_back(request.substr(start));
    return fields;
}

bool isDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isSessionNumber(std::string_view text) {
    return text.size() <= LONGEST_SESSION &&
           isDigits(!text.empty() && text.front() == '-' ? text.substr(1) : text);
}

/// `text` as one field of an answer: whatever would end the field becomes a blank.
std::string fieldText(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '|' || c == '\r' || c == '\n'; }, ' ');
    return text;
}

}  // namespace

struct SimulatedDevice::Operation {
    std::string_view name;
    int prefix;                     ///< EEEEE is these two digits and a code of three
    std::size_t fields;             ///< of a request, the session number included
    std::size_t codeField;          ///< where the activation code stands that is checked; 0 for none
    unsigned secrets;               ///< bit i is set where field i holds an activation code
    std::string_view confirmation;  ///< text of a success
    Handler handler;
};

const SimulatedDevice::Operation* SimulatedDevice::find(std::string_view name) {
    using Device = SimulatedDevice;
    constexpr unsigned field1 = 1U << 1;
    static const std::array<Operation, 20> operations{{
        {"AtivarSAT", 4, 5, 0, 1U << 2, "Ativado corretamente", &Device::activate},
        {"ComunicarCertificadoICPBRASIL", 5, 3, 1, field1, "Certificado transmitido com sucesso",
         &Device::communicateCertificate},
        {"EnviarDadosVenda", 6, 3, 1, field1, "Emitido com sucesso + conteúdo notas", &Device::sell},
        {"CancelarUltimaVenda", 7, 4, 1, field1, "Cupom cancelado com sucesso + conteúdo CF-e-SAT cancelado",
         &Device::cancel},
        {"ConsultarSAT", 8, 1, 0, 0, "SAT em Operação", &Device::confirm},
        {"TesteFimAFim", 9, 3, 1, field1, "Emitido com sucesso", &Device::testEndToEnd},
        {"ConsultarStatusOperacional", 10, 2, 1, field1, "Resposta com sucesso", &Device::status},
        {"ConsultarStatusOperacionalMFE", 10, 2, 1, field1, "Resposta com sucesso", &Device::status},
        {"ConsultarNumeroSessao", 11, 3, 1, field1, "", &Device::answerOfSession},
        {"ConfigurarInterfaceDeRede", 12, 3, 1, field1, "Rede configurada com sucesso",
         &Device::configureNetwork},
        {"ConfigurarInterfaceDeRedeMFE", 12, 3, 1, field1, "Rede configurada com sucesso",
         &Device::configureNetwork},
        {"AssociarAssinatura", 13, 4, 1, field1, "Assinatura do AC registrada", &Device::associateSignature},
        {"AtualizarSoftwareSAT", 14, 2, 1, field1, "Software atualizado com sucesso", &Device::confirm},
        {"ExtrairLogs", 15, 2, 1, field1, "Transferência completa", &Device::extractLog},
        {"BloquearSAT", 16, 2, 1, field1, "Equipamento SAT bloqueado com sucesso", &Device::block},
        {"DesbloquearSAT", 17, 2, 1, field1, "Equipamento SAT desbloqueado com sucesso", &Device::unblock},
        {"TrocarCodigoDeAtivacao", 18, 5, 1, field1 | 1U << 3 | 1U << 4,
         "Código de ativação alterado com sucesso", &Device::changeCode},
        {"ConsultarUltimaSessaoFiscal", 19, 2, 1, field1, "", &Device::answerOfLastFiscalSession},
        {"ReiniciarMFE", 20, 2, 1, field1, "Equipamento reiniciado com sucesso", &Device::confirm},
        {"EnviarStatusAC", 21, 4, 0, 0, "Status do AC recebido", &Device::confirm},
    }};
    const auto row = std::find_if(operations.begin(), operations.end(),
                                  [&](const Operation& operation) { return operation.name == name; });
    return row == operations.end() ? nullptr : &*row;
}

SimulatedDevice::SimulatedDevice(DeviceSettings settings)
    : m_state(settings.state),
      m_activationCode(std::move(settings.activationCode)),
      m_clock(std::move(settings.clock)) {}

std::string SimulatedDevice::answer(const std::string& operation, const std::string& request) {
    const Operation* row = find(operation);
    std::vector<std::string> fields = fieldsOf(request, row == nullptr ? 2 : row->fields);
    std::string& session = fields.front();
    session.resize(std::min(session.size(), LONGEST_SESSION + 1));  // a longer one is refused, not echoed
    if (row == nullptr) return session + "|99099|Comando desconhecido||";
    const Request parsed{*row, std::move(fields)};
    std::string text = judge(parsed);
    remember(parsed, text);
    return text;
}

bool SimulatedDevice::isSecret(std::string_view operation, std::size_t field) {
    const Operation* row = find(operation);
    return row == nullptr ? field == 1 : field < 32 && (row->secrets >> field & 1U) != 0;
}

bool SimulatedDevice::isActivationCode(std::string_view code) {
    return code.size() >= 8 && code.size() <= 32 && code.find('|') == std::string_view::npos;
}

std::string SimulatedDevice::judge(const Request& request) {
    const Operation& operation = request.operation;
    if (request.fields.size() < operation.fields || !isSessionNumber(request.fields[0])) {
        return reply(request, UNKNOWN_ERROR, "Requisição fora do formato");
    }
    if (operation.codeField != 0) {
        const bool activated = m_state != DeviceState::NotActivated;
        const bool needsActivation = operation.handler == &SimulatedDevice::sell ||
                                     operation.handler == &SimulatedDevice::testEndToEnd;
        if (!activated && needsActivation) return reply(request, 2, NOT_ACTIVATED_TEXT);
        if (!activated || request.fields[operation.codeField] != m_activationCode) {
            return reply(request, WRONG_CODE, "Código de ativação inválido");
        }
    }
    return (this->*operation.handler)(request);
}

/// session|EEEEE|text|cod|mensagemSEFAZ, the last two empty, then `more`. Sale and cancellation have CCCC
/// behind EEEEE.
std::string SimulatedDevice::reply(const Request& request, int code, std::string_view text,
                                   const std::vector<std::string>& more) const {
    std::string result =
        request.fields[0] + "|" + padded(request.operation.prefix, 2) + padded(code, 3) + "|";
    const Handler handler = request.operation.handler;
    if (handler == &SimulatedDevice::sell || handler == &SimulatedDevice::cancel) {
        result += code == SALE_CONTENT || code == CANCELLATION_CONTENT ? "1999|" : "0000|";
    }
    result.append(text).append("||");
    for (const std::string& field : more) result.append("|").append(field);
    return result;
}

void SimulatedDevice::remember(const Request& request, const std::string& answer) {
    const std::string& session = request.fields[0];
    const std::string code = fieldsOf(answer, 3)[1];
    m_log.push_back(localTimeText("%Y%m%d%H%M%S ", m_clock()) + std::string(request.operation.name) +
                    " sessao " + session + " retorno " + code);
    if (m_log.size() > KEPT_LOG_LINES) m_log.pop_front();

    // A query leaves no answer of its own, and nothing takes the place of the answer that issued a document.
    const Handler handler = request.operation.handler;
    const bool query = handler == &SimulatedDevice::answerOfSession ||
                       handler == &SimulatedDevice::answerOfLastFiscalSession;
    const bool issued = code == "06000" || code == "07000";
    if (query || (m_booked.count(session) != 0 && !issued)) return;
    m_sessions.emplace_back(session, answer);
    if (m_sessions.size() > KEPT_SESSIONS) m_sessions.pop_front();
}

/// An earlier answer again, behind the session number of the request at hand; a refusal where it is empty.
std::string SimulatedDevice::replay(const Request& request, const std::string& answer) const {
    if (answer.empty()) return reply(request, NO_SUCH_SESSION, "Sessão não existe");
    return request.fields[0] + answer.substr(answer.find('|'));
}

std::string SimulatedDevice::confirm(const Request& request) {
    return reply(request, DONE, request.operation.confirmation);
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
    return reply(request, DONE, request.operation.confirmation, {""});  // a field for the CSR
}

std::string SimulatedDevice::communicateCertificate(const Request& request) {
    const bool plausible = request.fields[2].find("BEGIN CERTIFICATE") != std::string::npos;
    return plausible ? confirm(request) : reply(request, 3, "Certificado inválido");
}

Issuer SimulatedDevice::issuer() const { return {m_stateCode, m_taxpayer, m_documents + 1, m_clock()}; }

/// Why no document can be issued now; empty where it can.
std::string SimulatedDevice::refusalOfDocument(const Request& request, int blockedCode) const {
    if (m_state == DeviceState::Blocked)
        return reply(request, blockedCode, "SAT bloqueado pelo contribuinte");
    if (m_booked.count(request.fields[0]) != 0)
        return reply(request, UNKNOWN_ERROR, "Número de sessão já utilizado");
    return {};
}

std::string SimulatedDevice::book(const Request& request, const SignedDocument& document) {
    ++m_documents;
    m_lastKey = document.key;
    m_lastTime = document.time;
    m_booked.insert(request.fields[0]);
    m_lastFiscalAnswer = reply(request, DONE, request.operation.confirmation,
                               {base64(document.xml), localTimeText("%Y%m%d%H%M%S", document.time),
                                document.key, document.total, document.customer, qrCodeSignature()});
    return m_lastFiscalAnswer;
}

std::string SimulatedDevice::sell(const Request& request) {
    if (std::string refusal = refusalOfDocument(request, 6); !refusal.empty()) return refusal;
    try {
        m_lastSale = signSale(request.fields[2], issuer(), MAX_DOCUMENT);
    } catch (const InvalidDocument& problem) {
        return reply(request, SALE_CONTENT, fieldText(std::string(CONTENT_TEXT) + ": " + problem.what()));
    }
    return book(request, *m_lastSale);
}

std::string SimulatedDevice::cancel(const Request& request) {
    if (std::string refusal = refusalOfDocument(request, 3); !refusal.empty()) return refusal;
    const bool known = m_lastSale && m_lastSale->key == request.fields[2];
    if (!known || m_clock() - m_lastSale->time > CANCELLATION_SECONDS)
        return reply(request, 2, "Cupom inválido");
    try {
        const SignedDocument document = signCancellation(request.fields[3], *m_lastSale, issuer());
        m_lastSale.reset();
        return book(request, document);
    } catch (const InvalidDocument& problem) {
        return reply(request, CANCELLATION_CONTENT,
                     fieldText(std::string(CONTENT_TEXT) + ": " + problem.what()));
    }
}

std::string SimulatedDevice::testEndToEnd(const Request& request) {
    try {
        const Issuer tester = issuer();
        const SignedDocument document = signSale(request.fields[2], tester, MAX_DOCUMENT);
        return reply(request, DONE, request.operation.confirmation,
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
    return reply(request, DONE, request.operation.confirmation,
                 {std::string(SERIAL_NUMBER),
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
    std::string log = "SAT " + std::string(SERIAL_NUMBER) + " (simulado)\n";
    for (const std::string& line : m_log) log += line + "\n";
    return reply(request, DONE, request.operation.confirmation, {base64(log)});
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
