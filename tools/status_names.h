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

}  // namespace tool
