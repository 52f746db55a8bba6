#include "DoctorCommand.h"

#include <cstdlib>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>

#include "doctor/Examination.h"
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
    const char* needs = "";  ///< the step without which this one makes no sense
};

constexpr Check CHECKS[] = {
    {"simulation", "simulação", doctor::checkSimulation, Scope::Simulation},
    {"usb_device", "USB", doctor::checkUsbDevice, Scope::Machine},
    {"by_id_entry", "by-id", doctor::checkEntry, Scope::Machine},
    {"node_number", "número do nó", doctor::checkNodeNumber, Scope::Machine, "by_id_entry"},
    {"node", "nó", doctor::checkNode, Scope::Machine, "node_number"},
    {"permission", "permissão", doctor::checkPermission, Scope::Machine, "node"},
    {"holder", "uso por outros", doctor::checkHolders, Scope::Machine, "node"},
    {"terminal", "terminal", doctor::checkTerminal, Scope::Always, "permission"},
    {"log_directory", "logs", doctor::checkLogDirectory},
    {"commands", "comandos", doctor::checkCommands},
    {"answer", "resposta", doctor::checkAnswer, Scope::Asked, "terminal"},
};

struct VerdictNames {
    const char* shown;  ///< all of one width
    const char* json;
};

constexpr VerdictNames namesOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::Ok: return {"ok    ", "ok"};
        case Verdict::Warning: return {"aviso ", "warning"};
        case Verdict::Error: return {"ERRO  ", "error"};
        default: return {"pulado", "skipped"};
    }
}

/// Runs the checks and gives each finding to `report` as it comes.
template <typename Report>
void examine(bool ask, Report report) {
    Examination examination;
    const bool simulated = examination.simulatedLine != nullptr;
    std::map<std::string_view, const char*> causes;  // step that has failed or fell with another; why
    for (const Check& check : CHECKS) {
        if (check.scope == Scope::Simulation && !simulated) continue;
        if (check.scope == Scope::Asked && !ask) continue;
        if (check.scope == Scope::Machine && simulated) {
            report(check, doctor::skipped("não se aplica à simulação"));
            continue;
        }
        const auto cause = causes.find(check.needs);
        const Finding finding = cause != causes.end()
                                    ? doctor::skipped(std::string("resolva antes: ") + cause->second)
                                    : check.find(examination);
        if (finding.verdict == Verdict::Error || finding.verdict == Verdict::Skipped)
            causes[check.step] = cause != causes.end() ? cause->second : check.label;
        report(check, finding);
    }
}

}  // namespace

DoctorCommand::DoctorCommand(CLI::App& application)
    : Subcommand(application, "doctor", "Diz por que o equipamento não é achado ou não responde",
                 "fiscora doctor [--ask] [--json]") {
    m_options->set_help_flag("-h,--help", "Mostra esta ajuda");
    m_options->add_flag("--ask", m_ask, "No fim, faz um ConsultarSAT; sem isto nada é enviado");
    m_options->add_flag("--json", m_json, "Escreve o resultado como um objeto JSON");
    m_options->footer(
        "Rode na conta, na pasta de trabalho e no ambiente do aplicativo: permissões, logs e o caminho de "
        "busca são julgados como valem ali.\n"
        "Status de saída: 0 se tudo está em ordem, 1 com algum ERRO ou aviso (um aviso não impede as "
        "chamadas), 2 para uma linha de comando errada.");
}

int DoctorCommand::run(const std::vector<std::string>& operands) {
    if (!operands.empty()) throw CLI::ExtrasError(operands);
    int errors = 0;
    int warnings = 0;
    bool knowsAll = true;
    auto findings = nlohmann::ordered_json::array();
    examine(m_ask, [&](const Check& check, const Finding& finding) {
        if (finding.verdict == Verdict::Error) ++errors;
        if (finding.verdict == Verdict::Warning) ++warnings;
        if (finding.verdict == Verdict::Ok && !finding.advice.empty()) knowsAll = false;
        if (m_json) {
            findings.push_back({{"step", check.step},
                                {"verdict", namesOf(finding.verdict).json},
                                {"found", finding.found},
                                {"advice", finding.advice}});
            return;
        }
        std::cout << namesOf(finding.verdict).shown << "  " << check.label << ": "
                  << withoutControls(finding.found + "." + (finding.advice.empty() ? "" : " ") +
                                     finding.advice)
                  << std::endl;
    });

    if (m_json) {
        const nlohmann::ordered_json result{
            {"findings", findings}, {"errors", errors}, {"warnings", warnings}};
        std::cout << result.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
    } else if (errors > 0) {
        std::cout << doctor::counted(errors, "problema")
                  << (errors == 1 ? ": resolva-o e rode de novo.\n" : ": comece pelo primeiro.\n");
    } else if (warnings > 0) {
        std::cout << "Nenhum problema, " << doctor::counted(warnings, "aviso") << ".\n";
    } else {
        std::cout << (knowsAll ? "Tudo em ordem.\n" : "Nada errado à vista.\n");
    }
    return errors + warnings == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
