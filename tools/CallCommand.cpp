#include "CallCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>

#include "DeviceLock.h"
#include "Progress.h"
#include "call/DocumentFile.h"
#include "call/Interruption.h"
#include "call/arguments.h"
#include "encoding/Base64.h"
#include "fields.h"
#include "fiscal/UCManipulaDadosSat.h"
#include "i18n.h"
#include "protocol/Message.h"
#include "status_names.h"
#include "terminal_text.h"
#include "transaction/DoTransaction.h"

namespace tool {
namespace {

using manipulaDados::AnswerLayout;
using manipulaDados::Effect;
using manipulaDados::Kind;
using manipulaDados::Operation;
using Fields = std::vector<std::string_view>;

constexpr int NOTHING_SENT_STATUS = 2;
constexpr std::chrono::minutes LONGEST_WAIT{2};
constexpr char TYPED[] = "@-";  ///< an argument read from standard input
constexpr char RECORD[] = "teste_desempenho.csv";

[[noreturn]] void refuse(const std::string& reason) { throw CLI::ValidationError(reason); }

void complain(const std::string& text) {
    std::cerr << "fiscora call: ";
    for (const auto line : fieldsOf(text, '\n')) std::cerr << withoutControls(line) << '\n';
}

const Operation& chosenOperation(const std::string& name) {
    if (const Operation* operation = manipulaDados::findOperation(name)) return *operation;
    std::string known;
    for (const Operation& operation : manipulaDados::OPERATIONS)
        known += (known.empty() ? "" : ", ") + std::string(operation.command);
    refuse(filled(tr("there is no operation \"%s\"; expected one of %s"), name.c_str(), known.c_str()));
}

// --- The listing

constexpr const char* nameOf(Kind kind) {
    switch (kind) {
        case Kind::SessionNumber: return "session";
        case Kind::Number:
        case Kind::TwoDigitNumber: return "uint16";
        case Kind::ActivationCode: return "code";
        case Kind::Document: return "document";
        default: return "text";
    }
}

/// One line per operation for programs, with "-" for what depends on an earlier answer.
void list() {
    for (const Operation& operation : manipulaDados::OPERATIONS) {
        std::cout << operation.command << '\t';
        for (const auto& parameter : operation.parameters)
            std::cout << (&parameter == operation.parameters.begin() ? "" : " ") << parameter.name << ':'
                      << nameOf(parameter.kind);
        std::string code = operation.successCode();
        std::string fields = operation.answer.fields == nullptr ? "-" : operation.answer.fields;
        std::replace(fields.begin(), fields.end(), '|', ' ');
        std::cout << '\t' << operation.timeoutMs / 1000 << '\t' << (code.empty() ? "-" : code) << '\t'
                  << fields << '\n';
    }
}

// --- The answer

/// The layout of an answer to `operation`. An earlier answer that comes again shows by its code which
/// operation it belongs to.
const AnswerLayout& layoutOf(const Operation& operation, const Fields& answer) {
    if (operation.answer.fields != nullptr) return operation.answer;
    const std::string_view prefix = answer.size() > 1 ? answer[1].substr(0, 2) : "";
    for (const Operation& other : manipulaDados::OPERATIONS)
        if (other.answer.fields != nullptr && prefix == other.codePrefix) return other.answer;
    return manipulaDados::findOperation(manipulaDados::CMD_CONSULTA_SAT)->answer;
}

bool mayHoldDocument(const Operation& operation) {
    return operation.answer.fields == nullptr || operation.answer.documentField != AnswerLayout::NO_FIELD;
}

/// Such as "0 (FISCORA_STATUS_OK: the device answered)".
std::string described(int status) {
    const std::string name(statusName(status));
    return std::to_string(status) + " (" + (name.empty() ? "" : "FISCORA_STATUS_" + name + ": ") +
           tr(statusMeaning(status)) + ")";
}

/// Prints names and values: to a terminal in lines that fit it, without control characters and, unless
/// everything is wanted, without documents and signatures; elsewhere byte for byte.
class Printer {
  public:
    explicit Printer(bool full) : m_full(full), m_columns(terminalColumns(STDOUT_FILENO)) {}

    void print(const std::string& name, std::string_view value) const {
        if (value.empty()) {
            std::cout << name << '\n';
            return;
        }
        const std::string label =
            name + std::string(std::max(NAME_COLUMNS, width(name) + 1) - width(name), ' ');
        if (isatty(STDOUT_FILENO) == 0) {
            std::cout << label << value << '\n';
            return;
        }
        const std::string text = withoutControls(toUtf8(value));
        std::string indent = label;
        for (const auto& line : lines(text, width(label))) {
            std::cout << indent << line << '\n';
            indent = std::string(NAME_COLUMNS, ' ');
        }
    }

  private:
    static constexpr std::size_t NAME_COLUMNS = 19;
    static constexpr std::size_t LONGEST_WORD = 80;  ///< longer than any word, shorter than any signature

    std::vector<std::string> lines(const std::string& text, std::size_t taken) const {
        const bool isWord = text.find(' ') == std::string::npos && width(text) > LONGEST_WORD;
        if (m_full && isWord) return {text};  // whole, so that it can be copied
        const std::size_t room = std::max(m_columns, taken + 20) - taken;
        if (!isWord) return wrapped(text, room);
        return wrapped(cut(text, 20) + " " + filled(tr("(%zu bytes; --full shows all)"), text.size()), room);
    }

    bool m_full;
    std::size_t m_columns;
};

// --- What to do if it is not known what the device did

/// `word` as a shell's command line needs it.
std::string shellWord(const std::string& word) {
    constexpr char PLAIN[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789@%+=:,./_-";
    if (!word.empty() && word.find_first_not_of(PLAIN) == std::string::npos) return word;
    std::string text = "'";
    for (const char c : word) text += c == '\'' ? "'\\''" : std::string(1, c);
    return text + "'";
}

/// The command that asks for the answer of a call again: a query is repeated, any other call is asked about
/// by its session number. An activation code that was typed is asked for, not shown.
std::string inquiry(const Operation& operation, std::vector<std::string> words, int session,
                    const std::string& documentPath) {
    constexpr int SESSION_NUMBERS = 1000000;
    std::string code = TYPED;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (operation.parameters[i].kind != Kind::ActivationCode) continue;
        if (!call::isFile(words[i])) words[i] = TYPED;
        code = words[i];
    }
    words[0] = std::to_string((session + 1) % SESSION_NUMBERS);
    if (operation.effect != Effect::Asks) words = {words[0], code, std::to_string(session)};
    const bool repeats = operation.effect == Effect::Asks;
    std::string command = std::string("fiscora call ") +
                          (repeats ? operation.command : manipulaDados::CMD_CONSULTAR_NUM_SESSAO);
    if (!documentPath.empty()) command += " --out " + shellWord(documentPath);
    for (const auto& word : words) command += " " + shellWord(word);
    if (code == TYPED) command += std::string("  # ") + tr("type the activation code, Enter, Ctrl-D");
    return command;
}

/// What to do before the call is made again; empty if it changes nothing.
std::string adviceAfterSilence(const Operation& operation, const std::string& command) {
    if (operation.effect == Effect::Asks) return "";
    return filled(operation.effect == Effect::Books
                      ? tr("The device may have issued the document. Ask it before you send it again:\n  %s")
                      : tr("The device may have done it. Ask it before you try again:\n  %s"),
                  command.c_str());
}

// --- Files besides the document

/// Refuses what --dump or --record could not write to.
void checkWorkingDirectory(bool record) {
    if (access(".", W_OK) != 0)
        refuse(tr("--dump and --record write to the working directory, which is not writable"));
    struct stat present {};
    if (record && stat(RECORD, &present) == 0 && !S_ISREG(present.st_mode))
        refuse(filled(tr("cannot write %s: %s"), RECORD, tr("it is not a regular file")));
}

/// Adds a row to the performance record; whether it is there.
bool record(pbs::Message& answer) {
    std::error_code absent;
    const auto before = std::filesystem::file_size(RECORD, absent);
    objManipulaDadosSat.gravaArquivoDesempenho(answer);
    std::ifstream file(RECORD, std::ios::binary);
    if (!absent) file.seekg(static_cast<std::streamoff>(before));
    const std::string added{std::istreambuf_iterator<char>(file), {}};
    return !added.empty() && added.back() == '\n' &&
           added.find(';' + answer.code() + ';') != std::string::npos;
}

}  // namespace

CallCommand::CallCommand(CLI::App& application)
    : Subcommand(application, "call", tr("Make one call to the fiscal device and print its answer"),
                 tr("fiscora call [OPTIONS] OPERATION NUMERO_SESSAO [ARGUMENT...]")) {
    // Not an option of CLI11's, which would take words such as [a,b] apart.
    m_options->allow_extras();
    m_options->add_option("--out", m_documentPath, tr("Write the document in the answer, decoded, to FILE"))
        ->type_name(tr("FILE"));
    m_options->add_flag("--full", m_full, tr("Show documents and signatures in full on a terminal too"));
    m_options->add_flag(
        "--list", m_list,
        tr("List the operations for programs: name, arguments as name:type, timeout in seconds, "
           "EEEEE of success, fields of the answer, separated by tabs"));
    m_options->add_flag(
        "--dump", m_dump,
        tr("Write the request, the answer and a description to three files in this directory; they "
           "contain the activation code"));
    m_options->add_flag(
        "--record", m_record,
        tr("Add a row of the answer's timing headers to teste_desempenho.csv in this directory"));
    std::string footer = tr(
        "An argument @FILE is the content of that file; @- is standard input. Put \"--\" before words that "
        "begin with a dash. Calls made with this command wait for each other.\n"
        "Exit status: 0 if the device answered (EEEEE says what), 1 if it did not or a file could not be "
        "written, 2 if nothing was sent: the command line was wrong, the request too long, or the device "
        "busy.\n\nOperations:\n");
    for (const Operation& operation : manipulaDados::OPERATIONS)
        footer += "  " + std::string(operation.command) + " " + call::namesOf(operation.parameters) + "\n";
    m_options->footer(footer);
}

int CallCommand::run(const std::vector<std::string>& operands) {
    auto words = m_options->remaining();
    for (const auto& word : words)
        if (word.size() > 1 && word[0] == '-' && std::isdigit(static_cast<unsigned char>(word[1])) == 0)
            refuse(filled(tr("there is no option %s"), word.c_str()));
    words.insert(words.end(), operands.begin(), operands.end());
    if (m_list) {
        refuseExtras(words);
        list();
        return EXIT_SUCCESS;
    }
    if (words.empty()) refuse(tr("an operation is missing"));
    return makeCall(std::move(words));
}

int CallCommand::makeCall(std::vector<std::string> words) const {
    const Operation& operation = chosenOperation(words.front());
    words.erase(words.begin());
    std::signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error like others

    // Everything that can be wrong is found out before anything is sent.
    const bool saves = m_options->count("--out") > 0;
    if (saves && !mayHoldDocument(operation))
        refuse(filled(tr("--out: the answer to %s contains no document"), operation.command));
    const auto arguments = call::argumentsFrom(operation, words);
    const auto request = objManipulaDadosSat.makeRequest(operation, arguments.values);
    if (m_dump || m_record) checkWorkingDirectory(m_record);
    call::Interruption interruption;
    std::optional<call::DocumentFile> document;
    if (saves) {
        document.emplace(m_documentPath);
        interruption.remove(document->unfinishedPath());
    }
    std::optional<DeviceLock> turn;
    if (request) turn.emplace("fiscora call", LONGEST_WAIT);
    if (turn && turn->state() == DeviceLock::State::Busy) {
        complain(tr("the device stayed busy; nothing was sent"));
        return NOTHING_SENT_STATUS;
    }

    const std::string again =
        inquiry(operation, words, std::get<int>(arguments.values.front()), m_documentPath);
    const std::string advice = adviceAfterSilence(operation, again);
    if (request && !advice.empty()) interruption.say("\n" + advice + "\n");
    pbs::Message answer;
    {
        const Progress progress(operation.command, std::chrono::milliseconds(operation.timeoutMs));
        objManipulaDadosSat.exchange(operation, request, answer);
    }
    const bool deviceWasThere = turn && turn->state() == DeviceLock::State::Held;
    turn.reset();

    const int status = objManipulaDadosSat.CodigoErro();
    const Fields fields = answer.bodySize() == 0 ? Fields() : fieldsOf(answer.body());
    const AnswerLayout& layout = layoutOf(operation, fields);

    // Files come first: a reader of the output that leaves early must not cost the document.
    std::vector<std::string> complaints;
    bool lost = false;
    if (document) {
        const std::size_t field = layout.documentField;
        const bool present =
            field != AnswerLayout::NO_FIELD && field < fields.size() && !fields[field].empty();
        const std::string reason = present ? document->save(Base64::decode(std::string(fields[field]))) : "";
        lost = !reason.empty();
        if (!present && status == FISCORA_STATUS_OK)
            complaints.emplace_back(tr("the answer contains no document"));
        if (lost)
            complaints.push_back(reason + ". " + tr("The document is shown in Base64. To fetch it again:") +
                                 "\n  " + again);
    }
    if (m_dump && request &&
        !dumpExchange(operation.command, request->data(), static_cast<std::uint32_t>(request->size()),
                      answer.body().data(), static_cast<std::uint32_t>(answer.bodySize())))
        complaints.emplace_back(tr("the files of --dump could not be written completely"));
    if (m_record && status == FISCORA_STATUS_OK && !record(answer))
        complaints.push_back(filled(tr("the row of --record could not be written to %s"), RECORD));
    interruption.say("");

    const Printer printer(m_full || lost);
    printer.print("status", described(status));
    const auto names = fieldsOf(layout.fields);
    for (std::size_t i = 0; i < fields.size(); ++i)
        printer.print(i < names.size() ? std::string(names[i]) : filled(tr("field %zu"), i), fields[i]);
    std::cout.flush();

    if (status == FISCORA_STATUS_NO_ANSWER) complaints.emplace_back(tr("run fiscora doctor to find out why"));
    if (status != FISCORA_STATUS_OK && deviceWasThere && !advice.empty()) complaints.push_back(advice);
    for (const auto& complaint : complaints) complain(complaint);
    if (status == FISCORA_STATUS_BAD_REQUEST) return NOTHING_SENT_STATUS;
    return status == FISCORA_STATUS_OK && complaints.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
