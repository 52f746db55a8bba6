#pragma once

#include <cstddef>
#include <ctime>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fiscora.h"
#include "sim/FiscalDocument.h"

namespace manipulaDados {
struct Operation;
}

namespace sim {

enum class DeviceState { NotActivated, Active, Blocked };

/// A document that the device is about to book; valid during the call that it is passed to.
struct BookedDocument {
    std::time_t time;
    std::string_view operation;
    std::string_view session;
    std::string_view key;      ///< "CFe" and 44 digits
    std::string_view request;  ///< the document that was sent to the device, byte for byte
};

struct DeviceSettings {
    DeviceState state = DeviceState::Active;
    /// 8 to 32 characters. Ignored by a device that is not activated: AtivarSAT sets it.
    std::string activationCode = "12345678";
    std::string serialNumber = "900004019";  ///< 9 digits
    /// How many sessions ConsultarNumeroSessao can ask for; older ones are forgotten. What
    /// ConsultarUltimaSessaoFiscal returns is kept apart.
    std::size_t memory = 32;
    /// The device's clock; its dates and times are local time.
    std::function<std::time_t()> clock = [] { return std::time(nullptr); };
    /// Told of each sale and cancellation before it is booked. False: the device refuses it and books
    /// nothing.
    std::function<bool(const BookedDocument&)> booked = [](const BookedDocument&) { return true; };
};

/// The fiscal device as an application meets it: the text of a request goes in, the text of the answer comes
/// out. It keeps the state that later requests depend on, and does no input or output.
///
/// Answer layouts, codes and texts are those of the tax authority's public "Especificação de Requisitos do
/// SAT-CF-e", except what only the tax authority could provide; nothing here has fiscal value.
class SimulatedDevice {
  public:
    /// Largest answer text, in bytes: what the application's library takes.
    static constexpr std::size_t MAX_ANSWER = FISCORA_ANSWER_MAX_BYTES;
    /// How long after its sale a cancellation is accepted.
    static constexpr std::time_t CANCELLATION_SECONDS = std::time_t{30} * 60;

    explicit SimulatedDevice(DeviceSettings settings = {});

    /// The answer's text (UTF-8, fields separated by "|") to `request`, the text of a request for
    /// `operation`. Every request is answered; unknown and malformed ones are refused.
    std::string answer(const std::string& operation, const std::string& request);

    /// The answer of a device that is busy with something else, and does nothing for this request.
    std::string busyAnswer(const std::string& operation, const std::string& request) const;
    /// Forgets all sessions, as by a restart: none can be asked for, and each can book again. The books stay.
    void forgetSessions();

    /// Whether field `field` (from 0) of a request for `operation` holds an activation code, present or new.
    static bool isSecret(std::string_view operation, std::size_t field);
    /// Whether `code` may be an activation code: 8 to 32 characters, no "|".
    static bool isActivationCode(std::string_view code);
    /// Whether `number` may be a serial number: 9 digits.
    static bool isSerialNumber(std::string_view number);

  private:
    struct Service;
    struct Request {
        const manipulaDados::Operation& operation;
        const Service& service;
        std::vector<std::string> fields;  ///< at most one per parameter: a "|" in the last one belongs to it
    };
    using Handler = std::string (SimulatedDevice::*)(const Request&);

    static const Service& serviceOf(const manipulaDados::Operation& operation);
    static std::optional<Request> parse(const std::string& operation, const std::string& request);

    std::string judge(const Request& request);
    std::string reply(const Request& request, int code, std::string_view text,
                      const std::vector<std::string>& more = {}) const;
    void remember(const Request& request, const std::string& answer);
    std::string replay(const Request& request, const std::string& answer) const;

    std::string activate(const Request& request);
    std::string communicateCertificate(const Request& request);
    std::string sell(const Request& request);
    std::string cancel(const Request& request);
    std::string testEndToEnd(const Request& request);
    std::string status(const Request& request);
    std::string answerOfSession(const Request& request);
    std::string answerOfLastFiscalSession(const Request& request);
    std::string configureNetwork(const Request& request);
    std::string associateSignature(const Request& request);
    std::string extractLog(const Request& request);
    std::string block(const Request& request);
    std::string unblock(const Request& request);
    std::string changeCode(const Request& request);
    std::string confirm(const Request& request);

    std::string refusalOfDocument(const Request& request, int blockedCode) const;
    std::string book(const Request& request, const SignedDocument& document,
                     std::optional<SignedDocument> cancellable);
    Issuer issuer() const;

    DeviceState m_state;
    std::string m_activationCode;
    std::string m_serialNumber;
    std::size_t m_memory;  ///< sessions
    std::function<std::time_t()> m_clock;
    std::function<bool(const BookedDocument&)> m_booking;
    std::string m_taxpayer = "11222333000181";  ///< CNPJ, for sales that name none
    std::string m_stateCode = "35";             ///< IBGE code of the federal unit
    int m_documents = 0;                        ///< issued so far

    std::optional<SignedDocument> m_lastSale;  ///< the one that may still be cancelled
    std::string m_lastKey;                     ///< of the last document, as are the next two
    std::time_t m_lastTime = 0;
    std::string m_lastFiscalAnswer;
    std::set<std::string> m_booked;                              ///< sessions that have issued a document
    std::deque<std::pair<std::string, std::string>> m_sessions;  ///< session and answer, oldest first
    std::deque<std::string> m_log;
};

}  // namespace sim
