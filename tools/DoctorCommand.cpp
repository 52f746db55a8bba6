#include "DoctorCommand.h"

#include <cstdlib>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>

#include "doctor/Examination.h"
#include "i18n.h"
#include "terminal_text.h"

namespace tool {
namespace {

using doctor::Examination;
using doctor::Finding;
using doctor::Verdict;

enum class Scope {
    Always,
    Machine,     ///< /dev and /sys, which fiscora sim does not stand in for
    Simulation,  ///< only there
    Asked        ///< only with --ask
};

struct Check {
    const char* step;   ///< name for programs; never changes
    const char* label;  ///< name for people
    Finding (*find)(Examination&);
    Scope scope = Scope::Always;
    const char* needs = "";  ///< the step that has to be in order first
};

constexpr Check CHECKS[] = {
    {"simulation", translatable("simulation"), doctor::checkSimulation, Scope::Simulation},
    {"usb_device", "USB", doctor::checkUsbDevice, Scope::Machine},
    {"by_id_entry", "by-id", doctor::checkEntry, Scope::Machine},
    {"node_number", translatable("node number"), doctor::checkNodeNumber, Scope::Machine, "by_id_entry"},
    {"node", translatable("node"), doctor::checkNode, Scope::Machine, "node_number"},
    {"permission", translatable("permission"), doctor::checkPermission, Scope::Machine, "node"},
    {"holder", translatable("other users"), doctor::checkHolders, Scope::Machine, "node"},
    {"terminal", translatable("terminal"), doctor::checkTerminal, Scope::Always, "permission"},
    {"log_directory", translatable("logs"), doctor::checkLogDirectory},
    {"commands", translatable("commands"), doctor::checkCommands},
    {"answer", translatable("answer"), doctor::checkAnswer, Scope::Asked, "terminal"},
};

struct VerdictNames {
    const char* shown;
    const char* json;
};

constexpr VerdictNames namesOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::Ok: return {translatable("ok"), "ok"};
        case Verdict::Warning: return {translatable("warning"), "warning"};
        case Verdict::Error: return {translatable("ERROR"), "error"};
        default: return {translatable("skipped"), "skipped"};
    }
}

/// Of the longest verdict, in either language.
constexpr std::size_t VERDICT_COLUMNS = 7;

/// Runs the checks and gives each finding to `report` as it comes.
template <typename Report>
void examine(bool ask, Report report) {
    Examination examination;
    const bool simulated = examination.simulatedLine != nullptr;
    std::map<std::string_view, const char*>
        causes;  // a step that is not in order, and the label of its cause
    for (const Check& check : CHECKS) {
        if (check.scope == Scope::Simulation && !simulated) continue;
        if (check.scope == Scope::Asked && !ask) continue;
        if (check.scope == Scope::Machine && simulated) {
            report(check, doctor::skipped(tr("does not apply to the simulation")));
            continue;
        }
        if (const auto cause = causes.find(check.needs); cause != causes.end()) {
            causes[check.step] = cause->second;
            report(check, doctor::skipped(
                              filled(tr("depends on the step \"%s\"; fix that first"), tr(cause->second))));
            continue;
        }
        const Finding finding = check.find(examination);
        if (finding.verdict == Verdict::Error || finding.verdict == Verdict::Skipped)
            causes[check.step] = check.label;
        report(check, finding);
    }
}

void print(const Check& check, const Finding& finding) {
    const std::string advice = finding.advice.empty() ? "" : " " + finding.advice;
    std::cout << leftAligned(tr(namesOf(finding.verdict).shown), VERDICT_COLUMNS) << "  " << tr(check.label)
              << ": " << withoutControls(finding.found + "." + advice) << std::endl;
}

nlohmann::ordered_json jsonOf(const Check& check, const Finding& finding) {
    return {{"step", check.step},
            {"verdict", namesOf(finding.verdict).json},
            {"found", finding.found},
            {"advice", finding.advice}};
}

struct Tally {
    int errors = 0;
    int warnings = 0;
    bool sawEverything = true;

    void count(const Finding& finding) {
        if (finding.verdict == Verdict::Error) ++errors;
        if (finding.verdict == Verdict::Warning) ++warnings;
        if (finding.verdict == Verdict::Ok && !finding.advice.empty()) sawEverything = false;
    }
};

std::string conclusion(const Tally& tally) {
    if (tally.errors > 0)
        return filled(tr("%d problem: fix it and run this again.", "%d problems: start with the first.",
                         static_cast<unsigned long>(tally.errors)),
                      tally.errors);
    if (tally.warnings > 0)
        return filled(tr("No problem, %d warning.", "No problem, %d warnings.",
                         static_cast<unsigned long>(tally.warnings)),
                      tally.warnings);
    return tally.sawEverything ? tr("Everything is in order.") : tr("No problem found.");
}

}  // namespace

DoctorCommand::DoctorCommand(CLI::App& application)
    : Subcommand(application, "doctor", tr("Say why the device is not found or does not answer"),
                 "fiscora doctor [--ask] [--json]") {
    m_options->add_flag("--ask", m_ask, tr("Call ConsultarSAT at the end; without this, nothing is sent"));
    m_options->add_flag("--json", m_json, tr("Print the result as one JSON object"));
    m_options->footer(tr(
        "Run it with the same user, working directory and environment as the application: permissions, logs "
        "and PATH depend on them.\n"
        "Exit status: 0 if everything is in order, 1 if there is an ERROR or a warning (a warning does not "
        "prevent "
        "calls), 2 for a wrong command line."));
}

int DoctorCommand::run(const std::vector<std::string>& operands) {
    refuseExtras(operands);
    Tally tally;
    auto findings = nlohmann::ordered_json::array();
    examine(m_ask, [&](const Check& check, const Finding& finding) {
        tally.count(finding);
        if (m_json)
            findings.push_back(jsonOf(check, finding));
        else
            print(check, finding);
    });
    if (m_json) {
        const nlohmann::ordered_json result{
            {"findings", findings}, {"errors", tally.errors}, {"warnings", tally.warnings}};
        std::cout << result.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
    } else {
        std::cout << conclusion(tally) << '\n';
    }
    return tally.errors + tally.warnings == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
