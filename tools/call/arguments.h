#pragma once

#include <string>
#include <vector>

#include "fiscal/UCManipulaDadosSat.h"

namespace call {

/// Whether `word` stands for the content of a file, @FILE, or of standard input, @-.
bool isFile(const std::string& word);

/// The names of an operation's arguments, separated by blanks.
std::string namesOf(const manipulaDados::Parameters& parameters);

/// What the library is called with.
struct Arguments {
    std::vector<std::string> texts;               ///< one per argument, as sent
    std::vector<manipulaDados::Argument> values;  ///< point into `texts`
};

/// The arguments of `operation` from the words after its name, with the files read that they name. Throws
/// CLI::ValidationError with a text in the user's language if one of them is wrong or cannot be read to its
/// end.
Arguments argumentsFrom(const manipulaDados::Operation& operation, const std::vector<std::string>& words);

}  // namespace call
