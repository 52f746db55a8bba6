#include "rules/document.h"

#include <algorithm>
#include <array>

#include "fiscal/operations.h"

namespace fiscorad {
namespace {

// In the order of the numbers.
constexpr std::array<std::string_view, 2> KINDS{"venda", "cancelamento"};
constexpr std::array<std::string_view, 8> STATES{"na-fila",  "enviada",  "incerta",   "emitida",
                                                 "recusada", "retirada", "a-decidir", "abandonada"};

}  // namespace

std::string_view nameOf(Kind kind) { return KINDS.at(static_cast<std::size_t>(kind)); }

std::string_view nameOf(State state) { return STATES.at(static_cast<std::size_t>(state)); }

std::optional<State> stateNamed(std::string_view name) {
    const auto* const found = std::find(STATES.begin(), STATES.end(), name);
    if (found == STATES.end()) return std::nullopt;
    return static_cast<State>(found - STATES.begin());
}

const char* commandOf(Kind kind) {
    return kind == Kind::Sale ? manipulaDados::CMD_ENVIAR_DADOS_VENDA
                              : manipulaDados::CMD_CANCELA_ULTIMA_VENDA;
}

}  // namespace fiscorad
