#include "till.h"

#include <fiscora.h>

#include <array>
#include <cstdint>
#include <iomanip>
#include <random>
#include <sstream>
#include <string_view>

namespace till {

namespace {

std::string money(std::int64_t cents) {
    std::ostringstream text;
    text << cents / 100 << '.' << std::setw(2) << std::setfill('0') << cents % 100;
    return text.str();
}

class SaleWriter {
  public:
    explicit SaleWriter(unsigned seed) : m_random(seed) {}

    Sale write() {
        Sale sale;
        sale.document = HEAD;
        while (sale.document.size() + LARGEST_ITEM < SALE_BYTES) addItem(sale);
        sale.total = money(m_totalCents);
        sale.document += "<total/><pgto><MP><cMP>01</cMP><vMP>" + sale.total + "</vMP></MP></pgto>";
        sale.document += "<infAdic><infCpl>";
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
        m_totalCents += quantity * price;
        sale.document +=
            sale.products.back() +
            "<indRegra>A</indRegra></prod><imposto><ICMS><ICMSSN102><Orig>0</Orig><CSOSN>500</CSOSN>"
            "</ICMSSN102></ICMS><PIS><PISNT><CST>04</CST></PISNT></PIS><COFINS><COFINSNT><CST>04</CST>"
            "</COFINSNT></COFINS></imposto><infAdProd>Rastreio " +
            digits(60) + "</infAdProd></det>";
    }

    std::mt19937 m_random;
    std::int64_t m_totalCents = 0;
};

}  // namespace

Sale writeSale(unsigned seed) { return SaleWriter(seed).write(); }

std::string faultInHead(int session, const std::string& code, const std::vector<std::string>& answerFields) {
    if (CodigoErro() != FISCORA_STATUS_OK) return "status " + std::to_string(CodigoErro());
    if (answerFields.size() < 2) return "no answer";
    std::ostringstream number;
    number << std::setw(6) << std::setfill('0') << session;
    if (answerFields[0] != number.str()) return "session number " + answerFields[0] + " for " + number.str();
    if (answerFields[1] != code) return "code " + answerFields[1] + " for " + code;
    return {};
}

}  // namespace till
