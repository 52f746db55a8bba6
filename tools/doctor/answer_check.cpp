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

/// What to do where the device did not answer.
const char* adviceFor(int status) {
    switch (status) {
        case FISCORA_STATUS_NO_ANSWER:
            return "Rode de novo; se repetir, troque o cabo USB e reinicie o equipamento.";
        case FISCORA_STATUS_READ_ERROR:
            return "Confira o cabo USB e a fonte, reinicie o equipamento e rode de novo.";
        case FISCORA_STATUS_REFUSED:
            return "Feche os outros programas que usam o equipamento, espere um minuto e rode de novo.";
        case FISCORA_STATUS_BAD_REQUEST: return "Reinstale a biblioteca: este pedido sempre cabe.";
        case FISCORA_STATUS_TIMEOUT:
            return "O equipamento pode estar ocupado ou iniciando: espere um minuto e rode de novo; se repetir, "
                   "reinicie-o.";
        default: return "Atualize este programa.";
    }
}

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
    const std::string found = "ConsultarSAT: status " + std::to_string(status) + " (FISCORA_STATUS_" +
                              std::string(tool::statusName(status)) + "), " +
                              std::string(tool::statusMeaning(status));
    if (status != FISCORA_STATUS_OK)
        return error(found,
                     (examination.processesHidden
                          ? "Veja com \"sudo fiscora doctor\" se outro programa tem o terminal aberto. "
                          : "") +
                         std::string(adviceFor(status)));
    const std::string answer = found + " " + fields[1] + ": " + fields[2];
    if (fields[1] == IN_OPERATION) return ok(answer);
    return warning(answer, "Procure o código no manual do equipamento.");
}

}  // namespace doctor
