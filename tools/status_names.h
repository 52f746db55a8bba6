#pragma once

#include <string_view>

#include "fiscora.h"
#include "i18n.h"

namespace tool {

/// Name of a FiscoraStatus without its prefix FISCORA_STATUS_; empty if it has none.
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

/// What a status means, in English; `tr` translates it.
constexpr const char* statusMeaning(int status) {
    switch (status) {
        case FISCORA_STATUS_OK: return translatable("the device answered");
        case FISCORA_STATUS_NO_ANSWER:
            return translatable("the device was not found or could not be opened, or its answer was damaged");
        case FISCORA_STATUS_READ_ERROR: return translatable("the line went down, or was silent for 50 s");
        case FISCORA_STATUS_REFUSED:
            return translatable("the device kept answering another request, or its answers were too long");
        case FISCORA_STATUS_BAD_REQUEST:
            return translatable("the request is too long for the library; nothing was sent");
        case FISCORA_STATUS_TIMEOUT: return translatable("the operation's time ran out without an answer");
        default: return translatable("unknown to this version");
    }
}

}  // namespace tool
