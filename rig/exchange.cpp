/// A till's application: asks the device for its state and sends it sales of 1 MiB in turn, and holds every
/// answer against what was asked.
///
///     driver_exchange COUNT ACTIVATION_CODE
///
/// Prints a line for each failure and, for each kind of call, "total NAME COUNT FAILED WORST", the last in
/// milliseconds. Exit status 1 where there was a failure.

#include <fiscora.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "encoding/Base64.h"
#include "transaction/DoTransaction.h"

namespace {

constexpr std::size_t SALE_BYTES = 1048576;

struct Sale {
    std::string document;
    std::vector<std::string>
        products;  ///< of each item, the beginning of its element as it stands in the document
    std::int64_t totalCents = 0;
};

std::string money(std::int64_t cents) {
    std::ostringstream text;
    text << cents / 100 << '.' << std::setw(2) << std::setfill('0') << cents % 100;
    return text.str();
}

/// Random items, so that the compressed sale still fills many writes of the library.
class SaleWriter {
  public:
    explicit SaleWriter(unsigned seed) : m_random(seed) {}

    Sale write() {
        Sale sale;
        sale.document = HEAD;
        while (sale.document.size() + LARGEST_ITEM < SALE_BYTES) addItem(sale);
        const std::string payment =
            "<total/><pgto><MP><cMP>01</cMP><vMP>" + money(sale.totalCents) + "</vMP></MP></pgto>";
        sale.document += payment + "<infAdic><infCpl>";
        sale.document += digits(SALE_BYTES - sale.document.size() - TAIL.size());
        sale.document += TAIL;
        return sale;
    }

  private:
    static constexpr std::string_view HEAD =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><CFe><infCFe "
        "versaoDadosEnt=\"0.08\"><ide><CNPJ>16716114000172</CNPJ>"
        "<signAC>c2lnbmF0dXJlIG9mIHRoZSBhcHBsaWNhdGlvbg==</signAC><numeroCaixa>001</numeroCaixa></ide><emit>"
        "<CNPJ>14200166000166</CNPJ><IE>111111111111</IE><indRatISSQN>N</indRatISSQN></emit><dest/>";
    static constexpr std::string_view TAIL = "</infCpl></infAdic></infCFe></CFe>";
    static constexpr std::size_t LARGEST_ITEM = 1024;  // with what follows the items

    unsigned below(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

    std::string digits(std::size_t count) {
        std::string text(count, '0');
        for (char& digit : text) digit = static_cast<char>('0' + below(10));
        return text;
    }

    void addItem(Sale& sale) {
        static constexpr std::array<const char*, 8> NAMES{"Arroz",   "Feijão",         "Café torrado",
                                                          "Açúcar",  "Leite integral", "Óleo de soja",
                                                          "Farinha", "Sabão"};
        const unsigned quantity = 1 + below(9);
        const std::int64_t price = 1 + below(20000);
        std::ostringstream product;
        product << "<det nItem=\"" << sale.products.size() + 1 << "\"><prod><cProd>" << digits(6)
                << "</cProd><cEAN>789" << digits(10) << "</cEAN><xProd>" << NAMES[below(NAMES.size())]
                << " lote " << digits(12) << "</xProd><NCM>" << digits(8)
                << "</NCM><CFOP>5102</CFOP><uCom>UN</uCom><qCom>" << quantity << ".0000</qCom><vUnCom>"
                << money(price) << "</vUnCom>";
        sale.products.push_back(product.str());
        sale.totalCents += quantity * price;
        sale.document +=
            sale.products.back() +
            "<indRegra>A</indRegra></prod><imposto><ICMS><ICMSSN102><Orig>0</Orig><CSOSN>500</CSOSN>"
            "</ICMSSN102></ICMS><PIS><PISNT><CST>04</CST></PISNT></PIS><COFINS><COFINSNT><CST>04</CST>"
            "</COFINSNT></COFINS></imposto><infAdProd>Rastreio " +
            digits(60) + "</infAdProd></det>";
    }

    std::mt19937 m_random;
};

/// What is wrong with the answer's status, session number or code; empty where nothing is.
std::string faultInHead(int session, const std::string& code, const std::vector<std::string>& fields) {
    if (CodigoErro() != FISCORA_STATUS_OK) return "status " + std::to_string(CodigoErro());
    if (fields.size() < 2) return "no answer";
    std::ostringstream number;
    number << std::setw(6) << std::setfill('0') << session;
    if (fields[0] != number.str()) return "session number " + fields[0] + " for " + number.str();
    if (fields[1] != code) return "code " + fields[1] + " for " + code;
    return {};
}

std::string faultInDocument(const Sale& sale, const std::string& document) {
    std::size_t position = 0;
    for (const std::string& product : sale.products) {
        position = document.find(product, position);
        if (position == std::string::npos) return "document without " + product;
    }
    if (document.find("<det ", position + 1) != std::string::npos)
        return "document with more items than the sale";
    return {};
}

/// The calls of one kind.
struct Tally {
    std::string name;
    int calls = 0;
    int failed = 0;
    std::chrono::milliseconds worst{0};

    /// The fields of the answer to `call`, whose time is taken.
    std::vector<std::string> timed(const std::function<const char*()>& call) {
        const auto start = std::chrono::steady_clock::now();
        const std::string answer = call();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        worst = std::max(worst, std::chrono::duration_cast<std::chrono::milliseconds>(elapsed));
        ++calls;
        return split(answer, '|');
    }

    void note(int session, const std::string& fault) {
        if (fault.empty()) return;
        ++failed;
        std::cout << name << ' ' << session << ": " << fault << '\n';
    }
};

std::string faultInQuery(Tally& tally, int session) {
    return faultInHead(session, "08000", tally.timed([&] { return ConsultarSAT(session); }));
}

std::string faultInSale(Tally& tally, int session, const char* activationCode) {
    constexpr std::size_t DOCUMENT = 6, TOTAL = 9, FIELDS = 12;
    const Sale sale = SaleWriter(static_cast<unsigned>(session)).write();
    const auto fields =
        tally.timed([&] { return EnviarDadosVenda(session, activationCode, sale.document.c_str()); });
    const std::string fault = faultInHead(session, "06000", fields);
    if (!fault.empty()) return fault;
    if (fields.size() != FIELDS) return std::to_string(fields.size()) + " fields";
    if (fields[TOTAL] != money(sale.totalCents))
        return "total " + fields[TOTAL] + " for " + money(sale.totalCents);
    return faultInDocument(sale, Base64::decode(fields[DOCUMENT]));
}

}  // namespace

int main(int argc, char** argv) {
    const int count = argc == 3 ? std::atoi(argv[1]) : 0;
    if (count < 1) {
        std::cerr << "usage: driver_exchange COUNT ACTIVATION_CODE\n";
        return 2;
    }
    Tally queries{"ConsultarSAT"}, sales{"EnviarDadosVenda"};
    for (int i = 1; i <= count; ++i) {
        queries.note(2 * i, faultInQuery(queries, 2 * i));
        sales.note(2 * i + 1, faultInSale(sales, 2 * i + 1, argv[2]));
    }
    for (const Tally* tally : {&queries, &sales}) {
        std::cout << "total " << tally->name << ' ' << tally->calls << ' ' << tally->failed << ' '
                  << tally->worst.count() << '\n';
    }
    return queries.failed + sales.failed > 0;
}
