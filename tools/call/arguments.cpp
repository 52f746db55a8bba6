#include "call/arguments.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>

#include "Descriptor.h"
#include "fiscal/operations.h"
#include "i18n.h"

namespace call {
namespace {

using manipulaDados::Kind;
using manipulaDados::Operation;
using manipulaDados::Parameter;
using tool::filled;
using tool::tr;

[[noreturn]] void refuse(const std::string& reason) { throw CLI::ValidationError(reason); }

[[noreturn]] void refuseUnread(const std::string& path, int error) {
    refuse(filled(tr("cannot read %s: %s"), path.c_str(), std::strerror(error)));
}

/// Everything up to the end of a file. Waits for an input that is not ready: half a document must not pass
/// for a whole one.
std::string readToEnd(int fd, const std::string& path, std::size_t most) {
    std::string text;
    std::array<char, 65536> chunk;
    while (true) {
        const ssize_t length = read(fd, chunk.data(), chunk.size());
        if (length == 0) return text;
        if (length > 0)
            text.append(chunk.data(), static_cast<std::size_t>(length));
        else if (errno == EAGAIN) {
            pollfd input{fd, POLLIN, 0};
            poll(&input, 1, -1);
        } else if (errno != EINTR)
            refuseUnread(path, errno);
        if (text.size() > most) refuse(filled(tr("%s is too long for this request"), path.c_str()));
    }
}

/// The text that a word stands for.
std::string content(const std::string& word, std::size_t most) {
    if (!isFile(word)) return word;
    const bool isInput = word == "@-";
    const std::string name = isInput ? tr("standard input") : word.substr(1);
    const tool::Descriptor file(isInput ? -1 : open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!isInput && file.get() < 0) refuseUnread(name, errno);
    std::string text = readToEnd(isInput ? STDIN_FILENO : file.get(), name, most);
    if (text.find('\0') != std::string::npos)
        refuse(filled(tr("%s contains a zero byte and cannot be sent"), name.c_str()));
    return text;
}

int number(const Parameter& parameter, const std::string& text) {
    constexpr long MOST_SESSION_NUMBER = 999999;
    const long most = parameter.kind == Kind::SessionNumber ? MOST_SESSION_NUMBER
                                                            : std::numeric_limits<std::uint16_t>::max();
    int value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < 0 || value > most)
        refuse(std::string(parameter.name) + ": " +
               filled(tr("expected a number from %ld to %ld, not \"%s\""), 0L, most, text.c_str()));
    return value;
}

/// Drops the line break that an editor leaves at the end of a file. Refuses any other, and what the device
/// would count as a wrong code: too many of them lock it.
void checkCode(const Parameter& parameter, std::string& code, const std::string& word) {
    if (isFile(word))
        for (const char end : {'\n', '\r'})
            if (!code.empty() && code.back() == end) code.pop_back();
    if (code.empty()) refuse(filled(tr("%s is empty"), parameter.name));
    if (code.find_first_of("\r\n|") != std::string::npos)
        refuse(filled(tr("%s contains a line break or \"|\""), parameter.name));
}

/// Refuses a file's name in place of a document: the "@" was forgotten, and the name would be sent. Refuses
/// an empty file too: the program that should have written it failed.
void checkDocument(const Parameter& parameter, const std::string& document, const std::string& word) {
    if (isFile(word) && document.find_first_not_of(" \t\r\n") == std::string::npos)
        refuse(filled(tr("%s is empty"), parameter.name));
    std::error_code tooLong;  // as a name, if it is a document
    if (std::filesystem::exists(word, tooLong))
        refuse(filled(tr("%s: %s is a file; write @%s to send its content"), parameter.name, word.c_str(),
                      word.c_str()));
}

}  // namespace

bool isFile(const std::string& word) { return !word.empty() && word.front() == '@'; }

std::string namesOf(const manipulaDados::Parameters& parameters) {
    std::string names;
    for (const Parameter& parameter : parameters)
        names += (names.empty() ? "" : " ") + std::string(parameter.name);
    return names;
}

Arguments argumentsFrom(const Operation& operation, const std::vector<std::string>& words) {
    const auto& parameters = operation.parameters;
    if (words.size() != parameters.size())
        refuse(filled(tr("%s takes these arguments: %s (given: %zu)"), operation.command,
                      namesOf(parameters).c_str(), words.size()));
    if (std::count(words.begin(), words.end(), "@-") > 1)
        refuse(tr("only one argument can be standard input, @-"));

    Arguments arguments;
    arguments.texts.reserve(words.size());
    for (std::size_t i = 0; i < words.size(); ++i) {
        const Parameter& parameter = parameters[i];
        std::string& text = arguments.texts.emplace_back(content(words[i], operation.buffer.bytes));
        if (parameter.kind == Kind::ActivationCode) checkCode(parameter, text, words[i]);
        if (parameter.kind == Kind::Document) checkDocument(parameter, text, words[i]);
        if (isNumber(parameter.kind))
            arguments.values.emplace_back(number(parameter, text));
        else
            arguments.values.emplace_back(text.c_str());
    }
    return arguments;
}

}  // namespace call
