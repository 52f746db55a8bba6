#include "program/Log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>

#include "i18n.h"
#include "rules/rules.h"
#include "terminal_text.h"
#include "time_text.h"

namespace fiscorad {
namespace {

/// Whether standard error goes to the system's journal, as systemd.exec(5) describes it.
bool isSystemJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat present {};
    if (stream == nullptr || fstat(STDERR_FILENO, &present) != 0) return false;
    return std::to_string(present.st_dev) + ":" + std::to_string(present.st_ino) == stream;
}

/// Whether `now` is worth a line. Every call passes through some conditions, which are not.
bool isNews(const DeviceState& before, const DeviceState& now) {
    using Condition = DeviceState::Condition;
    if (now.condition == Condition::Busy || now.condition == Condition::Unknown) return false;
    const bool another = now.condition == Condition::Answering && now.serial != before.serial;
    return another || now.condition != before.condition;
}

}  // namespace

std::string Log::describe(const DeviceState& device) {
    using Condition = DeviceState::Condition;
    switch (device.condition) {
        case Condition::Answering: return tool::filled(tool::tr("device %s answers"), device.serial.c_str());
        case Condition::Resolving:
            return tool::filled(tool::tr("asking the device what became of %s"), device.resolving.c_str());
        case Condition::Absent: return tool::tr("no device, or it does not answer: run fiscora doctor");
        case Condition::CodeRefused:
            return tool::tr("the device refuses the activation code: nothing is sent until its file changes");
        case Condition::Divergent:
            return tool::tr(
                "the device shows a document that the journal does not explain: nothing is sent until "
                "someone runs fiscorad confirm");
        case Condition::Unknown:
        case Condition::Busy: break;
    }
    return "";
}

Log::Log() : m_forSystemJournal(isSystemJournal()) {}

Changes::Subscription Log::follow(Service& service) {
    return service.changes().watchAll([this](const Document& document) { tellDocument(document); },
                                      [this, &service] { tellDevice(service); });
}

void Log::write(int priority, const std::string& text) {
    const std::string start = m_forSystemJournal ? "<" + std::to_string(priority) + ">"
                                                 : timeText(std::chrono::system_clock::now()) + " ";
    // In one piece, so that lines of several threads do not mix.
    const std::string line = start + tool::withoutControls(text) + "\n";
    const std::lock_guard lock(m_mutex);
    std::cerr << line << std::flush;
}

void Log::tellDocument(const Document& document) {
    std::string text =
        std::string(nameOf(document.kind)) + " " + document.key + ": " + std::string(nameOf(document.state));
    if (document.session) text += ", sessao " + std::to_string(*document.session);
    if (const rules::Fields answer(document.answer); !answer.code().empty())
        text += ", EEEEE " + std::string(answer.code());
    if (!document.accessKey.empty()) text += ", " + document.accessKey;
    const bool worries = document.state == State::Uncertain || document.state == State::Undecided;
    write(worries ? WARNING : INFO, text);
}

void Log::tellDevice(Service& service) {
    const DeviceState device = service.device();
    {
        const std::lock_guard lock(m_mutex);
        if (!isNews(m_device, device)) return;
        m_device = device;
    }
    write(device.condition == DeviceState::Condition::Answering ? INFO : WARNING, describe(device));
}

}  // namespace fiscorad
