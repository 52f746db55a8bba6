#include "dispatcher/device_state.h"

#include <string_view>

#include "fiscal/operations.h"

namespace fiscorad {
namespace {

bool isOperation(const OperationRequest& request, std::string_view command) {
    return request.operation->command == command;
}

}  // namespace

bool usesEmergencyCode(const OperationRequest& request) {
    constexpr std::string_view BY_EMERGENCY_CODE = "2";
    const auto option = request.arguments.find("opcao");
    return isOperation(request, manipulaDados::CMD_TROCA_COD_ATIVACAO) && option != request.arguments.end() &&
           option->second == BY_EMERGENCY_CODE;
}

bool setsCode(const OperationRequest& request) {
    return isOperation(request, manipulaDados::CMD_ATIVAR_SAT) || usesEmergencyCode(request);
}

}  // namespace fiscorad
