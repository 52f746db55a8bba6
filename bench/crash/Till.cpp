#include "crash/Till.h"

#include <chrono>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>
#include <utility>

#include "encoding/Base64.h"
#include "fields.h"

namespace crash {
namespace {

using fiscorad::Kind;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char XML[] = "application/xml";
constexpr int LONGEST_WAIT = 30;
constexpr std::size_t MOST_OPEN = 3;
constexpr seconds CLOSING_TIME{420};

// Fields of the answer to a sale or cancellation.
constexpr std::size_t CODE = 1;
constexpr std::size_t DOCUMENT = 6;
constexpr std::size_t ACCESS_KEY = 8;

std::string pathOf(Kind kind) { return kind == Kind::Sale ? "/v1/vendas" : "/v1/cancelamentos"; }
std::string pathOf(const HandedIn& document) { return pathOf(document.kind) + "/" + document.key; }

std::string identification(const std::string& signature) {
    return "<ide><CNPJ>16716114000172</CNPJ><signAC>" + signature +
           "</signAC><numeroCaixa>001</numeroCaixa></ide>";
}

/// `mark` occurs in no other document.
std::string saleBody(const std::string& mark, Random& random) {
    std::string body =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><CFe><infCFe versaoDadosEnt=\"0.08\">" +
        identification("SGR-SAT") +
        "<emit><CNPJ>14200166000166</CNPJ><IE>111111111111</IE><indRatISSQN>N</indRatISSQN></emit><dest/>";
    const int items = random.oneIn(20) ? 60 : random.number(1, 4);
    for (int item = 1; item <= items; ++item)
        body += "<det nItem=\"" + std::to_string(item) + "\"><prod><cProd>" + random.digits(4) +
                "</cProd><xProd>Café " + mark + "</xProd><CFOP>5102</CFOP><uCom>UN</uCom><qCom>" +
                std::to_string(random.number(1, 9)) + ".0000</qCom><vUnCom>" + random.digits(2) +
                ".50</vUnCom><indRegra>A</indRegra></prod></det>";
    return body + "<total/><pgto><MP><cMP>01</cMP><vMP>99000.00</vMP></MP></pgto></infCFe></CFe>";
}

/// The device refuses it.
std::string badSaleBody(const std::string& mark, Random& random) {
    std::string body = saleBody(mark, random);
    return body.replace(body.find(".50</vUnCom>"), 3, ",5x");
}

std::string cancellationBody(const std::string& mark, const std::string& saleKey) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><CFeCanc><infCFe chCanc=\"" + saleKey + "\">" +
           identification("SGR-SAT " + mark) + "<emit/><dest/><total/></infCFe></CFeCanc>";
}

}  // namespace

Till::Till(Counter& counter, int number, Way way, unsigned seed)
    : m_counter(counter),
      m_client(counter.port(), [&counter] { counter.stir(); }),
      m_number(number),
      m_way(way),
      m_random(seed) {}

void Till::work() {
    while (!m_counter.isClosed()) {
        act();
        std::this_thread::sleep_for(milliseconds(m_random.number(0, m_random.oneIn(5) ? 3000 : 300)));
    }
    const auto end = std::chrono::steady_clock::now() + CLOSING_TIME;
    for (HandedIn& document : m_records) {
        while (hasKeys() && !document.isSettled() && std::chrono::steady_clock::now() < end) {
            handIn(document, 10);
            std::this_thread::sleep_for(milliseconds(200));
        }
    }
}

void Till::act() {
    if (m_random.oneIn(12)) return meddle();
    // A queue that only grows would hide what happens to a document that is sent at once.
    const auto open = openDocuments();
    if (open.size() >= MOST_OPEN || (!open.empty() && !m_random.oneIn(3)))
        return settle(*m_random.oneOf(open));
    if (!m_records.empty() && m_random.oneIn(6))
        return askAgain(
            m_records[static_cast<std::size_t>(m_random.number(0, static_cast<int>(m_records.size()) - 1))]);
    serveCustomer();
}

void Till::serveCustomer() {
    // A cancellation is only taken while no other sale has followed, so it comes at once.
    const auto saleKey = lastBookedSale();
    if (m_number != 1 && m_counter.isQuiet()) return;
    HandedIn& document = saleKey && m_random.oneIn(4) ? newCancellation(*saleKey) : newSale();
    if (!hasKeys()) return handIn(document, 0);
    switch (m_random.number(1, 12)) {
        case 1:
            if (document.byForm) break;
            withdraw(document);  // before it arrives
            break;
        case 2: return handInTwice(document);
        default: break;
    }
    handIn(document, m_random.oneOf(std::vector{0, 1, 5, LONGEST_WAIT}));
}

/// Finds out what became of a document that may or may not have arrived.
void Till::settle(HandedIn& document) {
    switch (m_random.number(1, 10)) {
        case 1:
            if (!document.byForm) return withdraw(document);
            break;
        case 2:
        case 3: return ask(document);
        case 4: return handInTwice(document);
        default: break;
    }
    handIn(document, m_random.oneOf(std::vector{0, 2, 10}));
}

void Till::askAgain(HandedIn& document) {
    if (document.key.empty()) return;
    switch (m_random.number(1, 4)) {
        case 1: return ask(document);
        case 2: return download(document);
        case 3: return reuseKey(document);
        default: return handIn(document, 0);
    }
}

/// What has nothing to do with documents.
void Till::meddle() {
    std::optional<HttpAnswer> answer;
    switch (m_random.number(1, 5)) {
        case 1: answer = m_client.get("/v1/equipamento"); break;
        case 2: answer = m_client.get("/v1/vendas?limite=5"); break;
        case 3:
            answer =
                m_client.post("/v1/operacoes/ConsultarSAT", {}, R"({"argumentos": {}})", "application/json");
            break;
        case 4:
            answer = m_client.postForm("/hub/v1/consultarstatusoperacional", {}, {{"numero_caixa", "001"}});
            break;
        default:
            answer = m_client.post("/v1/vendas", {{"Idempotency-Key", "chave inválida"}}, "<CFe/>", XML);
            break;
    }
    if (answer) m_counter.inspect(answer->body);
    m_counter.count("other requests");
}

std::string Till::newKey() {
    std::string key =
        "t" + std::to_string(m_number) + "." + std::to_string(++m_documents) + "-" + m_random.digits(6);
    if (m_random.oneIn(10)) key.append(128 - key.size(), '_');
    return key;
}

HandedIn& Till::newSale() {
    const std::string key = newKey();
    m_records.push_back({hasKeys() ? key : "",
                         Kind::Sale,
                         m_random.oneIn(12) ? badSaleBody(key, m_random) : saleBody(key, m_random),
                         "",
                         m_way != Way::Keys,
                         {}});
    return m_records.back();
}

HandedIn& Till::newCancellation(const std::string& saleKey) {
    const std::string key = newKey();
    m_records.push_back({hasKeys() ? key : "",
                         Kind::Cancellation,
                         cancellationBody(key, saleKey),
                         saleKey,
                         m_way != Way::Keys,
                         {}});
    return m_records.back();
}

/// Those that it will hand in again.
std::vector<HandedIn*> Till::openDocuments() {
    std::vector<HandedIn*> open;
    for (HandedIn& document : m_records)
        if (hasKeys() && !document.isSettled()) open.push_back(&document);
    return open;
}

std::optional<std::string> Till::lastBookedSale() const {
    if (m_records.empty() || m_records.back().kind != Kind::Sale || m_records.back().told.empty())
        return std::nullopt;
    const Told& told = m_records.back().told.back();
    return told.state == "emitida" ? std::optional(told.accessKey) : std::nullopt;
}

void Till::handIn(HandedIn& document, int waitSeconds) {
    m_counter.count(document.key.empty() ? "submissions without a key" : "submissions with a key");
    note(document, handedIn(document, send(document, waitSeconds)));
}

/// The till was switched off and on, and both requests are under way.
void Till::handInTwice(HandedIn& document) {
    m_counter.count("keys sent twice at once");
    auto other = std::async(std::launch::async, [&] { return send(document, 5); });
    const auto answer = send(document, 5);
    auto first = handedIn(document, answer);
    auto second = handedIn(document, other.get());
    // Nobody knows which came first, but one of them may be the last word.
    if (first && isLastWord(*first)) std::swap(first, second);
    note(document, first);
    note(document, second);
}

std::optional<HttpAnswer> Till::send(const HandedIn& document, int waitSeconds) {
    ServiceClient::Fields headers;
    if (!document.key.empty()) headers.emplace("Idempotency-Key", document.key);
    if (document.byForm) {
        ServiceClient::Fields form{{"numero_caixa", "00" + std::to_string(m_number)}};
        if (document.kind == Kind::Sale) {
            form.emplace("dados_venda", document.body);
            return m_client.postForm("/hub/v1/enviardadosvenda", headers, form);
        }
        form.emplace("chave_cfe", document.saleKey);
        form.emplace("dados_cancelamento", document.body);
        return m_client.postForm("/hub/v1/cancelarultimavenda", headers, form);
    }
    headers.emplace("Prefer", "wait=" + std::to_string(waitSeconds));
    const std::string query = document.kind == Kind::Cancellation ? "?chave=" + document.saleKey : "";
    return m_client.post(pathOf(document.kind) + query, headers, document.body, XML);
}

void Till::withdraw(HandedIn& document) {
    m_counter.count("withdrawals");
    const auto answer = m_client.remove(pathOf(document));
    if (!answer) return;
    m_counter.inspect(answer->body);
    if (answer->status == 204) return note(document, Told{"retirada", "", ""});
    if (answer->status == 409) return note(document, toldIn(document, answer));  // it shows the document
    if (answer->status != 503)
        m_counter.differ("withdrawing " + document.key + " gives " + std::to_string(answer->status));
}

void Till::ask(HandedIn& document) {
    m_counter.count("questions");
    const auto answer = m_client.get(pathOf(document));
    if (answer && answer->status == 404) {
        if (!document.told.empty())
            m_counter.differ(document.key + " was " + document.told.back().state + ", now 404");
        return;
    }
    note(document, toldIn(document, answer));
}

void Till::download(HandedIn& document) {
    m_counter.count("downloads");
    const auto answer = m_client.get(pathOf(document) + "/documento");
    if (!answer || answer->status >= 500) return;
    m_counter.inspect(answer->body);
    const bool isBooked = document.isFinal() && document.told.back().state == "emitida";
    if (answer->status == 200)
        document.told.push_back({"emitida", isBooked ? document.told.back().accessKey : "", answer->body});
    else if (answer->status != 404 || isBooked)
        m_counter.differ("the signed document of " + document.key + " gives " +
                         std::to_string(answer->status));
}

/// Another document under the same key must be refused.
void Till::reuseKey(const HandedIn& document) {
    if (document.byForm || document.told.empty() || document.told.back().state == "retirada") return;
    HandedIn other = document;
    other.body.replace(other.body.find("SGR"), 3, "XYZ");
    const auto answer = send(other, 0);
    m_counter.count("keys used for another document");
    if (!answer || answer->status == 503) return;
    if (answer->status != 422 || answer->body.find("chave-reutilizada") == std::string::npos)
        m_counter.differ("another document under " + document.key + " gives " +
                         std::to_string(answer->status));
}

void Till::note(HandedIn& document, const std::optional<Told>& told) {
    if (!told) return;
    if (told->state == "emitida" && !document.isFinal()) m_counter.count("documents told as booked");
    document.told.push_back(*told);
}

/// What the answer to handing in tells; its status must fit.
std::optional<Told> Till::handedIn(const HandedIn& document, const std::optional<HttpAnswer>& answer) {
    auto told = toldIn(document, answer);
    if (!told || document.byForm) return told;
    static const std::map<int, std::set<std::string>> meanings{
        {200, {"emitida"}},
        {201, {"emitida"}},
        {202, {"na-fila", "enviada", "incerta", "a-decidir"}},
        {410, {"retirada", "abandonada"}},
        {422, {"recusada"}}};
    const auto meaning = meanings.find(answer->status);
    if (meaning == meanings.end() || meaning->second.count(told->state) == 0)
        m_counter.differ("status " + std::to_string(answer->status) + " for " + document.key + ", which is " +
                         told->state);
    return told;
}

/// What the answer tells of the document, if anything.
std::optional<Told> Till::toldIn(const HandedIn& document, const std::optional<HttpAnswer>& answer) {
    if (!answer || answer->status == 503 || (document.byForm && answer->status == 504)) {
        m_counter.count(answer ? "answers 503 and 504" : "requests without an answer");
        return std::nullopt;
    }
    m_counter.inspect(answer->body);
    const auto told = nlohmann::json::parse(answer->body, nullptr, false);
    if (told.is_object() && told.contains("retorno") && told.contains("funcao"))
        return toldByForm(document, told.at("retorno").get<std::string>());
    if (told.is_object() && told.contains("estado"))
        return Told{told.at("estado").get<std::string>(), told.value("chaveConsulta", ""), ""};
    m_counter.differ("status " + std::to_string(answer->status) + " for " + document.key + ": " +
                     answer->body);
    return std::nullopt;
}

std::optional<Told> Till::toldByForm(const HandedIn& document, const std::string& text) {
    const auto fields = fieldsOf(text);
    const std::string_view code = fields.size() > CODE ? fields[CODE] : std::string_view();
    const std::string booked = document.kind == Kind::Sale ? "06000" : "07000";
    if (code == booked && fields.size() > ACCESS_KEY)
        return Told{"emitida", std::string(fields[ACCESS_KEY]),
                    Base64::decode(std::string(fields[DOCUMENT]))};
    if (code != booked && code.size() == booked.size() && code.substr(0, 2) == booked.substr(0, 2))
        return Told{"recusada", "", ""};
    m_counter.differ("the form API answers " + text.substr(0, 200));
    return std::nullopt;
}

}  // namespace crash
