/**
 * fiscora_status.h - what to tell the person at the till when a call fails. Plain C (C99, C++).
 *
 *     if (CodigoErro() != FISCORA_STATUS_OK) puts(fiscora_status_text(CodigoErro()));
 *
 * Optional: all of it is inline, and the library has no such function.
 */
#ifndef FISCORA_STATUS_H
#define FISCORA_STATUS_H

#include "fiscora.h"

/**
 * A sentence or two in Portuguese for the status `status` of CodigoErro(): what happened and what to do.
 * UTF-8, at most 80 characters, no line break. Constant: valid as long as the program runs. Never null; a
 * number that is not a FiscoraStatus has a text too. No text says whether the device booked a document: ask
 * ConsultarNumeroSessao.
 */
static inline const char* fiscora_status_text(int status) {
    switch (status) {
        case FISCORA_STATUS_OK: return "O equipamento respondeu.";
        case FISCORA_STATUS_NO_ANSWER:
            return "Equipamento não encontrado ou resposta danificada. Verifique o cabo.";
        case FISCORA_STATUS_READ_ERROR:
            return "A comunicação caiu. Verifique o cabo e a energia do equipamento.";
        case FISCORA_STATUS_REFUSED:
            return "O equipamento respondeu a outro pedido. Desligue-o e ligue-o de novo.";
        case FISCORA_STATUS_BAD_REQUEST:
            return "Dados inválidos ou grandes demais: nada foi enviado. Corrija-os.";
        case FISCORA_STATUS_TIMEOUT: return "O equipamento não respondeu a tempo. Ele pode estar ocupado.";
        default: return "Status desconhecido.";
    }
}

#endif
