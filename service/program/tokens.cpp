// The command token.
#include <cstdlib>
#include <iostream>

#include "access/Token.h"
#include "i18n.h"
#include "program/commands.h"
#include "terminal_text.h"
#include "time_text.h"

namespace fiscorad {
namespace {

using tool::filled;
using tool::tr;

int fail(const std::string& why) {
    std::cerr << "fiscorad token: " << why << "\n";
    return EXIT_FAILURE;
}

int add(Journal& journal, const std::string& name, Role role) {
    const std::string secret = newSecret();
    const Token token{name, role, hashOf(secret), std::chrono::system_clock::now(), std::nullopt};
    if (!journal.addToken(token)) return fail(filled(tr("%s has a token already"), name.c_str()));
    journal.recordAction(person(), role == Role::Administrator ? "token de administração" : "token", name);
    std::cout << secret << std::endl;
    std::cerr << tr("Keep it now: it is not shown again, and the journal has only its hash.") << "\n";
    return EXIT_SUCCESS;
}

int revoke(Journal& journal, const std::string& name) {
    if (!journal.revokeToken(name)) return fail(filled(tr("no token is named %s"), name.c_str()));
    journal.recordAction(person(), "token revogado", name);
    std::cout << filled(tr("%s: revoked"), name.c_str()) << "\n";
    if (!journal.hasTokens())
        std::cerr << tr("That was the last token: anyone on this machine is now an administrator.") << "\n";
    return EXIT_SUCCESS;
}

int list(Journal& journal) {
    for (const Token& token : journal.tokens()) {
        std::cout << token.name << "\t"
                  << (token.role == Role::Administrator ? tr("administrator") : tr("till")) << "\t"
                  << timeText(token.madeAt);
        if (token.revokedAt)
            std::cout << "\t" << filled(tr("revoked %s"), timeText(*token.revokedAt).c_str());
        std::cout << "\n";
    }
    return EXIT_SUCCESS;
}

}  // namespace

TokenCommand::TokenCommand(CLI::App& application, const Settings& settings)
    : Command(application, settings, "token", tr("Manage tokens for tills and administrators"),
              tr("fiscorad token add NAME [--admin] | list | revoke NAME")) {
    m_options->add_option("ACTION", m_action, tr("add, list or revoke"))
        ->required()
        ->check(tool::oneOf({"add", "list", "revoke"}))
        ->option_text(tr("ACTION"));
    m_options
        ->add_option("NAME", m_name, tr("Name of a till or person: 1 to 64 characters of A-Z a-z 0-9 . _ -"))
        ->option_text(tr("NAME"));
    m_options->add_flag("--admin", m_administrates,
                        tr("For a person who administers the service, and the page"));
}

int TokenCommand::run(const std::vector<std::string>& operands) {
    tool::refuseExtras(operands);
    const bool lists = m_action == "list";
    if (lists != m_name.empty())
        throw CLI::ValidationError(lists ? tr("list takes no name") : tr("a name is missing"));
    if (m_administrates && m_action != "add") throw CLI::ValidationError(tr("--admin is only for add"));
    if (!lists && !isTokenName(m_name))
        throw CLI::ValidationError(
            filled(tr("%s is not a name: expected 1 to 64 characters of A-Z a-z 0-9 . _ -"), m_name.c_str()));
    Journal journal = openJournal();
    if (lists) return list(journal);
    if (m_action == "revoke") return revoke(journal, m_name);
    return add(journal, m_name, m_administrates ? Role::Administrator : Role::Till);
}

}  // namespace fiscorad
