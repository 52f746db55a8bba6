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
#include <iostream>
#include <iterator>
#include <optional>
#include <system_error>

#include "DeviceLock.h"
#include "Interruption.h"
#include "OutputFile.h"
#include "Progress.h"
#include "call/Answer.h"
#include "call/arguments.h"
#include "call/inquiry.h"
#include "encoding/Base64.h"
#include "fields.h"
#include "fiscal/UCManipulaDadosSat.h"
#include "fiscora.h"
#include "i18n.h"
#include "protocol/Message.h"
#include "terminal_text.h"
#include "transaction/DoTransaction.h"

namespace tool {
namespace {

using manipulaDados::Kind;
using manipulaDados::Operation;
using manipulaDados::Request;

constexpr int NOTHING_SENT_STATUS = 2;
constexpr std::chrono::minutes LONGEST_WAIT{2};
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

void checkWorkingDirectory() {
    if (access(".", W_OK) != 0)
        refuse(tr("--dump and --record write to the working directory, which is not writable"));
}

void checkRecord() {
    struct stat present {};
    if (stat(RECORD, &present) != 0) return;
    if (!S_ISREG(present.st_mode))
        refuse(filled(tr("cannot write %s: %s"), RECORD, tr("not a regular file")));
    std::ifstream file(RECORD, std::ios::binary);
    if (present.st_size > 0 && file.seekg(-1, std::ios::end) && file.get() != '\n')
        refuse(filled(tr("cannot write %s: %s"), RECORD, tr("its last row has no end")));
}

/// Adds a row to the performance record. Whether the row is in the file.
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

/// Makes the call when its turn comes. From then on an interruption says `lastWords`.
DeviceLock::State exchange(const Operation& operation, const Request& request, pbs::Message& answer,
                           Interruption& interruption, const std::string& lastWords) {
    const DeviceLock turn("fiscora call", LONGEST_WAIT);
    if (turn.state() == DeviceLock::State::Busy) return turn.state();
    interruption.say(lastWords);
    const Progress progress(operation.command, std::chrono::milliseconds(operation.timeoutMs));
    objManipulaDadosSat.exchange(operation, request, answer);
    return turn.state();
}

/// Saves a document from its Base64, which must be whole. Returns what went wrong, or an empty text.
std::string save(OutputFile& file, std::string_view base64) {
    const std::string content = Base64::decode(std::string(base64));
    const auto* const bytes = reinterpret_cast<const unsigned char*>(content.data());
    if (Base64::encode(bytes, static_cast<std::uint32_t>(content.size())) != base64)
        return tr("the document in the answer is damaged");
    return file.save(content);
}

bool dump(const Operation& operation, const std::string& request, const pbs::Message& answer) {
    return dumpExchange(operation.command, request.data(), static_cast<std::uint32_t>(request.size()),
                        answer.body().data(), static_cast<std::uint32_t>(answer.bodySize()));
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
        "Exit status: 0 if the device answered (EEEEE says what), 1 if it did not, its "
        "answer cannot be used or a file could not be written, 2 if nothing was sent: the command line was "
        "wrong, the request too long, or the device busy.\n\nOperations:\n");
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

    // Everything that can be wrong is found out before anything is sent.
    const bool wantsDocument = m_options->count("--out") > 0;
    if (wantsDocument && !call::mayHoldDocument(operation))
        refuse(filled(tr("--out: the answer to %s contains no document"), operation.command));
    const auto arguments = call::argumentsFrom(operation, words);
    if (m_dump || m_record) checkWorkingDirectory();
    if (m_record) checkRecord();
    Interruption interruption;
    std::optional<OutputFile> document;
    if (wantsDocument) document.emplace(m_documentPath, interruption);

    const auto request = objManipulaDadosSat.makeRequest(operation, arguments.values);
    pbs::Message message;
    if (!request) {
        call::Answer(operation, message.body()).print(FISCORA_STATUS_BAD_REQUEST, call::Extent::Full);
        return NOTHING_SENT_STATUS;
    }
    const std::string inquiry =
        call::inquiry(operation, words, std::get<int>(arguments.values.front()), m_documentPath);
    const std::string advice = call::adviceAfterSilence(operation, inquiry);
    const auto turn =
        exchange(operation, request, message, interruption, advice.empty() ? "" : "\n" + advice + "\n");
    if (turn == DeviceLock::State::Busy) {
        complain(tr("the device stayed busy; nothing was sent"));
        return NOTHING_SENT_STATUS;
    }
    const int status = objManipulaDadosSat.CodigoErro();
    const call::Answer answer(operation, message.body());
    const bool isUsable = answer.answers(arguments.values);

    // Files come first: a reader of the output that leaves early must not cost the document.
    std::vector<std::string> complaints;
    if (status == FISCORA_STATUS_OK && !isUsable)
        complaints.emplace_back(
            tr("this is not the answer to this call: field 0 should be its session number, and field 1 five "
               "digits"));
    const bool hasDocument = !answer.document().empty();
    const bool saves = document && hasDocument && isUsable && answer.isSuccess();
    if (document && !saves && isUsable && status == FISCORA_STATUS_OK)
        complaints.emplace_back(hasDocument
                                    ? tr("the device refused; the document in its answer is not saved")
                                    : tr("the answer contains no document"));
    const std::string loss = saves ? save(*document, answer.document()) : "";
    const bool saved = saves && loss.empty();
    if (!loss.empty())
        complaints.push_back(loss + ". " + tr("The document is shown in Base64. To fetch it again:") +
                             "\n  " + inquiry);
    if (m_dump && !dump(operation, *request, message))
        complaints.emplace_back(tr("the files of --dump could not be written completely"));
    if (m_record && status == FISCORA_STATUS_OK && !record(message))
        complaints.push_back(filled(tr("the row of --record could not be written to %s"), RECORD));
    if (saved) interruption.say("");

    if (!advice.empty())
        std::signal(SIGPIPE, SIG_IGN);  // the advice must follow, even if the reader has left
    const bool onlyShown = document && hasDocument && !saved;
    answer.print(status, m_full || onlyShown ? call::Extent::Full : call::Extent::Elided);
    interruption.say("");
    if (status == FISCORA_STATUS_NO_ANSWER) complaints.emplace_back(tr("run fiscora doctor to find out why"));
    const bool lacksDocument = document && answer.isSuccess() && !hasDocument;
    const bool isKnown =
        status == FISCORA_STATUS_OK && isUsable && !lacksDocument && (std::cout.good() || saved);
    if (!isKnown && turn == DeviceLock::State::Held && !advice.empty()) complaints.push_back(advice);
    for (const auto& complaint : complaints) complain(complaint);
    return status == FISCORA_STATUS_OK && complaints.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
