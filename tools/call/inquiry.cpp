#include "call/inquiry.h"

#include "call/arguments.h"
#include "i18n.h"
#include "terminal_text.h"

namespace call {
namespace {

using manipulaDados::Effect;
using manipulaDados::Kind;
using manipulaDados::Operation;
using tool::shellWord;
using tool::tr;

constexpr char TYPED[] = "@-";  ///< an argument read from standard input

}  // namespace

std::string inquiry(const Operation& operation, std::vector<std::string> words, int session,
                    const std::string& documentPath) {
    constexpr int SESSION_NUMBERS = 1000000;
    std::string code = TYPED;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (operation.parameters[i].kind != Kind::ActivationCode) continue;
        if (!isFile(words[i])) words[i] = TYPED;
        code = words[i];
    }
    words[0] = std::to_string((session + 1) % SESSION_NUMBERS);
    const bool repeats = operation.effect == Effect::Asks;
    if (!repeats) words = {words[0], code, std::to_string(session)};
    std::string command = std::string("fiscora call ") +
                          (repeats ? operation.command : manipulaDados::CMD_CONSULTAR_NUM_SESSAO);
    if (!documentPath.empty()) command += " --out " + shellWord(documentPath);
    for (const auto& word : words) command += " " + shellWord(word);
    if (code == TYPED) command += std::string("  # ") + tr("type the activation code, Enter, Ctrl-D");
    return command;
}

std::string adviceAfterSilence(const Operation& operation, const std::string& command) {
    if (operation.effect == Effect::Asks) return "";
    return tool::filled(
        operation.effect == Effect::Books
            ? tr("The device may have issued the document. Ask it before you send it again:\n  %s")
            : tr("The device may have done it. Ask it before you try again:\n  %s"),
        command.c_str());
}

}  // namespace call
