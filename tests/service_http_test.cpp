// The service as tills meet it: real requests over sockets to a real service, journal and dispatcher, with a
// simulated device that can be held in the middle of a sale.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "Changes.h"
#include "Descriptor.h"
#include "Service.h"
#include "dispatcher/ActivationCode.h"
#include "dispatcher/Dispatcher.h"
#include "encoding/Base64.h"
#include "fields.h"
#include "fiscal/operations.h"
#include "fiscora.h"
#include "http/Server.h"
#include "journal/Journal.h"
#include "platform.h"
#include "sim/SimulatedDevice.h"

namespace {

using namespace fiscorad;
using namespace std::chrono_literals;
using namespace std::string_literals;
using nlohmann::json;
using std::string;

constexpr char CODE[] = "12345678";
constexpr std::size_t LIMIT = 100'000;  ///< bytes of a document here
constexpr std::size_t QUEUE = 300;

string sale(const string& product) {
    return "<CFe><infCFe versaoDadosEnt=\"0.08\"><ide><CNPJ>16716114000172</CNPJ><signAC>x</signAC>"
           "<numeroCaixa>001</numeroCaixa></ide><emit><CNPJ>14200166000166</CNPJ></emit><dest/>"
           "<det nItem=\"1\"><prod><xProd>" +
           product +
           "</xProd><qCom>1.0000</qCom><vUnCom>5.00</vUnCom></prod></det><total/><pgto><MP><cMP>01</cMP>"
           "<vMP>5.00</vMP></MP></pgto></infCFe></CFe>";
}

string cancellation(const string& key) {
    return "<CFeCanc><infCFe chCanc=\"" + key +
           "\"><ide><CNPJ>16716114000172</CNPJ><signAC>x</signAC><numeroCaixa>001</numeroCaixa></ide></infCFe>"
           "</CFeCanc>";
}

/// A device whose sales wait at a gate, and whose operations can fail.
class Device : public Equipment {
  public:
    Device() : m_device(settings()) {}
    std::optional<std::uint64_t> connection() override { return 1; }
    rules::Reply call(const manipulaDados::Operation& operation,
                      const std::vector<manipulaDados::Argument>& arguments) override {
        manipulaDados::ManipulaDadosSat library;
        const auto request = library.makeRequest(operation, arguments);
        if (operation.effect == manipulaDados::Effect::Books)
            while (!open) std::this_thread::sleep_for(1ms);
        if (operation.command == string(manipulaDados::CMD_TESTE_FIM_A_FIM))
            return {FISCORA_STATUS_TIMEOUT, 0, ""};
        return {0, 0, m_device.answer(operation.command, *request)};
    }
    std::atomic<bool> open{true};

  private:
    static sim::DeviceSettings settings() {
        sim::DeviceSettings settings;
        settings.activationCode = CODE;
        return settings;
    }
    sim::SimulatedDevice m_device;
};

struct Reply {
    int status = 0;  ///< 0: the connection was closed without a response
    string head;
    string body;
    json content() const { return json::parse(body); }
    string type() const { return status < 400 ? "" : content().value("type", ""); }
};

/// A till's connection.
class Till {
  public:
    explicit Till(std::uint16_t port, int receiveBuffer = 0) : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        if (receiveBuffer > 0)
            setsockopt(m_fd.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(m_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    bool send(const string& bytes) {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const auto more = ::send(m_fd.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (more <= 0) return false;
            sent += static_cast<std::size_t>(more);
        }
        return true;
    }
    void hangUp() { shutdown(m_fd.get(), SHUT_WR); }
    /// False when the other end has closed, or after 10 s.
    bool read() {
        std::array<char, 65536> bytes{};
        pollfd input{m_fd.get(), POLLIN, 0};
        if (::poll(&input, 1, 10'000) != 1) return false;
        const auto size = recv(m_fd.get(), bytes.data(), bytes.size(), 0);
        if (size > 0) m_read.append(bytes.data(), static_cast<std::size_t>(size));
        return size > 0;
    }
    /// Empty if the other end closes before.
    string readUntil(const string& end) {
        while (m_read.find(end) == string::npos)
            if (!read()) return "";
        const auto size = m_read.find(end) + end.size();
        const string result = m_read.substr(0, size);
        m_read.erase(0, size);
        return result;
    }
    Reply reply(const string& method = "GET") {
        Reply reply;
        reply.head = readUntil("\r\n\r\n");
        if (reply.head.substr(0, 9) != "HTTP/1.1 ") return reply;
        reply.status = std::stoi(reply.head.substr(9, 3));
        const auto length = reply.head.find("Content-Length: ");
        if (method == "HEAD" || length == string::npos) return reply;
        const std::size_t size = std::stoul(reply.head.substr(length + 16));
        while (m_read.size() < size && read()) {
        }
        reply.body = m_read.substr(0, size);
        m_read.erase(0, size);
        return reply;
    }
    Reply ask(const string& method, const string& target, const string& headers = "",
              const string& body = "") {
        const bool hasLength = headers.find("Content-Length: ") != string::npos;
        send(method + " " + target + " HTTP/1.1\r\nHost: x\r\n" + headers +
             (hasLength ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body);
        return reply(method);
    }

  private:
    tool::Descriptor m_fd;
    string m_read;
};

string keyHeaders(const string& key, const string& more = "") {
    return "Idempotency-Key: " + key + "\r\nContent-Type: application/xml\r\n" + more;
}
const string FORM = "Content-Type: application/x-www-form-urlencoded\r\n";

string escaped(const string& text) {
    string result;
    constexpr char DIGITS[] = "0123456789ABCDEF";
    for (const char c : text)
        result += string("%") + DIGITS[static_cast<unsigned char>(c) >> 4U] + DIGITS[c & 15];
    return result;
}

class Http : public testing::Test {
  protected:
    Http() {
        std::ofstream("code") << CODE << "\n";
        std::filesystem::permissions("code", std::filesystem::perms::owner_read);
        m_code = std::make_unique<ActivationCode>("code");
        m_dispatcher =
            std::make_unique<Dispatcher>(m_journal, device, *m_code, m_changes, Dispatcher::Settings{"host"});
        service = std::make_unique<Service>(m_journal, *m_dispatcher, m_changes, QUEUE);
        settings.maxDocumentBytes = LIMIT;
        start();
    }
    ~Http() override {
        device.open = true;
        m_dispatcher->stop();
        if (m_thread.joinable()) m_thread.join();
    }
    void start() {
        server.reset();
        server = std::make_unique<http::Server>(*service, calls, settings);
    }
    void startDevice() {
        m_thread = std::thread([this] { m_dispatcher->run(); });
    }
    Till till() const { return Till(server->port()); }
    Reply ask(const string& method, const string& target, const string& headers = "",
              const string& body = "") {
        return till().ask(method, target, headers, body);
    }
    Reply sell(const string& key, const string& more = "") {
        return ask("POST", "/v1/vendas", keyHeaders(key, more), sale(key));
    }
    std::future<Reply> sellLater(const string& key, const string& more = "") {
        return std::async(std::launch::async, [=] { return sell(key, more); });
    }
    void await(const string& key) {
        while (!m_journal.find(key)) std::this_thread::sleep_for(1ms);
    }
    /// Leaves a queued document to a person, without a device.
    void leaveUndecided(const string& key) {
        const Document document = m_journal.find(key).value();
        Attempt attempt;
        attempt.document = document.id;
        attempt.session = m_journal.takeSession();
        attempt.serial = "900004019";
        attempt.node = "host";
        Outcome outcome;
        outcome.state = State::Undecided;
        m_journal.settle(m_journal.beginAttempt(attempt).value(), State::Sent, outcome);
        m_changes.publish(m_journal.find(key).value());
    }

    using Clock = rules::Clock;
    WorkingDirectory folder;
    Device device;
    Journal m_journal{"journal.db"};
    std::unique_ptr<ActivationCode> m_code;
    Changes m_changes;
    std::unique_ptr<Dispatcher> m_dispatcher;
    std::unique_ptr<Service> service;
    http::Server::Settings settings;
    CallHistory calls;
    std::unique_ptr<http::Server> server;
    std::thread m_thread;
};

TEST_F(Http, RefusesWhatItCannotUnderstandAndSaysWhy) {
    const string document = sale("x");
    const string xml = "Content-Type: application/xml\r\n";
    struct Case {
        const char* name;
        const char* method;
        string target, headers, body;
        int status;
        const char* type;
        const char* piece;  ///< of the answer, header or body
    };
    const std::vector<Case> cases{
        {"NoKey", "POST", "/v1/vendas", xml, document, 400, "chave-invalida", "Falta"},
        {"KeyWithBlank", "POST", "/v1/vendas", keyHeaders("a b"), document, 400, "chave-invalida", ""},
        {"KeyThatIsAPath", "POST", "/v1/vendas", keyHeaders(".."), document, 400, "chave-invalida", ""},
        {"KeyOf129", "POST", "/v1/vendas", keyHeaders(string(129, 'k')), document, 400, "chave-invalida", ""},
        {"HalfQuoted", "POST", "/v1/vendas", keyHeaders("\"k"), document, 400, "chave-invalida", ""},
        {"TwoKeys", "POST", "/v1/vendas", keyHeaders("a") + keyHeaders("b"), document, 400, "chave-invalida",
         ""},
        {"OtherType", "POST", "/v1/vendas", "Idempotency-Key: k\r\nContent-Type: text/plain\r\n", document,
         415, "tipo-nao-suportado", ""},
        {"Empty", "POST", "/v1/vendas", keyHeaders("k"), "", 400, "corpo-invalido", "vazio"},
        {"Nul", "POST", "/v1/vendas", keyHeaders("k"), document + '\0', 400, "corpo-invalido", "zero"},
        {"OneByteTooMany", "POST", "/v1/vendas", keyHeaders("k"), string(LIMIT + 1, 'x'), 413,
         "grande-demais", ""},
        {"FarTooLarge", "POST", "/v1/vendas", keyHeaders("k"), string(5 * LIMIT, 'x'), 413, "grande-demais",
         ""},
        {"AnnouncedTooLarge", "POST", "/v1/vendas",
         "Expect: 100-continue\r\nContent-Length: 99999999\r\n" + keyHeaders("k"), "", 413, "grande-demais",
         ""},
        {"ParameterOfNoUse", "POST", "/v1/vendas?chave=1", keyHeaders("k"), document, 400,
         "parametro-invalido", "chave"},
        {"NoSale", "POST", "/v1/cancelamentos", keyHeaders("k"), document, 400, "chave-de-acesso-invalida",
         ""},
        {"WrongCheckDigit", "POST", "/v1/cancelamentos?chave=CFe35261114200166000166599000040190000010123451",
         keyHeaders("k"), document, 400, "chave-de-acesso-invalida", ""},
        {"UnknownPath", "GET", "/v1/venda", "", "", 404, "nao-encontrado", ""},
        {"UnknownKey", "GET", "/v1/vendas/k", "", "", 404, "nao-encontrado", ""},
        {"KeyCutByNul", "GET", "/v1/vendas/k%00", "", "", 400, "chave-invalida", ""},
        {"BadEscape", "GET", "/v1/vendas/%4", "", "", 400, "requisicao-invalida", ""},
        {"OtherMethod", "PUT", "/v1/vendas", "", "", 405, "metodo-nao-permitido", "Allow: POST, GET, HEAD"},
        {"UnknownState", "GET", "/v1/vendas?estado=vendida", "", "", 400, "parametro-invalido", "vendida"},
        {"NoSuchDay", "GET", "/v1/vendas?desde=2026-02-30", "", "", 400, "parametro-invalido", "desde"},
        {"TimeWithoutOffset", "GET", "/v1/vendas?ate=2026-02-03T10:00:00", "", "", 400, "parametro-invalido",
         "ate"},
        {"NoPage", "GET", "/v1/vendas?depois=x", "", "", 400, "parametro-invalido", "depois"},
        {"Limit0", "GET", "/v1/vendas?limite=0", "", "", 400, "parametro-invalido", "limite"},
        {"Limit1001", "GET", "/v1/vendas?limite=1001", "", "", 400, "parametro-invalido", "limite"},
        {"Twice", "GET", "/v1/vendas?caixa=1&caixa=2", "", "", 400, "parametro-invalido", "caixa"},
        {"Mistyped", "GET", "/v1/vendas?estdo=emitida", "", "", 400, "parametro-invalido", "estdo"},
        {"NoHours", "GET", "/v1/chamadas?horas=0", "", "", 400, "parametro-invalido", "horas"},
        {"UnexplainedConfirmation", "POST", "/v1/equipamento/confirmacao", "", "{}", 400,
         "argumento-invalido", "motivo"},
        {"NoOperation", "POST", "/v1/operacoes/Vender", "", "", 404, "nao-encontrado", "Vender"},
        {"Document", "POST", "/v1/operacoes/EnviarDadosVenda", "", "", 409, "operacao-de-documento", ""},
        {"NoJson", "POST", "/v1/operacoes/ConsultarSAT", "", "{\"\xff\"", 400, "corpo-invalido", ""},
        {"MissingArgument", "POST", "/v1/operacoes/ConsultarNumeroSessao", "", "{}", 400,
         "argumento-invalido", "cNumeroDeSessao"},
        {"OutOfRange", "POST", "/v1/operacoes/ConsultarNumeroSessao", "",
         R"({"argumentos":{"cNumeroDeSessao":1000000}})", 400, "argumento-invalido", "999999"},
        {"CodeGiven", "POST", "/v1/operacoes/BloquearSAT", "", R"({"argumentos":{"codigoDeAtivacao":"1"}})",
         400, "argumento-invalido", "codigoDeAtivacao"},
        {"NoFunction", "POST", "/hub/v1/vender", FORM, "numero_caixa=1", 404, "nao-encontrado", "vender"},
        {"NoTill", "POST", "/hub/v1/consultarsat", FORM, "", 400, "argumento-invalido", "numero_caixa"},
        {"TillOf65", "POST", "/hub/v1/consultarsat", FORM, "numero_caixa=" + string(65, '1'), 400,
         "argumento-invalido", "64"},
        {"NoField", "POST", "/hub/v1/enviardadosvenda", FORM, "numero_caixa=1", 400, "argumento-invalido",
         "dados_venda"},
        {"NoForm", "POST", "/hub/v1/consultarsat", xml, "numero_caixa=1", 415, "tipo-nao-suportado", ""},
        {"FormNul", "POST", "/hub/v1/enviardadosvenda", FORM, "numero_caixa=1&dados_venda=a%00", 400,
         "corpo-invalido", "zero"},
    };
    Till till(server->port());  // one connection for all: none may spoil it for the next
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const bool closes =
            c.headers.find("Expect") != string::npos || (c.target + c.headers).find('\0') != string::npos;
        const Reply reply = closes ? ask(c.method, c.target, c.headers, c.body)
                                   : till.ask(c.method, c.target, c.headers, c.body);
        EXPECT_EQ(reply.status, c.status);
        EXPECT_NE(reply.head.find("Content-Type: application/problem+json"), string::npos);
        EXPECT_EQ(reply.type(), string("/problemas/") + c.type);
        EXPECT_NE((reply.head + reply.body).find(c.piece), string::npos) << reply.body;
    }
    EXPECT_FALSE(m_journal.find("k")) << "none of these is a submission";
}

TEST_F(Http, DecidesOnlyWithAReasonAndAKeyThatNoOtherHas) {
    const string taken = "CFe35261114200166000166599000040190000011126480";
    for (const char* key : {"vendida", "perdida"}) {
        sell(key, "Prefer: wait=0\r\n");
        leaveUndecided(key);
    }
    const auto decide = [&](const string& path, const string& body) {
        return ask("POST", path + "/decisao", "Content-Type: application/json\r\n", body);
    };
    const string booked = R"({"motivo":"m","decisao":"emitida","chaveConsulta":")" + taken + "\"}";
    ASSERT_EQ(decide("/v1/vendas/vendida", booked).status, 200);
    struct Case {
        const char* name;
        string path, body;
        int status;
        const char* type;
    };
    const string lost = "/v1/vendas/perdida";
    for (const Case& c : std::vector<Case>{
             {"NoObject", lost, "[]", 400, "corpo-invalido"},
             {"NoReason", lost, R"({"decisao":"abandonada"})", 400, "argumento-invalido"},
             {"BlankReason", lost, R"({"decisao":"abandonada","motivo":" "})", 400, "argumento-invalido"},
             {"ReasonOfOtherType", lost, R"({"decisao":"abandonada","motivo":1})", 400, "argumento-invalido"},
             {"UnknownDecision", lost, R"({"decisao":"recusada","motivo":"m"})", 400, "argumento-invalido"},
             {"NoAccessKey", lost, R"({"decisao":"emitida","motivo":"m"})", 400, "chave-de-acesso-invalida"},
             {"AccessKeyOfAnother", lost, booked, 400, "chave-de-acesso-invalida"},
             {"OtherKind", "/v1/cancelamentos/perdida", booked, 404, "nao-encontrado"},
             {"DecidedBefore", "/v1/vendas/vendida", booked, 409, "nada-a-decidir"},
         }) {
        SCOPED_TRACE(c.name);
        const Reply reply = decide(c.path, c.body);
        EXPECT_EQ(reply.status, c.status);
        EXPECT_EQ(reply.type(), string("/problemas/") + c.type);
        EXPECT_EQ(m_journal.find("perdida")->state, State::Undecided);
    }
    EXPECT_EQ(decide(lost, R"({"motivo":"m","decisao":"abandonada"})").content().value("estado", ""),
              "abandonada");
    EXPECT_EQ(m_journal.history(m_journal.find("perdida")->id).back().person, "sem token");
    EXPECT_EQ(ask("GET", "/v1/resumo").content().value("emitidas", 0), 1);
    EXPECT_NE(ask("GET", "/v1/vendas/vendida/documento").body.find("SEFAZ"), string::npos)
        << "the document is booked, though its XML is not here";
}

TEST_F(Http, BooksOnceAndTellsTheSameEverAfter) {
    startDevice();
    const Reply first = sell("\"venda-1\"");
    ASSERT_EQ(first.status, 201) << first.body;
    const json booked = first.content();
    EXPECT_EQ(booked.value("estado", ""), "emitida");
    EXPECT_EQ(booked.value("EEEEE", ""), "06000");
    EXPECT_EQ(booked.value("sessao", "").size(), 6U);
    EXPECT_EQ(fieldsOf(booked.value("retorno", "")).at(6), "");
    EXPECT_NE(first.head.find("Location: /v1/vendas/venda-1\r\n"), string::npos);

    const Reply again = ask("POST", "/v1/vendas", keyHeaders("venda-1"), sale("\"venda-1\""));
    EXPECT_EQ(again.status, 200);
    EXPECT_EQ(again.content(), booked);
    EXPECT_EQ(ask("GET", "/v1/vendas/venda-1").content(), booked);
    EXPECT_EQ(ask("HEAD", "/v1/vendas/venda-1").status, 200);
    const Reply document = ask("GET", booked.value("documento", "?"));
    EXPECT_NE(document.body.find(booked.value("chaveConsulta", "?")), string::npos);
    EXPECT_NE(document.head.find("Content-Type: application/xml\r\n"), string::npos);
    EXPECT_EQ(ask("POST", "/v1/vendas", keyHeaders("venda-1"), sale("outra")).type(),
              "/problemas/chave-reutilizada");
    EXPECT_EQ(ask("DELETE", "/v1/vendas/venda-1").status, 409);

    const string saleKey = booked.value("chaveConsulta", "");
    const Reply cancelled =
        ask("POST", "/v1/cancelamentos?chave=" + saleKey,
            keyHeaders("canc-1", "Prefer: respond-async, wait=120;x=1\r\n"), cancellation(saleKey));
    EXPECT_EQ(cancelled.status, 201) << cancelled.body;
    EXPECT_EQ(ask("GET", "/v1/vendas/canc-1").status, 404) << "a cancellation is no sale";
    EXPECT_EQ(ask("GET", cancelled.content().value("documento", "?")).status, 200);
}

TEST_F(Http, TellsARefusedWithdrawnOrAbandonedDocumentFromOneThatIsNot) {
    EXPECT_EQ(ask("DELETE", "/v1/vendas/never").status, 204);
    EXPECT_EQ(sell("never").type(), "/problemas/retirada") << "a delayed request must not book";
    EXPECT_EQ(sell("odd", "Prefer: wait=0\r\n").status, 202);
    leaveUndecided("odd");
    const Reply undecided = sell("odd", "Prefer: wait=20\r\n");
    EXPECT_EQ(undecided.status, 202) << "nobody can wait for a person";
    EXPECT_EQ(undecided.content().value("estado", ""), "a-decidir");
    m_journal.rule("odd", {Ruling::Kind::Abandon, "", "Ana", "equipamento perdido"});
    const Reply abandoned = sell("odd");
    EXPECT_EQ(abandoned.status, 410);
    EXPECT_EQ(abandoned.type(), "/problemas/abandonada");
    EXPECT_EQ(abandoned.content().value("chave", ""), "odd");

    startDevice();
    const Reply refused = ask("POST", "/v1/vendas", keyHeaders("bad"), "no document");
    EXPECT_EQ(refused.status, 422);
    EXPECT_EQ(refused.type(), "/problemas/recusada");
    EXPECT_EQ(refused.content().value("estado", ""), "recusada");
    EXPECT_EQ(ask("GET", "/v1/vendas/bad/documento").status, 404);
}

TEST_F(Http, AnswersAllWhoWaitWhenTheDocumentHasItsOutcome) {
    device.open = false;
    startDevice();
    std::vector<std::future<Reply>> waiting;
    for (int i = 0; i < 3; ++i) waiting.push_back(sellLater("one"));
    await("one");
    waiting.push_back(std::async(std::launch::async,
                                 [this] { return ask("GET", "/v1/vendas/one", "Prefer: wait=20\r\n"); }));
    const Reply impatient = sell("one", "Prefer: wait=0\r\n");
    EXPECT_EQ(impatient.status, 202);
    EXPECT_NE(impatient.head.find("Location: /v1/vendas/one\r\n"), string::npos);
    auto withdrawn = sellLater("two");
    await("two");
    EXPECT_EQ(ask("DELETE", "/v1/vendas/two").status, 204);
    EXPECT_EQ(withdrawn.get().type(), "/problemas/retirada");
    std::this_thread::sleep_for(50ms);
    device.open = true;
    for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(waiting[i].get().status, 201);
    EXPECT_EQ(waiting[3].get().content().value("estado", ""), "emitida");
}

TEST_F(Http, SendsWaitingTillsAwayWhenItStops) {
    auto waiting = sellLater("one");
    await("one");
    std::this_thread::sleep_for(50ms);
    server->stop();
    EXPECT_EQ(waiting.get().status, 202);
    const Reply late = sell("two");
    EXPECT_EQ(late.status, 503);
    EXPECT_NE(late.head.find("Retry-After: "), string::npos);
    EXPECT_EQ(ask("GET", "/pronto").status, 503);
    EXPECT_EQ(ask("GET", "/saude").status, 200);
}

TEST_F(Http, ListsPagesThatNeitherOverlapNorMiss) {
    for (int i = 0; i < 5; ++i) sell("k" + std::to_string(i), "Prefer: wait=0\r\n");
    ask("DELETE", "/v1/vendas/k2");
    string keys;
    string next;
    do {
        const json page = ask("GET", "/v1/vendas?estado=na-fila&limite=2" + next).content();
        for (const json& document : page.at("documentos")) keys += document.value("chave", "") + " ";
        next = page.contains("depois") ? "&depois=" + page.value("depois", "") : "";
    } while (!next.empty());
    EXPECT_EQ(keys, "k4 k3 k1 k0 ");
    const auto count = [&](const string& query) {
        return ask("GET", "/v1/vendas?" + query).content()["documentos"].size();
    };
    const string now = ask("GET", "/v1/vendas/k0").content().value("recebidaEm", "");
    EXPECT_EQ(count("desde=" + now), 5U) << "the \"+\" of an offset may come as it is";
    EXPECT_EQ(count("ate=" + now), 0U);
    EXPECT_EQ(count("desde=" + now.substr(0, 10) + "&ate=" + now.substr(0, 10)), 5U)
        << "a day is a whole day";
    EXPECT_EQ(ask("GET", "/v1/cancelamentos").content()["documentos"].size(), 0U);
}

TEST_F(Http, SpeaksTheFormApi) {
    startDevice();
    const string till = "numero_caixa=caf%E9&";
    const Reply sold = ask("POST", "/hub/v1/enviardadosvenda", FORM + "Idempotency-Key: k\r\n",
                           till + "dados_venda=" + escaped(sale("k")));
    ASSERT_EQ(sold.status, 200) << sold.body;
    EXPECT_EQ(sold.content().value("funcao", ""), "EnviarDadosVenda");
    const string answer = sold.content().value("retorno", "");
    EXPECT_EQ(Base64::decode(string(fieldsOf(answer).at(6))), ask("GET", "/v1/vendas/k/documento").body);
    EXPECT_EQ(ask("GET", "/v1/vendas/k").content().value("caixa", ""), "café") << "Latin-1 becomes UTF-8";
    EXPECT_EQ(ask("GET", "/v1/vendas?caixa=caf%E9").content()["documentos"].size(), 1U);

    const Reply refused = ask("POST", "/hub/v1/enviardadosvenda", FORM, till + "dados_venda=x");
    EXPECT_EQ(refused.status, 200) << "clients read the refusal from the answer";
    EXPECT_NE(refused.content().value("retorno", "").find("|06"), string::npos);
    const Reply asked =
        ask("POST", "/hub/v1/consultarnumerosessao", FORM, till + "numero_sessao=" + answer.substr(0, 6));
    EXPECT_EQ(fieldsOf(asked.content().value("retorno", "")).at(1), "06000");
    EXPECT_EQ(ask("POST", "/hub/v1/testefimafim", FORM, till + "dados_venda=x").status, 502);

    device.open = false;
    settings.formWait = 50ms;
    start();
    const Reply undecided = ask("POST", "/hub/v1/enviardadosvenda", FORM, till + "dados_venda=" + sale("l"));
    EXPECT_EQ(undecided.type(), "/problemas/sem-desfecho");
}

TEST_F(Http, CallsOperationsByTheirNames) {
    startDevice();
    const json status = ask("POST", "/v1/operacoes/ConsultarStatusOperacional").content();
    EXPECT_EQ(status.value("status", -1), 0);
    EXPECT_EQ(status["campos"].value("EEEEE", ""), "10000");
    EXPECT_EQ(status["campos"].value("numeroSessao", "?"), status.value("sessao", ""));
    const json blocked =
        ask("POST", "/v1/operacoes/TesteFimAFim", "", R"({"argumentos":{"dadosVenda":"x"}})").content();
    EXPECT_EQ(blocked.value("status", 0), FISCORA_STATUS_TIMEOUT);
    const json changed =
        ask("POST", "/v1/operacoes/TrocarCodigoDeAtivacao", "",
            R"({"argumentos":{"opcao":"1","novoCodigo":"novo-codigo","confNovoCodigo":"novo-codigo"}})")
            .content();
    EXPECT_EQ(changed["campos"].value("EEEEE", ""), "18000");
    const json seen = ask("GET", "/v1/equipamento").content();
    EXPECT_EQ(seen["ultimaChamada"].value("status", -1), 0);
    EXPECT_EQ((changed.dump() + seen.dump()).find("novo-codigo"), string::npos);
}

TEST_F(Http, TellsEventsAsTheyHappen) {
    settings.heartbeat = 100ms;
    start();
    Till listener(server->port());
    listener.send("GET /v1/eventos HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_NE(listener.readUntil("\n\n").find("text/event-stream"), string::npos);
    EXPECT_NE(listener.readUntil("\r\n:\n\n"), "")
        << "a comment, by which both ends notice that the other is gone";
    sell("one", "Prefer: wait=0\r\n");
    listener.readUntil("event: documento\ndata: ");
    EXPECT_EQ(json::parse(listener.readUntil("\n\n")).value("chave", ""), "one");
    startDevice();
    EXPECT_NE(listener.readUntil("\"estado\":\"emitida\"").find("event: equipamento"), string::npos);
    server->stop();
    EXPECT_NE(listener.readUntil("\r\n0\r\n\r\n"), "") << "it ends with the service";
}

TEST_F(Http, CutsOffWhoLeavesEventsUnread) {
    Till lazy(server->port(), 4096);
    lazy.send("GET /v1/eventos HTTP/1.1\r\nHost: x\r\n\r\n");
    lazy.readUntil("\n\n");
    Document document;
    document.key = string(128, 'k');
    document.answer = string(10'000, 'x');
    for (int i = 0; i < 2000; ++i) m_changes.publish(document);  // 20 MB, more than the system takes for it
    const std::size_t got = lazy.readUntil("\r\n0\r\n\r\n").size();
    EXPECT_TRUE(got > 0 && got < 15'000'000) << got;
    lazy.send("GET /saude HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(lazy.reply().status, 200) << "it may come back";
}

/// Bytes on a connection that make no request, and how the server gets rid of them.
struct Nuisance {
    const char* name;
    string bytes;
    int status;  ///< 0: closed without a response
};
void PrintTo(const Nuisance& nuisance, std::ostream* out) { *out << nuisance.name; }
class NuisanceOf : public Http, public testing::WithParamInterface<Nuisance> {};

TEST_P(NuisanceOf, IsAnsweredOrClosedAndHurtsNobody) {
    settings.patience = 300ms;
    start();
    Till nuisance(server->port());
    nuisance.send(GetParam().bytes);
    EXPECT_EQ(sell("other", "Prefer: wait=0\r\n").status, 202);
    EXPECT_EQ(nuisance.reply().status, GetParam().status);
    while (nuisance.read()) {
    }
    EXPECT_FALSE(m_journal.find("k"));
}

INSTANTIATE_TEST_SUITE_P(
    Http, NuisanceOf,
    testing::Values(
        Nuisance{"Garbage", "\x16\x03\x01\r\n\r\n", 0}, Nuisance{"NoVersion", "GET /saude\r\n\r\n", 400},
        Nuisance{"NoHost", "GET /saude HTTP/1.1\r\n\r\n", 400},
        Nuisance{"NegativeLength", "POST /v1/vendas HTTP/1.1\r\nHost: x\r\nContent-Length: -1\r\n\r\n", 400},
        Nuisance{"HeaderOf64KiB", "GET /saude HTTP/1.1\r\nHost: x\r\nA: " + string(65536, 'a') + "\r\n\r\n",
                 431},
        Nuisance{"TargetOf64KiB", "GET /" + string(65536, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n", 414},
        Nuisance{"CutOff",
                 "POST /v1/vendas HTTP/1.1\r\nHost: x\r\n" + keyHeaders("k") + "Content-Length: 9\r\n\r\n<x",
                 0},
        Nuisance{"HeadWithoutEnd", "GET /saude HTTP/1.1\r\nHost: x\r\n", 0}, Nuisance{"Silence", "", 0}),
    [](const auto& info) { return info.param.name; });

TEST_F(Http, ClosesASlowSenderThoughItNeverFallsSilent) {
    settings.patience = 300ms;
    start();
    Till slow(server->port());
    slow.send("GET /saude HTTP/1.1\r\nHost: x\r\nA: ");
    const auto began = Clock::now();
    while (Clock::now() - began < 5s && slow.send("a")) std::this_thread::sleep_for(10ms);
    EXPECT_LT(Clock::now() - began, 3s);
}

TEST_F(Http, ServesTillsBesideAThousandSilentConnections) {
    std::vector<std::unique_ptr<Till>> silent;
    for (int i = 0; i < 1000; ++i) silent.push_back(std::make_unique<Till>(server->port()));
    EXPECT_EQ(sell("one", "Prefer: wait=0\r\n").status, 202);
}

/// Who may do what: two tills, an administrator, and a token that was revoked.
class Access : public Http {
  protected:
    Access() {
        for (const auto& [name, role] :
             {std::pair("caixa1", Role::Till), std::pair("caixa2", Role::Till),
              std::pair("ana", Role::Administrator), std::pair("antigo", Role::Administrator)})
            m_journal.addToken({name, role, hashOf(secretOf(name)), std::chrono::system_clock::now(), {}});
        m_journal.revokeToken("antigo");
    }
    static string secretOf(const string& name) { return "segredo-" + name; }
    static string as(const string& name) { return "Authorization: Bearer " + secretOf(name) + "\r\n"; }
    /// The header with the session's cookie; empty if there is no session.
    string signIn(const string& name) {
        const Reply reply = ask("POST", "/v1/sessao", "", json{{"token", secretOf(name)}}.dump());
        const auto cookie = reply.head.find("fiscorad=");
        if (cookie == string::npos) return "";
        EXPECT_NE(reply.head.find("; HttpOnly; SameSite=Strict;"), string::npos) << reply.head;
        return "Cookie: " + reply.head.substr(cookie, reply.head.find(';', cookie) - cookie) + "\r\n";
    }
};

TEST_F(Access, IsGivenToThoseWhoProveThatTheyMay) {
    ASSERT_EQ(sell("one", as("caixa1") + "Prefer: wait=0\r\n").status, 202);
    EXPECT_EQ(m_journal.find("one")->till, "caixa1");
    const string session = signIn("ana");
    const string page = session + "X-Fiscorad: pagina\r\n";
    const string operation = "/v1/operacoes/ExtrairLogs";
    const string decision = "/v1/vendas/one/decisao";
    const struct {
        const char* who;
        string method, target, headers;
        int status;
        const char* type = "";
    } cases[] = {
        {"Nobody", "GET", "/v1/vendas", "", 401, "nao-autenticado"},
        {"WrongToken", "GET", "/v1/vendas", as("x"), 401, "nao-autenticado"},
        {"RevokedToken", "GET", "/v1/vendas", as("antigo"), 401, "nao-autenticado"},
        {"OtherScheme", "GET", "/v1/vendas", "Authorization: Basic YTpi\r\n", 401, "nao-autenticado"},
        {"TwoTokens", "GET", "/v1/vendas", as("caixa1") + as("caixa1"), 401, "nao-autenticado"},
        {"InventedCookie", "GET", "/v1/vendas", "Cookie: fiscorad=" + string(64, 'a') + "\r\n", 401,
         "nao-autenticado"},
        {"NobodyByForm", "POST", "/hub/v1/consultarsat", FORM, 401, "nao-autenticado"},
        {"NobodyReadingMetrics", "GET", "/metrics", "", 401, "nao-autenticado"},
        {"Owner", "GET", "/v1/vendas/one", as("caixa1"), 200},
        {"AnotherTill", "GET", "/v1/vendas/one", as("caixa2"), 404, "nao-encontrado"},
        {"AnotherTillsDocument", "GET", "/v1/vendas/one/documento", as("caixa2"), 404, "nao-encontrado"},
        {"AnotherTillWithdrawing", "DELETE", "/v1/vendas/one", as("caixa2"), 404, "nao-encontrado"},
        {"Administrator", "GET", "/v1/vendas/one", as("ana"), 200},
        {"TillCallingAnOperation", "POST", operation, as("caixa1"), 403, "sem-permissao"},
        {"TillListening", "GET", "/v1/eventos", as("caixa1"), 403, "sem-permissao"},
        {"TillSummarizing", "GET", "/v1/resumo", as("caixa1"), 403, "sem-permissao"},
        {"TillSeeingEvidence", "GET", "/v1/vendas/one/tentativas", as("caixa1"), 403, "sem-permissao"},
        {"TillDeciding", "POST", decision, as("caixa1"), 403, "sem-permissao"},
        {"TillConfirming", "POST", "/v1/equipamento/confirmacao", as("caixa1"), 403, "sem-permissao"},
        {"Page", "GET", "/v1/resumo", session, 200},
        {"PageWithoutItsHeader", "POST", decision, session, 403, "origem-recusada"},
        {"AnotherSitesPage", "POST", decision, page + "Origin: https://x.example\r\n", 403,
         "origem-recusada"},
        {"AnotherSitesFetch", "POST", decision, page + "Sec-Fetch-Site: cross-site\r\n", 403,
         "origem-recusada"},
        {"NothingToDecide", "POST", decision, page + "Origin: http://x\r\n", 409, "nada-a-decidir"},
        {"PathTraversal", "GET", "/../../etc/passwd", as("ana"), 404, "nao-encontrado"},
        {"EscapedPathTraversal", "GET", "/v1/vendas/..%2f..%2fetc", as("ana"), 400, "chave-invalida"},
        {"Anybody", "GET", "/", "", 200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.who);
        const string body =
            c.target == decision ? R"({"decisao": "abandonada", "motivo": "x"})" : "numero_caixa=1";
        const Reply reply = ask(c.method, c.target, c.headers, c.method == "POST" ? body : "");
        EXPECT_EQ(reply.status, c.status) << reply.head << reply.body;
        EXPECT_EQ(reply.type(), *c.type == '\0' ? "" : string("/problemas/") + c.type);
        EXPECT_NE(reply.head.find("Content-Security-Policy: default-src 'none'; script-src 'self'"),
                  string::npos);
        EXPECT_NE(reply.head.find("X-Content-Type-Options: nosniff"), string::npos);
    }
    EXPECT_EQ(sell("one", as("caixa2")).type(), "/problemas/chave-reutilizada");
    EXPECT_EQ(ask("GET", "/v1/vendas", as("caixa2")).content()["documentos"].size(), 0U);
    EXPECT_EQ(ask("GET", "/v1/vendas?busca=on", as("ana")).content()["documentos"].size(), 1U);
}

TEST_F(Access, EndsWithTheTokenOrTheSession) {
    EXPECT_EQ(signIn("caixa1"), "") << "a till's token";
    EXPECT_EQ(signIn("antigo"), "") << "a revoked token";
    const string first = signIn("ana");
    const string second = signIn("ana");
    EXPECT_EQ(ask("DELETE", "/v1/sessao", first + "X-Fiscorad: pagina\r\n").status, 204);
    EXPECT_EQ(ask("GET", "/v1/resumo", first).status, 401);
    EXPECT_EQ(ask("GET", "/v1/resumo", second).status, 200);
    settings.heartbeat = 20ms;
    start();
    Till listener(server->port());
    listener.send("GET /v1/eventos HTTP/1.1\r\nHost: x\r\n" + as("ana") + "\r\n");
    EXPECT_NE(listener.readUntil(":\n\n"), "");
    m_journal.revokeToken("ana");
    EXPECT_NE(listener.readUntil("\r\n0\r\n\r\n"), "") << "the stream of events goes on";
    EXPECT_EQ(ask("GET", "/v1/resumo", as("ana")).status, 401);
    EXPECT_EQ(m_journal.actions(1).at(0).what, "entrada");
}

TEST_F(Access, OfAnAdministratorIsRecorded) {
    ASSERT_EQ(sell("one", as("caixa1") + "Prefer: wait=0\r\n").status, 202);
    leaveUndecided("one");
    const string body = R"({"decisao": "abandonada", "motivo": "<b>sem cliente</b>"})";
    EXPECT_EQ(ask("POST", "/v1/vendas/one/decisao", as("ana"), body).content()["estado"], "abandonada");
    const json told = ask("GET", "/v1/vendas/one/tentativas", as("ana")).content();
    EXPECT_EQ(told["historico"].back()["pessoa"], "ana");
    EXPECT_EQ(told["historico"].back()["motivo"], "<b>sem cliente</b>");
    EXPECT_EQ(told["tentativas"].size(), 1U);
    ASSERT_EQ(sell("two", as("caixa1") + "Prefer: wait=0\r\n").status, 202);
    EXPECT_EQ(ask("DELETE", "/v1/vendas/two", as("ana")).status, 204);
    std::vector<string> done;
    for (const Action& action : m_journal.actions(9))
        done.push_back(action.person + " " + action.what + " " + action.subject);
    EXPECT_EQ(done, (std::vector<string>{"ana retirada two", "ana decisão one"}));
}

TEST_F(Http, WithoutTokensServesOnlyThisMachineAndNoOtherSite) {
    const struct {
        const char* from;
        string headers;
        int status;
    } cases[] = {
        {"this machine's name", "Host: localhost:8059\r\n", 202},
        {"its address", "Host: 127.0.0.1\r\n", 202},
        {"its address of version 6", "Host: [::1]:8059\r\n", 202},
        {"a name that another site lets point here", "Host: loja.example\r\n", 403},
        {"an address that begins like its own", "Host: 127.0.0.1.example\r\n", 403},
        {"a form on another site", "Host: localhost\r\nOrigin: https://loja.example\r\n", 403},
        {"a sandboxed page", "Host: localhost\r\nOrigin: null\r\n", 403},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.from);
        Till sender(server->port());
        sender.send("POST /v1/vendas HTTP/1.1\r\n" + c.headers + keyHeaders("key", "Prefer: wait=0\r\n") +
                    "Content-Length: " + std::to_string(sale("x").size()) + "\r\n\r\n" + sale("x"));
        EXPECT_EQ(sender.reply().status, c.status);
    }
}

// What two programs on the way could read as two different requests.
TEST_F(Http, RefusesARequestOfTwoLengths) {
    for (const char* lengths :
         {"Content-Length: 5\r\nContent-Length: 6\r\n", "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
          "Content-Length: -1\r\n", "Content-Length: 5x\r\n", "Transfer-Encoding: chunked, identity\r\n"}) {
        SCOPED_TRACE(lengths);
        Till sender(server->port());
        sender.send("POST /v1/vendas HTTP/1.1\r\nHost: x\r\n" + keyHeaders("smuggled", "Prefer: wait=0\r\n") +
                    lengths + "\r\n0\r\n\r\nDELETE /v1/vendas/other HTTP/1.1\r\nHost: x\r\n\r\n");
        EXPECT_EQ(sender.reply().status, 400);
        EXPECT_EQ(sender.reply().status, 0) << "the connection goes on";
        EXPECT_FALSE(m_journal.find("other")) << "the second request was served";
        EXPECT_FALSE(m_journal.find("smuggled"));
    }
}

// Two keys that differ only after it would be one.
TEST_F(Http, RefusesAHeadWithANul) {
    for (const string& head :
         {"POST /v1/vendas HTTP/1.1\r\nHost: x\r\n"s + keyHeaders("k\0x"s),
          "POST /v1/vendas HTTP/1.1\r\nHost: x\r\n"s + keyHeaders("k\0"s),
          "POST /v1/vendas HTTP/1.1\r\nHost: x\r\n"s + keyHeaders("k") + "Other: \0y\r\n"s,
          "DELETE /v1/vendas/k\0x HTTP/1.1\r\nHost: x\r\n"s}) {
        Till sender(server->port());
        sender.send(head + "Content-Length: 1\r\n\r\nx");
        const int status = sender.reply().status;  // 0: the connection is closed
        EXPECT_TRUE(status == 400 || status == 0) << status << " to " << head;
        EXPECT_FALSE(m_journal.find("k")) << head;
    }
}

TEST_F(Http, SaysThatThePortIsTaken) {
    settings.port = server->port();
    try {
        const http::Server second(*service, calls, settings);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_NE(string(error.what()).find(std::to_string(settings.port)), string::npos);
    }
}

}  // namespace
