#include "program/commands.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>

#include "i18n.h"
#include "terminal_text.h"

namespace fiscorad {

Command::Command(CLI::App& application, const Settings& settings, const std::string& name,
                 const std::string& description, const std::string& usage)
    : Subcommand(application, name, description, usage), m_settings(settings) {}

Journal Command::openJournal() const { return Journal(m_settings.journal, Journal::IfMissing::Refuse); }

bool goesOn(const std::string& question) {
    if (isatty(STDIN_FILENO) == 0) return true;
    std::cout << question << " [" << tool::tr("y/N") << "] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    std::transform(answer.begin(), answer.end(), answer.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const std::string yes = tool::tr("yes");
    return !answer.empty() && (answer == yes || answer == yes.substr(0, 1));
}

std::string person() {
    if (const char* const user = std::getenv("SUDO_USER"); user != nullptr && *user != '\0')
        return tool::withoutControls(user);
    const passwd* const entry = getpwuid(getuid());
    return entry == nullptr ? std::to_string(getuid()) : entry->pw_name;
}

}  // namespace fiscorad
