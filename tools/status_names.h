#pragma once

#include <string_view>

#include "fiscora.h"

namespace tool {

/// Name of a FiscoraStatus without its prefix FISCORA_STATUS_; empty where it has none.
constexpr std::string_view statusName(int status) {
    switch (status) {
        case FISCORA_STATUS_OK: return "OK";
        case FISCORA_STATUS_NO_ANSWER: return "NO_ANSWER";
        case FISCORA_STATUS_READ_ERROR: return "READ_ERROR";
        case FISCORA_STATUS_REFUSED: return "REFUSED";
        case FISCORA_STATUS_BAD_REQUEST: return "BAD_REQUEST";
        case FISCORA_STATUS_TIMEOUT: return "TIMEOUT";
        default: return "";
    }
}

/// What a status says, in the technician's language.
constexpr std::string_view statusMeaning(int status) {
    switch (status) {
        case FISCORA_STATUS_OK: return "o equipamento respondeu";
        case FISCORA_STATUS_NO_ANSWER:
            return "o equipamento não foi achado ou não abriu, ou a resposta veio danificada";
        case FISCORA_STATUS_READ_ERROR: return "a linha caiu, ou ficou 50 s em silêncio";
        case FISCORA_STATUS_REFUSED:
            return "o equipamento insistiu em responder a outro pedido, ou respondeu demais";
        case FISCORA_STATUS_BAD_REQUEST: return "o pedido não coube na biblioteca, e nada foi enviado";
        case FISCORA_STATUS_TIMEOUT: return "o prazo da operação acabou sem a resposta";
        default: return "desconhecido por esta versão";
    }
}

}  // namespace tool
