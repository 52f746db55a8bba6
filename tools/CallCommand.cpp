#include "CallCommand.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "Progress.h"
#include "encoding/Base64.h"
#include "fiscal/UCManipulaDadosSat.h"
#include "protocol/Message.h"
#include "status_names.h"
#include "transaction/DoTransaction.h"

namespace tool {
namespace {

using manipulaDados::Argument;
using manipulaDados::Operation;

/// What an operation's row in the library does not tell: the names of its arguments behind numeroSessao, the
/// first two digits of its EEEEE, and the names of its answer's fields behind that, as the tax authority's
/// "Especificação de Requisitos do SAT-CF-e" has them. Operations without fields of their own give an earlier
/// answer again.
struct Names {
    std::string_view command;
    std::string_view arguments;
    std::string_view prefix;
    std::string_view fields;
};

constexpr std::string_view PLAIN = "mensagem cod mensagemSEFAZ";
constexpr std::string_view DEVICE_STATUS =
    "mensagem cod mensagemSEFAZ NSERIE TIPO_LAN LAN_IP LAN_MAC LAN_MASK LAN_GW LAN_DNS_1 LAN_DNS_2 "
    "STATUS_LAN NIVEL_BATERIA MT_TOTAL MT_USADA DH_ATUAL VER_SB VER_LAYOUT ULTIMO_CF_E_SAT LISTA_INICIAL "
    "LISTA_FINAL DH_CFE DH_ULTIMA CERT_EMISSAO CERT_VENCIMENTO ESTADO_OPERACAO";
constexpr std::string_view DOCUMENT =
    "CCCC mensagem cod mensagemSEFAZ arquivoCFeBase64 timeStamp chaveConsulta valorTotalCFe CPFCNPJValue "
    "assinaturaQRCODE";
constexpr std::string_view TEST_DOCUMENT =
    "mensagem cod mensagemSEFAZ arquivoCFeBase64 timeStamp numDocFiscal chaveConsulta";

/// The field that --out decodes bears a name that ends so.
constexpr std::string_view DOCUMENT_SUFFIX = "Base64";

constexpr Names NAMES[] = {
    {"AtivarSAT", "subComando codigoDeAtivacao cnpj cUF", "04", "mensagem cod mensagemSEFAZ CSR"},
    {"ComunicarCertificadoICPBRASIL", "codigoDeAtivacao certificado", "05", PLAIN},
    {"EnviarDadosVenda", "codigoDeAtivacao dadosVenda", "06", DOCUMENT},
    {"CancelarUltimaVenda", "codigoDeAtivacao chave dadosCancelamento", "07", DOCUMENT},
    {"ConsultarSAT", "", "08", PLAIN},
    {"TesteFimAFim", "codigoDeAtivacao dadosVenda", "09", TEST_DOCUMENT},
    {"ConsultarStatusOperacional", "codigoDeAtivacao", "10", DEVICE_STATUS},
    {"ConsultarUltimaSessaoFiscal", "codigoDeAtivacao", "19", ""},
    {"ConsultarStatusOperacionalMFE", "codigoDeAtivacao", "10", DEVICE_STATUS},
    {"ConsultarNumeroSessao", "codigoDeAtivacao cNumeroDeSessao", "11", ""},
    {"ConfigurarInterfaceDeRede", "codigoDeAtivacao dadosConfiguracao", "12", PLAIN},
    {"ConfigurarInterfaceDeRedeMFE", "codigoDeAtivacao dadosConfiguracao", "12", PLAIN},
    {"AssociarAssinatura", "codigoDeAtivacao cnpjValue assinaturaCNPJs", "13", PLAIN},
    {"AtualizarSoftwareSAT", "codigoDeAtivacao", "14", PLAIN},
    {"ExtrairLogs", "codigoDeAtivacao", "15", "mensagem cod mensagemSEFAZ logBase64"},
    {"BloquearSAT", "codigoDeAtivacao", "16", PLAIN},
    {"DesbloquearSAT", "codigoDeAtivacao", "17", PLAIN},
    {"TrocarCodigoDeAtivacao", "codigoDeAtivacao opcao novoCodigo confNovoCodigo", "18", PLAIN},
    {"ReiniciarMFE", "codigoDeAtivacao", "20", PLAIN},
    {"EnviarStatusAC", "campoA campoB campoC", "21", PLAIN},
};

/// Conversions of a request's format.
constexpr std::string_view TEXT = "%s";
constexpr std::string_view SESSION_NUMBER = "%06d";

std::vector<std::string> words(std::string_view text) {
    std::istringstream stream{std::string(text)};
    return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

const Names& namesOf(std::string_view command) {
    const auto* row = std::find_if(std::begin(NAMES), std::end(NAMES),
                                   [&](const Names& names) { return names.command == command; });
    if (row == std::end(NAMES)) throw std::logic_error("no names for " + std::string(command));
    return *row;
}

std::vector<std::string> argumentNames(const Operation& operation) {
    auto names = words(namesOf(operation.command).arguments);
    names.insert(names.begin(), "numeroSessao");
    return names;
}

/// Names of the fields of an answer to `command`.
std::vector<std::string> fieldNames(std::string_view command, const std::vector<std::string>& answer) {
    std::string_view fields = namesOf(command).fields;
    if (fields.empty()) {
        fields = PLAIN;
        for (const Names& row : NAMES)
            if (answer.size() > 1 && answer[1].compare(0, 2, row.prefix) == 0 && !row.fields.empty())
                fields = row.fields;
    }
    auto names = words(fields);
    names.insert(names.begin(), {"numeroSessao", "EEEEE"});
    return names;
}

std::string joined(const std::vector<std::string>& parts, const char* separator) {
    std::string text;
    for (const auto& part : parts) text += (text.empty() ? "" : separator) + part;
    return text;
}

const Operation& chosenOperation(const std::string& name) {
    if (const Operation* operation = manipulaDados::findOperation(name)) return *operation;
    std::vector<std::string> known;
    for (const Operation& operation : manipulaDados::OPERATIONS) known.emplace_back(operation.command);
    throw CLI::ValidationError("there is no operation \"" + name + "\"; expected one of " +
                               joined(known, ", "));
}

bool isFile(const std::string& argument) { return !argument.empty() && argument.front() == '@'; }

/// An argument @FILE stands for the content of that file, or of the standard input where it is @-.
std::string content(const std::string& argument) {
    if (!isFile(argument)) return argument;
    const std::string path = argument.substr(1);
    std::ifstream file;
    if (path != "-") file.open(path, std::ios::binary);
    std::istream& source = path == "-" ? std::cin : file;
    std::string text;
    std::array<char, 65536> chunk;
    while (source.read(chunk.data(), chunk.size()), source.gcount() > 0)
        text.append(chunk.data(), static_cast<std::size_t>(source.gcount()));
    if (!source.eof()) throw CLI::ValidationError("cannot read " + path);
    if (text.find('\0') != std::string::npos)
        throw CLI::ValidationError(path + " holds a zero byte and cannot be sent");
    return text;
}

int number(const std::string& name, const std::string& text, std::string_view conversion) {
    constexpr long MOST_SESSION_NUMBER = 999999;
    const long most =
        conversion == SESSION_NUMBER ? MOST_SESSION_NUMBER : std::numeric_limits<std::uint16_t>::max();
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < 0 || value > most)
        throw CLI::ValidationError(name + " is a number from 0 to " + std::to_string(most) + ", not \"" +
                                   text + "\"");
    return static_cast<int>(value);
}

/// An activation code is one line: the line break that an editor has left at the end of its file is dropped.
void checkCode(const std::string& name, std::string& code, const std::string& given) {
    if (isFile(given))
        for (const char end : {'\n', '\r'})
            if (!code.empty() && code.back() == end) code.pop_back();
    if (code.find_first_of("\r\n") != std::string::npos)
        throw CLI::ValidationError(name + " holds a line break");
}

/// The name of a file in the place of a document: an "@" was forgotten, and the name would be sent.
void checkDocument(const std::string& name, const std::string& given) {
    std::error_code tooLong;  // a document is no name
    if (!std::filesystem::exists(given, tooLong)) return;
    throw CLI::ValidationError(name + ": " + given + " is a file; expected its content, @" + given);
}

/// What `given`, the words behind the operation's name, are to the library. `texts` keeps the texts.
std::vector<Argument> argumentsFrom(const Operation& operation, const std::vector<std::string>& given,
                                    std::vector<std::string>& texts) {
    const auto names = argumentNames(operation);
    if (given.size() != names.size())
        throw CLI::ValidationError(std::string(operation.command) + " takes " + joined(names, " ") +
                                   " (arguments: " + std::to_string(names.size()) + "), and got " +
                                   std::to_string(given.size()));
    const auto conversions = split(operation.format, '|');
    if (std::count(given.begin(), given.end(), "@-") > 1)
        throw CLI::ValidationError("the standard input, @-, can be one argument only");
    texts.resize(given.size());
    std::vector<Argument> arguments;
    for (std::size_t i = 0; i < given.size(); ++i) {
        texts[i] = content(given[i]);
        if (names[i].find("odigo") != std::string::npos) checkCode(names[i], texts[i], given[i]);
        if (names[i].compare(0, 5, "dados") == 0) checkDocument(names[i], given[i]);
        if (conversions[i] == TEXT)
            arguments.emplace_back(texts[i].c_str());
        else
            arguments.emplace_back(number(names[i], texts[i], conversions[i]));
    }
    return arguments;
}

/// Such as "0 (FISCORA_STATUS_OK: o equipamento respondeu)".
std::string described(int status) {
    const std::string_view name = statusName(status);
    return std::to_string(status) + " (" +
           (name.empty() ? "" : "FISCORA_STATUS_" + std::string(name) + ": ") +
           std::string(statusMeaning(status)) + ")";
}

void print(const std::string& name, std::string_view value) {
    constexpr int WIDTH = 18;
    if (value.empty())
        std::cout << name << '\n';
    else
        std::cout << std::left << std::setw(WIDTH) << name << ' ' << value << '\n';
}

/// Where a document goes. Made before the call, so that what is wrong with the path shows before anything is
/// sent; the file keeps its content until there is another.
class DocumentFile {
  public:
    explicit DocumentFile(const std::string& path) : m_path(path), m_isNew(!std::filesystem::exists(path)) {
        if (!std::ofstream(path, std::ios::app)) throw CLI::ValidationError("cannot write " + path);
    }
    DocumentFile(const DocumentFile&) = delete;
    DocumentFile& operator=(const DocumentFile&) = delete;
    ~DocumentFile() {
        if (m_isNew) std::remove(m_path.c_str());
    }

    bool save(const std::string& content) {
        m_isNew = false;
        std::ofstream file(m_path, std::ios::binary | std::ios::trunc);
        file << content;
        file.close();
        return file.good();
    }

  private:
    std::string m_path;
    bool m_isNew;  ///< and to be removed again, where there is no document
};

/// Position of the answer's document among its fields; as many as there are names where it has none.
std::size_t documentField(const std::vector<std::string>& names) {
    const auto found = std::find_if(names.begin(), names.end(), [](const std::string& name) {
        return name.size() > DOCUMENT_SUFFIX.size() &&
               name.compare(name.size() - DOCUMENT_SUFFIX.size(), DOCUMENT_SUFFIX.size(), DOCUMENT_SUFFIX) ==
                   0;
    });
    return static_cast<std::size_t>(found - names.begin());
}

/// All fields of an answer, an empty one at the end included, which `split` leaves out.
std::vector<std::string> fieldsOf(const pbs::Message& answer) {
    return answer.bodySize() == 0 ? std::vector<std::string>() : split(answer.body() + "|", '|');
}

/// Saves the answer's document; returns what went wrong, or the empty text.
std::string save(DocumentFile& file, const std::vector<std::string>& names,
                 const std::vector<std::string>& fields) {
    const std::size_t field = documentField(names);
    if (field >= fields.size() || fields[field].empty()) return "the answer holds no document";
    if (!file.save(Base64::decode(fields[field])))
        return "cannot write the document, which stands above in Base64";
    return "";
}

bool mayHoldDocument(std::string_view command) {
    const auto fields = words(namesOf(command).fields);
    return fields.empty() || documentField(fields) < fields.size();
}

}  // namespace

CallCommand::CallCommand(CLI::App& application)
    : Subcommand(application, "call", "Make one call to the fiscal device and print its answer",
                 "fiscora call [OPTIONS] OPERATION NUMERO_SESSAO [ARGUMENT...]") {
    // Not an option of CLI11's, which would take words such as [a,b] apart.
    m_options->allow_extras();
    m_options->add_option("--out", m_documentPath, "Decode the document in the answer to FILE")
        ->type_name("FILE");
    m_options->add_flag(
        "--dump", m_dump,
        "Write request, answer and a description to three files here; they hold the activation code");
    m_options->add_flag("--record", m_record,
                        "Add a row of the answer's timing headers to teste_desempenho.csv here");
    std::string footer =
        "An argument @FILE is the content of that file, @- of the standard input. Words that begin with a "
        "dash go behind \"--\".\n"
        "Exit status: 0 when the device answered (look at EEEEE for what it said), 1 when it did not, 2 when "
        "the command line was wrong and nothing was sent.\n\n"
        "Operations:\n";
    for (const Operation& operation : manipulaDados::OPERATIONS)
        footer += "  " + std::string(operation.command) + " " + joined(argumentNames(operation), " ") + "\n";
    m_options->footer(footer);
}

int CallCommand::run(const std::vector<std::string>& operands) {
    auto given = m_options->remaining();
    for (const auto& word : given)
        if (word.size() > 1 && word[0] == '-' && std::isdigit(static_cast<unsigned char>(word[1])) == 0)
            throw CLI::ValidationError("there is no option " + word);
    given.insert(given.end(), operands.begin(), operands.end());
    if (given.empty()) throw CLI::RequiredError("OPERATION");
    const Operation& operation = chosenOperation(given.front());
    given.erase(given.begin());

    // All that can be wrong is found out before anything is sent.
    std::vector<std::string> texts;
    const auto arguments = argumentsFrom(operation, given, texts);
    const auto request = objManipulaDadosSat.makeRequest(operation, arguments);
    const bool saves = m_options->count("--out") > 0;
    if (saves && !mayHoldDocument(operation.command))
        throw CLI::ValidationError("--out: the answer to " + std::string(operation.command) +
                                   " holds no document");
    if ((m_dump || m_record) && access(".", W_OK) != 0)
        throw CLI::ValidationError(
            "--dump and --record write to the working directory, which is not writable");
    std::optional<DocumentFile> document;
    if (saves) document.emplace(m_documentPath);

    pbs::Message answer;
    {
        const Progress progress(operation.command, std::chrono::milliseconds(operation.timeoutMs));
        objManipulaDadosSat.exchange(operation, request, answer);
    }

    const int status = objManipulaDadosSat.CodigoErro();
    const auto fields = fieldsOf(answer);
    const auto names = fieldNames(operation.command, fields);
    // What goes to files comes first: a reader of the output that leaves early must not cost the document.
    if (m_dump && request)
        DoTransaction().fileDump(operation.command, request->data(),
                                 static_cast<std::uint32_t>(request->size()), answer.body().data(),
                                 static_cast<std::uint32_t>(answer.bodySize()));
    if (m_record && status == FISCORA_STATUS_OK) objManipulaDadosSat.gravaArquivoDesempenho(answer);
    const std::string complaint = document ? save(*document, names, fields) : "";

    print("status", described(status));
    for (std::size_t i = 0; i < fields.size(); ++i)
        print(i < names.size() ? names[i] : "field " + std::to_string(i), fields[i]);
    if (!complaint.empty()) std::cerr << "fiscora call: " << complaint << '\n';
    return status == FISCORA_STATUS_OK && complaint.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace tool
