// One call to the device.

#include <algorithm>
#include <chrono>
#include <random>

#include "DeviceLock.h"
#include "Progress.h"
#include "doctor/Examination.h"
#include "fiscal/operations.h"
#include "fiscora.h"
#include "i18n.h"
#include "status_names.h"
#include "terminal_text.h"
#include "transaction/DoTransaction.h"

namespace doctor {

using tool::filled;
using tool::tr;

namespace {

/// What to do if the device did not answer.
const char* adviceFor(int status) {
    switch (status) {
        case FISCORA_STATUS_NO_ANSWER:
            return tr("Run this again; if it happens again, replace the USB cable and restart the device.");
        case FISCORA_STATUS_READ_ERROR:
            return tr("Check the USB cable and the power supply, restart the device and run this again.");
        case FISCORA_STATUS_REFUSED:
            return tr("Close the other programs that use the device, wait a minute and run this again.");
        case FISCORA_STATUS_BAD_REQUEST: return tr("Reinstall the library: this request always fits.");
        case FISCORA_STATUS_TIMEOUT:
            return tr(
                "The device may be busy or starting: wait a minute and run this again; if it happens again, "
                "restart it.");
        default: return tr("Update this program.");
    }
}

constexpr std::chrono::seconds LONGEST_WAIT{30};  ///< for another program's call to end

int anySessionNumber() {
    std::random_device source;
    return std::uniform_int_distribution<int>(1, 999999)(source);
}

}  // namespace

Finding checkAnswer(Examination& examination) {
    if (!examination.holders.empty())
        return skipped(tr("the request would disturb the program that has the terminal open"));

    const auto& operation = *manipulaDados::findOperation(manipulaDados::CMD_CONSULTA_SAT);
    std::vector<std::string> fields;
    {
        const tool::DeviceLock turn("fiscora doctor", LONGEST_WAIT);
        if (turn.state() == tool::DeviceLock::State::Busy)
            return skipped(tr("the request would disturb the program that has the terminal open"));
        const tool::Progress progress(operation.command, std::chrono::milliseconds(operation.timeoutMs));
        fields = split(ConsultarSAT(anySessionNumber()), '|');
    }
    fields.resize(std::max<std::size_t>(fields.size(), 3));
    const int status = CodigoErro();
    const std::string found =
        filled("ConsultarSAT: status %d (FISCORA_STATUS_%s), %s", status,
               std::string(tool::statusName(status)).c_str(), tr(tool::statusMeaning(status)));
    if (status != FISCORA_STATUS_OK)
        return error(
            found, (examination.processesHidden
                        ? tr("Run \"sudo fiscora doctor\" to see if another program has the terminal open.") +
                              std::string(" ")
                        : "") +
                       std::string(adviceFor(status)));
    const std::string answer = found + " " + fields[1] + ": " + tool::toUtf8(fields[2]);
    if (operation.succeededWith(fields[1])) return ok(answer);
    return warning(answer, tr("Look the code up in the device's manual."));
}

}  // namespace doctor
