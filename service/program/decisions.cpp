// The commands decide and confirm.
#include <cstdlib>
#include <iostream>

#include "i18n.h"
#include "program/commands.h"
#include "rules/AccessKey.h"
#include "terminal_text.h"
#include "time_text.h"

namespace fiscorad {
namespace {

using tool::filled;
using tool::tr;

/// An access key, or that there is none.
std::string shownKey(const std::string& digits) {
    return digits.empty() ? tr("no document") : "CFe" + digits;
}

void showEvidence(Journal& journal, const Document& document) {
    std::cout << nameOf(document.kind) << " " << document.key << ": " << nameOf(document.state) << "\n";
    for (const Attempt& attempt : journal.attempts(document.id))
        std::cout << filled(tr("Attempt of %s: session %06d, device %s, its last document before: %s"),
                            timeText(attempt.madeAt).c_str(), attempt.session, attempt.serial.c_str(),
                            shownKey(attempt.lastDocument).c_str())
                  << "\n";
    for (const HistoryEntry& entry : journal.history(document.id)) {
        std::cout << timeText(entry.at) << "  " << nameOf(entry.state) << "  "
                  << tool::withoutControls(entry.text);
        if (!entry.person.empty())
            std::cout << " (" << tool::withoutControls(entry.person) << ": "
                      << tool::withoutControls(entry.reason) << ")";
        std::cout << "\n";
    }
    if (const auto attempt = journal.lastAttempt(document.id)) {
        if (const auto device = journal.device(attempt->serial))
            std::cout << filled(tr("Last document of device %s: %s"), attempt->serial.c_str(),
                                shownKey(device->lastDocument).c_str())
                      << "\n";
    }
}

}  // namespace

DecideCommand::DecideCommand(CLI::App& application, const Settings& settings)
    : Command(application, settings, "decide", tr("Decide about a document whose outcome cannot be proved"),
              tr("fiscorad decide KEY --booked CFe...|--send-again|--abandon --reason TEXT")) {
    m_options->add_option("key", m_key, tr("The till's key of the document"))
        ->required()
        ->option_text(tr("KEY"));
    m_options->add_option("--booked", m_accessKey, tr("The device has booked it, under this access key"))
        ->type_name("CFe...");
    m_options->add_flag("--send-again", m_sendAgain, tr("The device has not booked it: send it again"));
    m_options->add_flag("--abandon", m_abandon, tr("Give up: nobody will find out whether it was booked"));
    m_options->add_option("--reason", m_reason, tr("Why; kept in the journal with your name"))
        ->required()
        ->type_name(tr("TEXT"));
}

int DecideCommand::run(const std::vector<std::string>& operands) {
    tool::refuseExtras(operands);
    const int decisions = (m_accessKey.empty() ? 0 : 1) + (m_sendAgain ? 1 : 0) + (m_abandon ? 1 : 0);
    if (decisions != 1) throw CLI::ValidationError(tr("give one of --booked, --send-again or --abandon"));
    Ruling ruling;
    ruling.person = person();
    ruling.reason = m_reason;
    std::string question = tr("Abandon it?");
    if (m_sendAgain) {
        ruling.kind = Ruling::Kind::SendAgain;
        question = tr("Send it again? If the device has booked it, it is then booked twice.");
    } else if (!m_abandon) {
        const auto key = AccessKey::parse(m_accessKey);
        if (!key) throw CLI::ValidationError(filled(tr("%s is not an access key"), m_accessKey.c_str()));
        ruling.kind = Ruling::Kind::Booked;
        ruling.accessKey = key->text();
        question = filled(tr("Record it as booked under %s?"), ruling.accessKey.c_str());
    }
    if (m_reason.empty()) throw CLI::ValidationError(tr("--reason: a reason is missing"));

    Journal journal = openJournal();
    const auto document = journal.find(m_key);
    if (!document) {
        std::cerr << "fiscorad decide: " << filled(tr("no document has the key %s"), m_key.c_str()) << "\n";
        return EXIT_FAILURE;
    }
    showEvidence(journal, *document);
    const auto refuse = [&](const std::string& why) {
        std::cerr << "fiscorad decide: " << why << "\n";
        return EXIT_FAILURE;
    };
    const std::string decided = tr("there is nothing to decide about this document");
    if (document->state != State::Undecided && document->state != State::Uncertain) return refuse(decided);
    if (!goesOn(question)) return EXIT_FAILURE;
    try {
        const auto after = journal.rule(m_key, ruling);
        if (!after) return refuse(decided);
        std::cout << after->key << ": " << nameOf(after->state) << "\n";
        return EXIT_SUCCESS;
    } catch (const std::invalid_argument& taken) {
        return refuse(taken.what());
    }
}

ConfirmCommand::ConfirmCommand(CLI::App& application, const Settings& settings)
    : Command(application, settings, "confirm",
              tr("Confirm a device that shows a document which the journal does not explain"),
              tr("fiscorad confirm --reason TEXT")) {
    m_options->add_option("--reason", m_reason, tr("Why; kept in the journal with your name"))
        ->required()
        ->type_name(tr("TEXT"));
}

int ConfirmCommand::run(const std::vector<std::string>& operands) {
    tool::refuseExtras(operands);
    if (m_reason.empty()) throw CLI::ValidationError(tr("--reason: a reason is missing"));
    Journal journal = openJournal();
    const auto alarms = journal.alarms();
    if (alarms.empty()) {
        std::cout << tr("There is nothing to confirm") << "\n";
        return EXIT_SUCCESS;
    }
    for (const Alarm& alarm : alarms)
        std::cout << filled(tr("%s: device %s shows %s; the journal explains %s"),
                            timeText(alarm.since).c_str(), alarm.serial.c_str(),
                            shownKey(alarm.shown).c_str(), shownKey(alarm.explained).c_str())
                  << "\n";
    if (!goesOn(tr("Go on selling on this device?"))) return EXIT_FAILURE;
    for (const Alarm& alarm : alarms) journal.confirm(alarm.id, person(), m_reason);
    std::cout << tr("Confirmed") << "\n";
    return EXIT_SUCCESS;
}

}  // namespace fiscorad
