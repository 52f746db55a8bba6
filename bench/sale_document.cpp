#include "sale_document.h"

#include <array>
#include <random>

namespace {

constexpr char BEGINNING[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><CFe><infCFe versaoDadosEnt=\"0.07\"><ide><CNPJ>16716114000172"
    "</CNPJ><signAC>SGR-SAT SISTEMA DE GESTAO E RETAGUARDA DO SAT</signAC><numeroCaixa>001</numeroCaixa></ide>"
    "<emit><CNPJ>14200166000166</CNPJ><IE>111111111111</IE><indRatISSQN>N</indRatISSQN></emit><dest/>";
constexpr char END[] =
    "<total><vCFeLei12741>0.00</vCFeLei12741></total><pgto><MP><cMP>01</cMP><vMP>100.00</vMP></MP></pgto>"
    "</infCFe></CFe>";

constexpr std::array GOODS = {
    "ARROZ BRANCO T1",   "FEIJAO CARIOCA",    "LEITE INTEGRAL",     "CAFE TORRADO MOIDO", "ACUCAR REFINADO",
    "OLEO DE SOJA",      "FARINHA DE TRIGO",  "MACARRAO ESPAGUETE", "DETERGENTE NEUTRO",  "SABAO EM PO",
    "PAO DE FORMA",      "MANTEIGA COM SAL",  "QUEIJO MUSSARELA",   "PRESUNTO COZIDO",    "BANANA NANICA",
    "TOMATE ITALIANO",   "REFRIGERANTE COLA", "AGUA MINERAL",       "CERVEJA PILSEN",     "PAPEL HIGIENICO",
    "BISCOITO RECHEADO", "CHOCOLATE BARRA",   "IOGURTE MORANGO",    "FRANGO CONGELADO"};
constexpr std::array PACKS = {"1KG", "5KG", "500G", "900ML", "1L", "2L", "350ML", "12UN", "200G", "KG"};

class Items {
  public:
    std::string next() {
        const std::string price = number(1, 89) + "." + digits(2);
        return "<det nItem=\"" + std::to_string(++m_count) + "\"><prod><cProd>" + digits(6) +
               "</cProd><cEAN>789" + digits(10) + "</cEAN><xProd>" + oneOf(GOODS) + " " + oneOf(PACKS) +
               "</xProd><NCM>" + digits(8) + "</NCM><CFOP>5102</CFOP><uCom>UN</uCom><qCom>" + number(1, 12) +
               ".0000</qCom><vUnCom>" + price +
               "</vUnCom><indRegra>A</indRegra></prod><imposto><vItem12741>" + number(0, 9) + "." +
               digits(2) +
               "</vItem12741><ICMS><ICMS00><Orig>0</Orig><CST>00</CST><pICMS>18.00</pICMS></ICMS00></ICMS><PIS>"
               "<PISAliq><CST>01</CST><vBC>" +
               price + "</vBC><pPIS>0.0165</pPIS></PISAliq></PIS><COFINS><COFINSAliq><CST>01</CST><vBC>" +
               price + "</vBC><pCOFINS>0.0760</pCOFINS></COFINSAliq></COFINS></imposto></det>";
    }

  private:
    std::string number(unsigned least, unsigned most) {
        return std::to_string(least + static_cast<unsigned>(m_random() % (most - least + 1)));
    }
    std::string digits(int count) {
        std::string text;
        while (count-- > 0) text += static_cast<char>('0' + m_random() % 10);
        return text;
    }
    template <typename List>
    std::string oneOf(const List& list) {
        return list[m_random() % list.size()];
    }

    std::mt19937 m_random{std::mt19937::default_seed};
    int m_count = 0;
};

}  // namespace

std::string saleDocument(std::size_t bytes) {
    std::string sale = BEGINNING;
    Items items;
    for (std::string item = items.next(); sale.size() + item.size() + sizeof END <= bytes;
         item = items.next())
        sale += item;
    sale += END;
    sale.resize(bytes, '\n');
    return sale;
}
