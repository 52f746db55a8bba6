#include "crash/audit.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string_view>

#include "crash/trace.h"
#include "fields.h"
#include "fiscal/UCManipulaDadosSat.h"
#include "fiscal/operations.h"
#include "fiscora.h"
#include "rules/AccessKey.h"
#include "service/ServiceClient.h"
#include "sim/FiscalDocument.h"

namespace crash {
namespace {

namespace fs = std::filesystem;
using fiscorad::AccessKey;
using fiscorad::Kind;

/// One document that the device has booked.
struct Booked {
    std::time_t time = 0;
    std::string operation;
    int session = 0;
    std::string accessKey;
    std::string digest;
};

/// One document of the journal, as the service shows it.
struct Row {
    std::string key;
    Kind kind = Kind::Sale;
    std::string state;
    int session = 0;  ///< of its last attempt; 0 if there is none
    std::string accessKey;
};

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::time_t timeOf(const std::string& text) {
    std::tm parts{};
    if (strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S%z", &parts) == nullptr)
        throw std::runtime_error("no time: " + text);
    const long offset = parts.tm_gmtoff;
    return timegm(&parts) - offset;
}

std::vector<Booked> readLedger(const fs::path& file) {
    std::vector<Booked> ledger;
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        const auto fields = fieldsOf(line, '\t');
        const auto field = [&](std::size_t index) { return std::string(fields.at(index)); };
        ledger.push_back({timeOf(field(0)), field(1), std::stoi(field(2)), field(3), field(4)});
    }
    return ledger;
}

std::string sha256(std::string_view bytes) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr);
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
        std::array<char, 3> two{};
        std::snprintf(two.data(), two.size(), "%02x", digest.at(i));
        text += two.data();
    }
    return text;
}

/// The document as the library sends it, which cleans it before.
std::string asSent(const HandedIn& document) {
    manipulaDados::ManipulaDadosSat library;
    const auto& operation = *manipulaDados::findOperation(fiscorad::commandOf(document.kind));
    std::vector<manipulaDados::Argument> arguments{1, ACTIVATION_CODE};
    if (document.kind == Kind::Cancellation) arguments.emplace_back(document.saleKey.c_str());
    arguments.emplace_back(document.body.c_str());
    const auto request = library.makeRequest(operation, arguments);
    if (!request) throw std::runtime_error("the library refuses a document");
    return std::string(fieldsOf(*request, '|', operation.parameters.size()).back());
}

/// What the device knows when it issues that document.
sim::Issuer issuerOf(const Booked& booked) {
    const AccessKey key = AccessKey::parse(booked.accessKey).value();
    return {key.digits().substr(0, 2), key.digits().substr(6, 14), std::string(key.serial()), key.number(),
            booked.time};
}

/// All that is compared.
class Audit {
  public:
    Audit(const ShopSettings& settings, const Records& records, ServiceProcess& service, Counter& counter)
        : m_settings(settings),
          m_service(service),
          m_client(service.place().port),
          m_counter(counter),
          m_ledger(readLedger(settings.folder / LEDGER_FILE)) {
        for (const HandedIn& document : records) {
            m_handedIn.push_back(&document);
            m_byDigest.emplace(sha256(asSent(document)), &document);
            if (!document.key.empty()) m_byKey.emplace(document.key, &document);
        }
    }

    void run() {
        readRows("/v1/vendas", Kind::Sale);
        readRows("/v1/cancelamentos", Kind::Cancellation);
        checkLedger();
        for (const Row& row : m_rows) checkRow(row);
        for (const HandedIn* document : m_handedIn) checkTold(*document);
        checkProgram();
        checkTrace(m_settings.folder / TRACE_FILE, m_counter);
        checkSecret();
    }

  private:
    void readRows(const std::string& path, Kind kind);
    void checkLedger();
    void checkRow(const Row& row);
    void checkSignedDocument(const Row& row, const Booked& booked, const HandedIn& document);
    void checkTold(const HandedIn& document);
    void checkProgram();
    void checkSecret();

    std::optional<std::string> deviceDocument(const Booked& booked, const HandedIn& document);
    const Booked* bookedOf(const HandedIn& document) const;
    const Row* rowOf(const HandedIn& document) const;
    const Row* rowOf(const Booked& booked) const;
    void differ(const std::string& what) { m_counter.differ(what); }

    const ShopSettings& m_settings;
    ServiceProcess& m_service;
    ServiceClient m_client;
    Counter& m_counter;
    std::vector<Booked> m_ledger;
    std::vector<Row> m_rows;
    std::vector<const HandedIn*> m_handedIn;
    std::map<std::string, const HandedIn*> m_byDigest;
    std::map<std::string, const HandedIn*> m_byKey;
    std::map<std::string, sim::SignedDocument> m_signedSales;  ///< by access key
};

void Audit::readRows(const std::string& path, Kind kind) {
    std::string after;
    do {
        const auto page = m_client.get(path + "?limite=100" + (after.empty() ? "" : "&depois=" + after));
        if (!page || page->status != 200) return differ(path + " cannot be listed");
        m_counter.inspect(page->body);
        const auto list = nlohmann::json::parse(page->body);
        for (const auto& entry : list.at("documentos")) {
            const Row row{entry.at("chave"), kind, entry.at("estado"), std::stoi(entry.value("sessao", "0")),
                          entry.value("chaveConsulta", "")};
            m_counter.count("documents " + row.state);
            m_rows.push_back(row);
        }
        after = list.value("depois", "");
    } while (!after.empty());
}

/// Each line once, and each explained by a document that a till has handed in and by a row of the journal.
void Audit::checkLedger() {
    std::set<std::string> digests;
    std::set<std::string> accessKeys;
    std::set<int> sessions;
    for (const Booked& booked : m_ledger) {
        m_counter.count("lines of the ledger");
        const std::string name = booked.accessKey + " in session " + std::to_string(booked.session);
        if (!digests.insert(booked.digest).second) differ(name + ": its document was booked before");
        if (!accessKeys.insert(booked.accessKey).second) differ(name + ": its access key is used twice");
        if (!sessions.insert(booked.session).second) differ(name + ": its session number is used twice");
        const auto handedIn = m_byDigest.find(booked.digest);
        if (handedIn == m_byDigest.end()) {
            differ(name + ": no till has handed in its document");
            continue;
        }
        const Row* const row = rowOf(booked);
        if (row == nullptr)
            differ(name + ": no row of the journal explains it");
        else if (!handedIn->second->key.empty() && row->key != handedIn->second->key)
            differ(name + ": handed in as " + handedIn->second->key + ", in the journal as " + row->key);
    }
}

void Audit::checkRow(const Row& row) {
    const auto handedIn = m_byKey.find(row.key);
    if (row.state == "emitida") {
        const auto booked = std::find_if(m_ledger.begin(), m_ledger.end(),
                                         [&](const Booked& line) { return line.accessKey == row.accessKey; });
        if (booked == m_ledger.end())
            return differ(row.key + " is emitida as " + row.accessKey + ", which is not booked");
        if (booked->session != row.session)
            differ(row.key + " has session " + std::to_string(row.session) + ", the ledger " +
                   std::to_string(booked->session));
        const auto sent = m_byDigest.find(booked->digest);
        if (sent != m_byDigest.end()) checkSignedDocument(row, *booked, *sent->second);
        return;
    }
    if (handedIn != m_byKey.end() && row.state != "a-decidir" && bookedOf(*handedIn->second) != nullptr)
        differ(row.key + " is " + row.state + ", but booked");
    if (row.state != "recusada" && row.state != "retirada" && row.state != "a-decidir")
        differ(row.key + " is still " + row.state);
}

/// The document must be what the device has made of what the till handed in, byte for byte.
void Audit::checkSignedDocument(const Row& row, const Booked& booked, const HandedIn& document) {
    const auto answer = m_client.get(
        std::string(row.kind == Kind::Sale ? "/v1/vendas/" : "/v1/cancelamentos/") + row.key + "/documento");
    if (!answer || answer->status != 200) return differ(row.key + ": its signed document does not come");
    m_counter.inspect(answer->body);
    const auto expected = deviceDocument(booked, document);
    if (!expected || answer->body != *expected) differ(row.key + ": its signed document is not the device's");
    m_counter.count("signed documents compared");
}

void Audit::checkTold(const HandedIn& document) {
    const std::string name = document.key.empty() ? "a document without a key" : document.key;
    const Booked* const booked = bookedOf(document);
    const Row* const row = rowOf(document);
    if (!document.told.empty() && !document.key.empty() && row == nullptr) return differ(name + " is lost");
    const Told* last = nullptr;
    for (const Told& told : document.told) {
        m_counter.count("states told");
        if (last != nullptr && last->state != told.state)
            differ(name + " was told as " + last->state + ", then as " + told.state);
        if (!isLastWord(told)) continue;
        last = &told;
        if (row != nullptr && row->state != told.state)
            differ(name + " was told as " + told.state + ", is " + row->state);
        if (told.state != "emitida") {
            if (booked != nullptr) differ(name + " was told as " + told.state + ", but booked");
            continue;
        }
        if (booked == nullptr) {
            differ(name + " was told as emitida, but not booked");
            continue;
        }
        if (!told.accessKey.empty() && told.accessKey != booked->accessKey)
            differ(name + " was told as " + told.accessKey + ", but booked as " + booked->accessKey);
        if (!told.signedDocument.empty() && told.signedDocument != deviceDocument(*booked, document))
            differ(name + ": the signed document that the till got is not the device's");
    }
}

/// The program's own check, while it serves and afterwards; and that it ends when asked.
void Audit::checkProgram() {
    const fs::path output = m_settings.folder / "check.log";
    const auto check = [&] {
        m_counter.count("fiscorad check");
        if (const int status = m_service.run("check", output); status != 0)
            differ("fiscorad check says " + std::to_string(status) + ": " + contentOf(output));
    };
    check();
    if (const int status = m_service.terminate(); status != 0)
        differ("fiscorad ends with " + std::to_string(status));
    check();
}

/// The activation code stands in its file, and nowhere else.
void Audit::checkSecret() {
    const auto look = [&](const fs::path& folder) {
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            if (entry.is_regular_file() && entry.path().filename() != ServiceProcess::CODE_FILE &&
                contentOf(entry.path()).find(ACTIVATION_CODE) != std::string::npos)
                differ(entry.path().string() + " has the activation code");
    };
    look(m_settings.folder);
    look(m_settings.journal.parent_path());
}

/// What the device has made of the document. None if it could not have.
std::optional<std::string> Audit::deviceDocument(const Booked& booked, const HandedIn& document) {
    if (document.kind == Kind::Sale) {
        const auto made = m_signedSales.try_emplace(
            booked.accessKey, sim::signSale(asSent(document), issuerOf(booked), FISCORA_ANSWER_MAX_BYTES));
        return made.first->second.xml;
    }
    const auto sale = std::find_if(m_ledger.begin(), m_ledger.end(),
                                   [&](const Booked& line) { return line.accessKey == document.saleKey; });
    if (sale == m_ledger.end() || m_byDigest.count(sale->digest) == 0) return std::nullopt;
    if (!deviceDocument(*sale, *m_byDigest.at(sale->digest))) return std::nullopt;
    return sim::signCancellation(asSent(document), m_signedSales.at(document.saleKey), issuerOf(booked)).xml;
}

const Booked* Audit::bookedOf(const HandedIn& document) const {
    const std::string digest = sha256(asSent(document));
    const auto booked = std::find_if(m_ledger.begin(), m_ledger.end(),
                                     [&](const Booked& line) { return line.digest == digest; });
    return booked == m_ledger.end() ? nullptr : &*booked;
}

const Row* Audit::rowOf(const HandedIn& document) const {
    const auto row =
        std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& one) { return one.key == document.key; });
    return row == m_rows.end() ? nullptr : &*row;
}

/// The row that says it is booked, or that a person is to decide about that session.
const Row* Audit::rowOf(const Booked& booked) const {
    const auto row = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& one) {
        return one.state == "emitida" ? one.accessKey == booked.accessKey
                                      : one.state == "a-decidir" && one.session == booked.session;
    });
    return row == m_rows.end() ? nullptr : &*row;
}

}  // namespace

void audit(const ShopSettings& settings, const Records& records, ServiceProcess& service, Counter& counter) {
    Audit(settings, records, service, counter).run();
}

}  // namespace crash
