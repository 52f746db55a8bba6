#include "crash/trace.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <string_view>
#include <vector>

#include "fields.h"
#include "fiscal/operations.h"
#include "sim/Fault.h"

namespace crash {
namespace {

using namespace std::string_view_literals;

/// One call that reached the device.
struct Call {
    const manipulaDados::Operation* operation = nullptr;
    int session = 0;
    const sim::Fault* fault = nullptr;
};

/// Reads what stands between `before` and `after` in the line; empty if they do not.
std::string_view between(std::string_view line, std::string_view before, std::string_view after) {
    const std::size_t begin = line.find(before);
    if (begin == std::string_view::npos) return {};
    line.remove_prefix(begin + before.size());
    return line.substr(0, line.find(after));
}

std::vector<Call> readCalls(const std::filesystem::path& trace, Counter& counter) {
    std::vector<Call> calls;
    std::ifstream lines(trace);
    bool isRequest = false;
    for (std::string line; std::getline(lines, line);) {
        if (const auto name = between(line, " --> ", ","); !name.empty()) {
            isRequest = true;
            calls.push_back({manipulaDados::findOperation(name), 0, nullptr});
        } else if (line.find(" <-- ") != std::string::npos) {
            isRequest = false;
        } else if (const auto session = between(line, "    | ", "|"); isRequest && !session.empty()) {
            calls.back().session = std::stoi(std::string(session));
        } else if (const auto fault = between(line, "     fault: ", "\n"); !fault.empty()) {
            counter.count("faults of the device");
            counter.count("  " + std::string(fault));
            const sim::Fault* const known = sim::findFault(fault);
            // Of a request that was cut off the trace shows nothing but that.
            if (known != nullptr && known->spoil != nullptr && !calls.empty()) calls.back().fault = known;
        }
    }
    return calls;
}

/// Whether nothing that the service can use has come back.
bool isLost(const Call& call) {
    if (call.fault == nullptr) return false;
    if (call.fault->measure != nullptr) return call.fault->name == "restart"sv;  // others may end well
    return call.fault->answer != sim::Answer::Own && call.fault->answer != sim::Answer::Hostile &&
           call.fault->answer != sim::Answer::Previous;
}

bool isQuestion(const manipulaDados::Operation& operation) {
    constexpr std::array QUESTIONS{manipulaDados::CMD_CONSULTA_STATUS_OP,
                                   manipulaDados::CMD_CONSULTAR_NUM_SESSAO,
                                   manipulaDados::CMD_CONSULTA_ULTIMA_SESSAO_FISCAL};
    return std::any_of(QUESTIONS.begin(), QUESTIONS.end(),
                       [&](std::string_view question) { return question == operation.command; });
}

}  // namespace

void checkTrace(const std::filesystem::path& trace, Counter& counter) {
    std::set<int> sessions;
    const Call* inDoubt = nullptr;  // a document whose answer was lost, with no question answered since
    const std::vector<Call> calls = readCalls(trace, counter);
    for (const Call& call : calls) {
        counter.count("calls of the device");
        const std::string name = "session " + std::to_string(call.session);
        if (call.operation == nullptr || call.session == 0) {
            counter.differ("the device was sent something that is no call: " + name);
            continue;
        }
        if (!sessions.insert(call.session).second) counter.differ(name + " is used twice");
        if (inDoubt != nullptr && !isQuestion(*call.operation))
            counter.differ(std::string(call.operation->command) + " in " + name +
                           " was sent while nobody knew what became of session " +
                           std::to_string(inDoubt->session));
        if (isQuestion(*call.operation) && !isLost(call)) inDoubt = nullptr;
        if (call.operation->effect == manipulaDados::Effect::Books && isLost(call)) inDoubt = &call;
    }
}

}  // namespace crash
