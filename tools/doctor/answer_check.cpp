// One call to the device.

#include <algorithm>
#include <chrono>
#include <random>

#include "Progress.h"
#include "doctor/Examination.h"
#include "fiscal/operations.h"
#include "fiscora.h"
#include "status_names.h"
#include "transaction/DoTransaction.h"

namespace doctor {
namespace {

struct StatusMeaning {
    int status;
    const char* meaning;
    const char* advice;
};

constexpr StatusMeaning MEANINGS[] = {
    {FISCORA_STATUS_OK, "o equipamento respondeu", ""},
    {FISCORA_STATUS_NO_ANSWER, "o equipamento não foi achado ou não abriu, ou a resposta veio danificada",
     "Rode de novo; se repetir, troque o cabo USB e reinicie o equipamento."},
    {FISCORA_STATUS_READ_ERROR, "a linha caiu, ou ficou 50 s em silêncio",
     "Confira o cabo USB e a fonte, reinicie o equipamento e rode de novo."},
    {FISCORA_STATUS_REFUSED, "o equipamento insistiu em responder a outro pedido, ou respondeu demais",
     "Feche os outros programas que usam o equipamento, espere um minuto e rode de novo."},
    {FISCORA_STATUS_BAD_REQUEST, "o pedido não coube na biblioteca, e nada foi enviado",
     "Reinstale a biblioteca: este pedido sempre cabe."},
    {FISCORA_STATUS_TIMEOUT, "o prazo da operação acabou sem a resposta",
     "O equipamento pode estar ocupado ou iniciando: espere um minuto e rode de novo; se repetir, reinicie-o."},
};

/// EEEEE of ConsultarSAT by the tax authority's "Especificação de Requisitos do SAT-CF-e".
constexpr char IN_OPERATION[] = "08000";

int anySessionNumber() {
    std::random_device source;
    return std::uniform_int_distribution<int>(1, 999999)(source);
}

}  // namespace

Finding checkAnswer(Examination& examination) {
    if (!examination.holders.empty())
        return skipped("o pedido atrapalharia o programa que tem o terminal aberto");

    std::vector<std::string> fields;
    {
        const manipulaDados::Operation* operation =
            manipulaDados::findOperation(manipulaDados::CMD_CONSULTA_SAT);
        const tool::Progress progress(operation->command, std::chrono::milliseconds(operation->timeoutMs));
        fields = split(ConsultarSAT(anySessionNumber()), '|');
    }
    fields.resize(std::max<std::size_t>(fields.size(), 3));
    const int status = CodigoErro();
    const auto* row = std::find_if(std::begin(MEANINGS), std::end(MEANINGS),
                                   [&](const StatusMeaning& meaning) { return meaning.status == status; });
    if (row == std::end(MEANINGS))
        return error("status " + std::to_string(status) + ", desconhecido", "Atualize este programa.");
    const std::string found = "ConsultarSAT: status " + std::to_string(status) + " (FISCORA_STATUS_" +
                              std::string(tool::statusName(status)) + "), " + row->meaning;
    if (status != FISCORA_STATUS_OK) return error(found, row->advice);
    const std::string answer = found + " " + fields[1] + ": " + fields[2];
    if (fields[1] == IN_OPERATION) return ok(answer);
    return warning(answer, "Procure o código no manual do equipamento.");
}

}  // namespace doctor
