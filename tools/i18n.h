#pragma once

#include <string>

namespace tool {

/// Chooses the language of messages from the environment: LANGUAGE, a list, then LC_ALL, LC_MESSAGES and
/// LANG, even if the locale named there is not installed. The C locale stays English whatever LANGUAGE says.
/// The catalogue is in `locale` beside this program in a build tree, or in the installed share/locale;
/// without it, and for every language that it lacks, texts stay English. Numbers and times keep the C locale.
/// Call it before other threads start.
void chooseLanguage();

/// `text` in the user's language, valid until the program ends. The catalogue is tools/po/pt.po;
/// scripts/translate keeps it up to date.
__attribute__((format_arg(1))) const char* tr(const char* text);

/// The form of a noun that goes with `count`: the first for 1, the second for every other number.
__attribute__((format_arg(1), format_arg(2))) const char* tr(const char* one, const char* many,
                                                             unsigned long count);

/// Marks a text for the catalogue that cannot be translated yet, as in a constant table; whoever prints it
/// calls `tr`.
constexpr const char* translatable(const char* text) { return text; }

/// What an `errno` means, in the user's language. The common ones are in our own catalogue, for machines
/// whose C library has none.
std::string systemError(int error);

/// `format` with its arguments filled in as printf does; `format` is what `tr` returns.
__attribute__((format(printf, 1, 2))) std::string filled(const char* format, ...);

}  // namespace tool
