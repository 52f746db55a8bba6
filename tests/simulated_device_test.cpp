#include "sim/SimulatedDevice.h"

#include <gtest/gtest.h>

#include <map>

#include "Descriptor.h"
#include "encoding/Base64.h"
#include "fields.h"
#include "fiscal/operations.h"

namespace {

using sim::DeviceState, sim::SimulatedDevice;

constexpr char CODE[] = "12345678";
constexpr std::size_t NSERIE = 5, ULTIMO_CF_E_SAT = 20;  // fields of the status
constexpr char CANCELLATION[] = "<CFeCanc><infCFe><ide/><emit/><dest/><total/></infCFe></CFeCanc>";

std::string item(const std::string& quantity, const std::string& price, const std::string& more = "") {
    return "<det><prod><xProd>p</xProd><qCom>" + quantity + "</qCom><vUnCom>" + price + "</vUnCom>" + more +
           "</prod></det>";
}

std::string sale(const std::string& items, const std::string& total = "<total/>") {
    return "<CFe><infCFe><ide/><emit><CNPJ>14200166000166</CNPJ></emit><dest><CPF>12345678909</CPF></dest>" +
           items + total + "<pgto><MP><cMP>01</cMP><vMP>50.00</vMP></MP></pgto></infCFe></CFe>";
}

/// A device on 18 November 2026 whose clock stands still until a test moves it.
struct Device {
    std::time_t now = 1795000000;
    SimulatedDevice device;

    explicit Device(sim::DeviceSettings settings = {}) : device(withClock(std::move(settings))) {}
    sim::DeviceSettings withClock(sim::DeviceSettings settings) const {
        settings.clock = [this] { return now; };
        return settings;
    }

    std::vector<std::string> ask(const std::string& operation, const std::string& request) {
        const std::string answer = device.answer(operation, request);
        const auto fields = fieldsOf(answer);
        return std::vector<std::string>(fields.begin(), fields.end());
    }
    std::string code(const std::string& operation, const std::string& request) {
        return ask(operation, request).at(1);
    }
    std::vector<std::string> sell(const std::string& session, const std::string& document) {
        return ask("EnviarDadosVenda", session + "|" + CODE + "|" + document);
    }
    std::string status(std::size_t field) {
        return ask("ConsultarStatusOperacional", std::string("000099|") + CODE).at(field);
    }
    std::string cancel(const std::string& session, const std::string& key, const std::string& document) {
        return code("CancelarUltimaVenda", session + "|" + CODE + "|" + key + "|" + document);
    }
};

TEST(SimulatedDevice, EveryOperationAnswersInItsLayoutAndRefusesAWrongActivationCode) {
    const std::string key = Device().sell("000900", sale(item("1", "1"))).at(8);
    std::map<std::string, std::string> arguments{
        // after session and activation code
        {"ComunicarCertificadoICPBRASIL", "|-----BEGIN CERTIFICATE-----"},
        {"CancelarUltimaVenda", "|" + key + "|" + CANCELLATION},
        {"EnviarDadosVenda", "|" + sale(item("1", "1"))},
        {"TesteFimAFim", "|" + sale(item("1", "1"))},
        {"ConsultarNumeroSessao", "|000900"},
        {"ConfigurarInterfaceDeRede", "|<config/>"},
        {"ConfigurarInterfaceDeRedeMFE", "|<config/>"},
        {"AssociarAssinatura", "|1111|assinatura"},
        {"TrocarCodigoDeAtivacao", std::string("|1|") + CODE + "|" + CODE},
    };
    constexpr std::size_t FIELDS_OF_A_SALE = 12;  // which the two queries for an earlier answer repeat
    for (const auto& operation : manipulaDados::OPERATIONS) {
        const std::string name = operation.command;
        if (name == "AtivarSAT" || name == "ConsultarSAT" || name == "EnviarStatusAC") continue;
        SCOPED_TRACE(name);
        Device fixture;
        EXPECT_EQ(fixture.sell("000900", sale(item("1", "1"))).at(8), key) << "each device counts for itself";
        if (name == "DesbloquearSAT") fixture.ask("BloquearSAT", std::string("000001|") + CODE);
        EXPECT_EQ(fixture.code(name, "000100|87654321" + arguments[name]).substr(2), "001");
        EXPECT_EQ(fixture.code(name, "000100").substr(2), "099") << "too few fields";
        const std::string answer =
            fixture.device.answer(name, std::string("000100|") + CODE + arguments[name]);
        const auto fields = fieldsOf(answer);
        EXPECT_EQ(fields.at(0), "000100");
        EXPECT_TRUE(operation.succeededWith(fields.at(1))) << answer;
        const char* const names = operation.answer.fields;
        EXPECT_EQ(fields.size(), names == nullptr ? FIELDS_OF_A_SALE : fieldsOf(names).size());
    }
    Device fixture;
    EXPECT_EQ(fixture.device.answer("ConsultarSAT", "000123"), "000123|08000|SAT em Operação||");
    EXPECT_EQ(fixture.code("EnviarStatusAC", "000123|a|b|c"), "21000");
    EXPECT_EQ(fixture.device.answer("Fritar", "000123|x").substr(0, 13), "000123|99099|");
}

TEST(SimulatedDevice, StateDecidesWhatIsRefused) {
    Device fixture({DeviceState::NotActivated});
    const std::string activation = "000001|1|segredo123|11222333000181|23";
    const std::string request = std::string("000002|segredo123|") + sale(item("1", "1"));
    EXPECT_EQ(fixture.code("EnviarDadosVenda", request), "06002");
    EXPECT_EQ(fixture.code("ExtrairLogs", std::string("000003|") + CODE), "15001");
    EXPECT_EQ(fixture.code("AtivarSAT", activation), "04000");
    EXPECT_EQ(fixture.code("AtivarSAT", activation), "04003");
    EXPECT_EQ(fixture.code("BloquearSAT", "000004|segredo123"), "16000");
    EXPECT_EQ(fixture.code("BloquearSAT", "000005|segredo123"), "16002");
    EXPECT_EQ(fixture.code("EnviarDadosVenda", request), "06006");
    EXPECT_EQ(fixture.code("CancelarUltimaVenda", "000006|segredo123|CFe|<a/>"), "07003");
    EXPECT_EQ(fixture.code("DesbloquearSAT", "000007|segredo123"), "17000");
    EXPECT_EQ(fixture.code("TrocarCodigoDeAtivacao", "000008|segredo123|1|outrocodigo|outrocodigO"), "18099");
    EXPECT_EQ(fixture.code("TrocarCodigoDeAtivacao", "000009|segredo123|1|outrocodigo|outrocodigo"), "18000");
    EXPECT_EQ(fixture.code("EnviarDadosVenda", request), "06001");
    EXPECT_EQ(fixture.ask("EnviarDadosVenda", "000002|outrocodigo|<CFe/>").at(8).substr(0, 5), "CFe23");
}

TEST(SimulatedDevice, TotalsAreExactToTheCent) {
    const struct {
        std::string items;
        const char* total;
    } cases[] = {
        {item("1.5000", "3.33"), "5.00"},                            // half a cent goes to the even one
        {item("0.5000", "0.01") + item("1.5000", "0.01"), "0.02"},   // 0.00 + 0.02
        {item("1.5000", "3.33", "<indRegra>T</indRegra>"), "4.99"},  // truncated
        {item("3", "0.1") + item("1", "0.70"), "1.00"},
        {item("2", "10.00", "<vDesc>0.50</vDesc><vOutro>1.25</vOutro>"), "20.75"},
        {item("1", "1.015"), "1.02"},  // 101.4999... in binary
        {item("12345678.9012", "7654.321"), "94497789272.71"},
        {"", "0.00"},
    };
    for (const auto& row : cases)
        EXPECT_EQ(Device().sell("000001", sale(row.items)).at(9), row.total) << row.items;

    const std::string discount = "<total><DescAcrEntr><vDescSubtot>0.25</vDescSubtot></DescAcrEntr></total>";
    EXPECT_EQ(Device().sell("000001", sale(item("1", "2"), discount)).at(9), "1.75");
    const auto taxes = Device().sell("000001", sale("", "<total><vCFeLei12741>0.10</vCFeLei12741></total>"));
    EXPECT_NE(Base64::decode(taxes.at(6)).find("<vCFeLei12741>0.10</vCFeLei12741></total>"),
              std::string::npos);
    for (const char* bad : {"1,5", "", "-1", "1.00001", "99999999999999999999"})
        EXPECT_EQ(Device().sell("000001", sale(item(bad, "1"))).at(1), "06010") << bad;
}

TEST(SimulatedDevice, AccessKeyIsWhatItsPartsSay) {
    // Worked out by hand: 5*2 + 4*3 + 3*4 + 2*5 + 1*6 = 50, 50 mod 11 = 6; the weights start again after 9.
    EXPECT_EQ(sim::checkDigit("12345"), '5');
    EXPECT_EQ(sim::checkDigit("14"), '0') << "remainder 0";
    EXPECT_EQ(sim::checkDigit("6"), '0') << "remainder 1";
    EXPECT_EQ(sim::checkDigit("3523081122233300018159900004019000123000045"), '9');

    sim::DeviceSettings settings;
    settings.serialNumber = "123456789";
    Device fixture(settings);
    const auto answer = fixture.sell("000001", sale(item("1", "1")));
    const std::string key = answer.at(8);
    ASSERT_EQ(key.size(), 47U);
    EXPECT_EQ(key.substr(0, 40), "CFe3526111420016600016659123456789000001");
    EXPECT_EQ(fixture.status(NSERIE), "123456789");
    EXPECT_EQ(fixture.status(ULTIMO_CF_E_SAT), key.substr(3));
    EXPECT_EQ(key.back(), sim::checkDigit(key.substr(3, 43)));
    EXPECT_NE(Base64::decode(answer.at(6)).find("<infCFe Id=\"" + key + "\""), std::string::npos);
    EXPECT_EQ(answer.at(10), "12345678909");
}

TEST(SimulatedDevice, OnlyTheLastSaleIsCancelledOnceAndInTime) {
    Device fixture;
    const std::string first = fixture.sell("000001", sale(item("1", "1"))).at(8);
    const std::string second = fixture.sell("000002", sale(item("1", "2"))).at(8);
    EXPECT_NE(first, second);
    EXPECT_EQ(fixture.cancel("000003", first, CANCELLATION), "07002");
    EXPECT_EQ(fixture.cancel("000002", second, CANCELLATION), "07099") << "session of the sale";
    EXPECT_EQ(fixture.cancel("000003", second, "<CFeCanc>"), "07007");
    EXPECT_EQ(fixture.cancel("000003", second, "<CFeCanc><infCFe chCanc=\"" + first + "\"/></CFeCanc>"),
              "07007");
    fixture.now += SimulatedDevice::CANCELLATION_SECONDS;
    const auto answer =
        fixture.ask("CancelarUltimaVenda", std::string("000003|") + CODE + "|" + second + "|" + CANCELLATION);
    EXPECT_EQ(answer.at(1), "07000");
    EXPECT_NE(Base64::decode(answer.at(6)).find("chCanc=\"" + second + "\""), std::string::npos);
    EXPECT_EQ(fixture.cancel("000004", second, CANCELLATION), "07002") << "twice";

    const std::string late = fixture.sell("000005", sale(item("1", "1"))).at(8);
    fixture.now += SimulatedDevice::CANCELLATION_SECONDS + 1;
    EXPECT_EQ(fixture.cancel("000006", late, CANCELLATION), "07002");
}

TEST(SimulatedDevice, ASessionBooksOnceAndItsAnswerStaysToBeAskedFor) {
    Device fixture;
    const std::string query = std::string("000050|") + CODE;
    EXPECT_EQ(fixture.code("ConsultarUltimaSessaoFiscal", query), "19003");
    std::string deep;
    for (int i = 0; i < 200'000; ++i) deep += "<a>";
    for (const auto& malformed :
         {std::string("<CFe><broken>"), std::string("<CFe>a & b</CFe>"), std::string("<CFe/>x"), deep})
        EXPECT_EQ(fixture.sell("000001", malformed).at(1), "06010") << malformed.substr(0, 20);
    const auto booked = fixture.sell("000001", sale(item("1", "1")));
    EXPECT_EQ(booked.at(1), "06000") << "a refused sale leaves its session free";
    EXPECT_EQ(fixture.sell("000001", sale(item("1", "1"))).at(1), "06099");
    fixture.ask("ConsultarSAT", "000001");

    const auto again = fixture.ask("ConsultarNumeroSessao", query + "|000001");
    EXPECT_EQ(again.at(0), "000050");
    EXPECT_EQ(std::vector(again.begin() + 1, again.end()), std::vector(booked.begin() + 1, booked.end()));
    EXPECT_EQ(fixture.code("ConsultarNumeroSessao", query + "|000077"), "11003");
    EXPECT_EQ(fixture.ask("ConsultarUltimaSessaoFiscal", query).at(8), booked.at(8));
}

TEST(SimulatedDevice, ForgetsSessionsButNeverItsBooks) {
    const struct {
        const char* fault;  ///< that the case would catch
        std::size_t memory;
        bool restart;
        std::string asked;  ///< EEEEE when it is asked for the first session, the second, and the last one
    } cases[] = {
        {"a session is forgotten too soon", 2, false, "06000 06000 06000"},
        {"one too many is remembered", 1, false, "11003 06000 06000"},
        {"no memory is one session", 0, false, "11003 11003 06000"},
        {"a session outlives a restart", 2, true, "11003 11003 19003"},
    };
    for (const auto& [fault, memory, restart, asked] : cases) {
        SCOPED_TRACE(fault);
        sim::DeviceSettings settings;
        settings.memory = memory;
        Device fixture(settings);
        fixture.sell("000001", sale(item("1", "1")));
        const std::string key = fixture.sell("000002", sale(item("1", "2"))).at(8);
        if (restart) fixture.device.forgetSessions();
        const std::string query = std::string("000050|") + CODE;
        std::string codes = fixture.code("ConsultarNumeroSessao", query + "|000001") + " ";
        codes += fixture.code("ConsultarNumeroSessao", query + "|000002") + " ";
        EXPECT_EQ(codes + fixture.code("ConsultarUltimaSessaoFiscal", query), asked);
        EXPECT_EQ(fixture.status(ULTIMO_CF_E_SAT), key.substr(3));
        const std::string third = fixture.sell("000003", sale(item("1", "1"))).at(8);
        EXPECT_EQ(third.substr(34, 6), "000003") << "the numbers go on";
        EXPECT_EQ(fixture.cancel("000004", third, CANCELLATION), "07000");
    }
}

TEST(SimulatedDevice, BooksNothingThatIsNotWrittenDownOrWhileItIsBusy) {
    std::string written;
    bool works = true;
    sim::DeviceSettings settings;
    settings.booked = [&](const sim::BookedDocument& document) {
        for (const auto field : {document.operation, document.session, document.key, document.request})
            written.append(field).append(" ");
        return works;
    };
    Device fixture(settings);
    const std::string document = sale(item("1", "1"), "<total/> <!-- a | b\n -->");
    const std::string key = fixture.sell("000001", document).at(8);
    EXPECT_EQ(written, "EnviarDadosVenda 000001 " + key + " " + document + " ") << "byte for byte";

    works = false;
    EXPECT_EQ(fixture.sell("000002", document).at(1), "06099");
    EXPECT_EQ(fixture.cancel("000002", key, CANCELLATION), "07099");
    EXPECT_EQ(fixture.device.busyAnswer("EnviarDadosVenda", std::string("000002|") + CODE + "|" + document),
              "000002|06098|0000|SAT em processamento. Tente novamente.||");
    EXPECT_EQ(fixture.status(ULTIMO_CF_E_SAT), key.substr(3));

    works = true;
    written.clear();
    EXPECT_EQ(fixture.cancel("000002", key, CANCELLATION), "07000") << "the sale and the session stay free";
    EXPECT_EQ(written.substr(0, 27), "CancelarUltimaVenda 000002 ");
    EXPECT_NE(written.find(std::string(" ") + CANCELLATION + " "), std::string::npos);
    written.clear();
    fixture.ask("TesteFimAFim", std::string("000003|") + CODE + "|" + document);
    fixture.sell("000002", document);
    fixture.sell("000004", "<CFe>");
    EXPECT_EQ(written, "") << "a test and refusals book nothing";
}

}  // namespace
