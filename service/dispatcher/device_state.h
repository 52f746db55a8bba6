#pragma once

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "rules/document.h"

namespace manipulaDados {
struct Operation;
}

namespace fiscorad {

/// The last call that was made.
struct LastCall {
    std::string operation;
    int session = 0;
    int status = 0;
    std::string code;  ///< EEEEE; empty if there was no answer
    Time began;
    std::chrono::milliseconds duration{0};
};

/// The device's state.
struct DeviceState {
    enum class Condition {
        Unknown,      ///< not asked yet
        Answering,    ///< it answered last time
        Busy,         ///< a call is running
        Resolving,    ///< a document without an outcome is being asked about
        Absent,       ///< no device, no answer, or another program owns it
        CodeRefused,  ///< it refused the activation code: nothing is sent until the code file changes
        Divergent,  ///< it shows a document that the journal does not explain: nothing is sent until a person
                    ///< confirms
    };
    Condition condition = Condition::Unknown;
    std::string serial;        ///< empty while unknown
    std::string lastDocument;  ///< 44 digits
    std::optional<LastCall> lastCall;
    std::string resolving;  ///< key of the document being resolved
};

/// What the conditions are called outside, in their order.
constexpr std::array<const char*, 7> CONDITION_NAMES{
    "desconhecido", "respondendo", "ocupado", "resolvendo", "ausente", "codigo-recusado", "divergente"};

/// An operation that is not a document, and what came of it.
struct OperationRequest {
    const manipulaDados::Operation* operation = nullptr;
    /// By the names of the operation's parameters, without numeroSessao and codigoDeAtivacao. Checked: each
    /// is there, and a number where the parameter is one.
    std::map<std::string, std::string> arguments;
};
/// The argument of TrocarCodigoDeAtivacao that holds the emergency code in place of the present one.
constexpr char EMERGENCY_CODE[] = "codigoDeAtivacao";
/// Whether the request needs it: opcao is 2.
bool usesEmergencyCode(const OperationRequest& request);
/// Whether the device takes a code by it although it refuses the present one: it is not activated yet, or the
/// emergency code is at hand.
bool setsCode(const OperationRequest& request);

struct OperationResult {
    enum class Result {
        Done,
        DocumentOpen,  ///< a document without an outcome is being asked about
        NoDevice,      ///< or another program owns it
        CodeRefused,   ///< the device has refused the activation code, and the code file has not changed;
                       ///< not of a request that sets the code
        CodeNotKept,   ///< TrocarCodigoDeAtivacao: the new code cannot be written to the code file
        Stopping,
    };
    Result result = Result::Done;
    int status = 0;   ///< a FiscoraStatus, if Done
    int session = 0;  ///< under which it was called
    std::string answer;
};

}  // namespace fiscorad
