#include "sim/FiscalDocument.h"

#include <expat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <pugixml.hpp>
#include <sstream>

#include "encoding/Base64.h"
#include "local_time.h"

namespace sim {
namespace {

using Cents = std::int64_t;

constexpr const char* LAYOUT_VERSION = "0.07";
constexpr const char* SOFTWARE_VERSION = "010000";
constexpr std::string_view MODEL = "59";  // the CF-e, among the models of fiscal documents

std::string repeated(std::string_view text, std::size_t bytes) {
    std::string result;
    while (result.size() < bytes) result += text;
    result.resize(bytes);
    return result;
}

std::string onlyDigits(std::string_view text) {
    std::string digits;
    for (const char c : text) {
        if (c >= '0' && c <= '9') digits += c;
    }
    return digits;
}

std::string serialized(const pugi::xml_node& node) {
    std::ostringstream text;
    node.print(text, "", pugi::format_raw, pugi::encoding_utf8);
    return text.str();
}

/// How deep elements may be nested: what walks a document's tree recurses once per level.
constexpr int MAX_DEPTH = 100;

// Expat 2.9 deprecates the functions whose result has the size of a long.
#if XML_MAJOR_VERSION == 2 && XML_MINOR_VERSION < 9
constexpr auto currentLine = XML_GetCurrentLineNumber;
constexpr auto currentColumn = XML_GetCurrentColumnNumber;
#else
constexpr auto currentLine = XML_GetCurrentLineNumber64;
constexpr auto currentColumn = XML_GetCurrentColumnNumber64;
#endif

/// Checks what pugixml lets pass: references, characters, duplicate attributes, text after the
/// root.
void requireWellFormedText(const std::string& xml) {
    const std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser(XML_ParserCreate(nullptr),
                                                                         XML_ParserFree);
    struct Depth {
        XML_Parser parser;
        int now = 0;
    } depth{parser.get()};
    XML_SetUserData(parser.get(), &depth);
    XML_SetElementHandler(
        parser.get(),
        [](void* data, const XML_Char*, const XML_Char**) {
            auto& open = *static_cast<Depth*>(data);
            if (++open.now > MAX_DEPTH) XML_StopParser(open.parser, XML_FALSE);
        },
        [](void* data, const XML_Char*) { --static_cast<Depth*>(data)->now; });
    if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_TRUE) == XML_STATUS_OK) return;
    throw InvalidDocument((depth.now > MAX_DEPTH ? "XML aninhado demais" : "XML malformado") +
                          std::string(" na linha ") + std::to_string(currentLine(parser.get())) +
                          ", coluna " + std::to_string(currentColumn(parser.get()) + 1));
}

pugi::xml_node parse(pugi::xml_document& document, const std::string& xml) {
    requireWellFormedText(xml);
    // The bytes are kept as they are, whatever encoding the document declares.
    const auto result =
        document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8);
    if (!result) throw InvalidDocument("XML malformado no byte " + std::to_string(result.offset));
    return document.document_element();
}

pugi::xml_node body(const pugi::xml_node& root) {
    const pugi::xml_node information = root.child("infCFe");
    return information ? information : root;
}

pugi::xml_node append(pugi::xml_node parent, const char* name, const std::string& text) {
    pugi::xml_node node = parent.append_child(name);
    node.text().set(text.c_str());
    return node;
}

void appendCopy(pugi::xml_node parent, const pugi::xml_node& node) {
    if (node) parent.append_copy(node);
}

// --- Amounts: whole numbers of the smallest unit, so that no sum is ever off by a cent.

[[noreturn]] void refuseAmount(const pugi::xml_node& node) {
    throw InvalidDocument(std::string(node.name()) + " inválido");
}

/// The number in `node` times ten to the power of `decimals`; 0 if there is no such node.
std::int64_t scaled(const pugi::xml_node& node, int decimals) {
    if (!node) return 0;
    const std::string_view text = node.text().get();
    const std::size_t point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    std::string digits(whole);
    if (point != std::string_view::npos) digits += text.substr(point + 1);
    const std::size_t fraction = digits.size() - whole.size();
    digits.append(static_cast<std::size_t>(decimals) - std::min<std::size_t>(fraction, decimals), '0');

    constexpr std::size_t SAFE_DIGITS = 18;  // always fit 64 bits
    const bool plain = !whole.empty() && digits.find_first_not_of("0123456789") == std::string::npos;
    if (!plain || fraction > static_cast<std::size_t>(decimals) || digits.size() > SAFE_DIGITS)
        refuseAmount(node);
    return std::stoll(digits);
}

Cents cents(const pugi::xml_node& node) { return scaled(node, 2); }

std::string money(Cents amount) {
    return std::to_string(amount / 100) + "." + padded(static_cast<int>(amount % 100), 2);
}

/// Quantity times unit price, cut to the cent by the item's rule: "T" truncates, "A" rounds as ABNT NBR 5891
/// does (a half goes to the even cent).
Cents productAmount(const pugi::xml_node& product) {
    if (const pugi::xml_node given = product.child("vProd")) return cents(given);
    constexpr int QUANTITY_DECIMALS = 4;
    constexpr int PRICE_DECIMALS = 3;
    constexpr std::int64_t PARTS_OF_CENT = 100000;  // ten to the power of 4 + 3 - 2

    std::int64_t exact = 0;
    const std::int64_t quantity = scaled(product.child("qCom"), QUANTITY_DECIMALS);
    const std::int64_t price = scaled(product.child("vUnCom"), PRICE_DECIMALS);
    if (__builtin_mul_overflow(quantity, price, &exact)) refuseAmount(product.child("qCom"));

    const Cents amount = exact / PARTS_OF_CENT;
    const std::int64_t twiceRest = exact % PARTS_OF_CENT * 2;
    const bool truncates = std::string_view(product.child_value("indRegra")) == "T";
    const bool up = twiceRest > PARTS_OF_CENT || (twiceRest == PARTS_OF_CENT && amount % 2 == 1);
    return !truncates && up ? amount + 1 : amount;
}

struct Totals {
    Cents products = 0;
    Cents discounts = 0;
    Cents surcharges = 0;

    Cents document() const { return products - discounts + surcharges; }

    void add(Cents product, Cents discount, Cents surcharge) {
        const bool overflow = __builtin_add_overflow(products, product, &products) ||
                              __builtin_add_overflow(discounts, discount, &discounts) ||
                              __builtin_add_overflow(surcharges, surcharge, &surcharges);
        if (overflow || discounts > products) throw InvalidDocument("valores dos itens fora da faixa");
    }
};

// --- The pieces of a document

struct Numbering {
    std::string key;       ///< "CFe" and 44 digits
    std::string cNF;       ///< 6 digits
    std::string taxpayer;  ///< CNPJ in the key
};

Numbering number(const Issuer& issuer, const pugi::xml_node& emitter) {
    Numbering result;
    result.taxpayer = onlyDigits(emitter.child_value("CNPJ"));
    if (result.taxpayer.size() != 14) result.taxpayer = issuer.taxpayer;
    result.cNF = padded(static_cast<int>((issuer.number * 7919LL + 104729) % 1000000), 6);
    const std::string digits = issuer.stateCode + localTimeText("%y%m", issuer.time) + result.taxpayer +
                               std::string(MODEL) + issuer.serialNumber + padded(issuer.number, 6) +
                               result.cNF;
    result.key = "CFe" + digits + checkDigit(digits);
    return result;
}

void appendIdentification(pugi::xml_node information, const pugi::xml_node& given, const Issuer& issuer,
                          const Numbering& numbering) {
    pugi::xml_node ide = information.append_child("ide");
    append(ide, "cUF", issuer.stateCode);
    append(ide, "cNF", numbering.cNF);
    append(ide, "mod", std::string(MODEL));
    append(ide, "nserieSAT", issuer.serialNumber);
    append(ide, "nCFe", padded(issuer.number, 6));
    append(ide, "dEmi", localTimeText("%Y%m%d", issuer.time));
    append(ide, "hEmi", localTimeText("%H%M%S", issuer.time));
    append(ide, "cDV", numbering.key.substr(numbering.key.size() - 1));
    append(ide, "tpAmb", "2");  // the tax authority's test environment
    appendCopy(ide, given.child("CNPJ"));
    appendCopy(ide, given.child("signAC"));
    append(ide, "assinaturaQRCODE", qrCodeSignature());
    appendCopy(ide, given.child("numeroCaixa"));
}

/// A signature in the form of XML Signature; its values say that they sign nothing.
void appendSignature(pugi::xml_node root, const std::string& key) {
    pugi::xml_node signature = root.append_child("Signature");
    signature.append_attribute("xmlns") = "http://www.w3.org/2000/09/xmldsig#";
    pugi::xml_node info = signature.append_child("SignedInfo");
    info.append_child("CanonicalizationMethod").append_attribute("Algorithm") =
        "http://www.w3.org/TR/2001/REC-xml-c14n-20010315";
    info.append_child("SignatureMethod").append_attribute("Algorithm") =
        "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256";
    pugi::xml_node reference = info.append_child("Reference");
    reference.append_attribute("URI") = ("#" + key).c_str();
    reference.append_child("DigestMethod").append_attribute("Algorithm") =
        "http://www.w3.org/2001/04/xmlenc#sha256";
    append(reference, "DigestValue", base64(repeated("sem valor fiscal ", 32)));
    append(signature, "SignatureValue", qrCodeSignature());
    append(signature.append_child("KeyInfo").append_child("X509Data"), "X509Certificate",
           base64("certificado simulado, sem valor fiscal"));
}

/// Whether the items get the amounts that a device adds.
enum class ItemAmounts { Added, LeftOut };

/// Copies the item and counts it in `totals`.
void appendItem(pugi::xml_node information, const pugi::xml_node& item, ItemAmounts amounts, Totals& totals) {
    pugi::xml_node product = information.append_copy(item).child("prod");
    const Cents amount = productAmount(product);
    const Cents discount = cents(product.child("vDesc"));
    const Cents surcharge = cents(product.child("vOutro"));
    totals.add(amount, discount, surcharge);
    if (amounts == ItemAmounts::LeftOut || !product) return;
    if (!product.child("vProd")) {
        product.insert_child_after("vProd", product.child("vUnCom")).text().set(money(amount).c_str());
    }
    if (!product.child("vItem")) append(product, "vItem", money(amount - discount + surcharge));
}

void appendTotal(pugi::xml_node information, const pugi::xml_node& given, Totals totals) {
    pugi::xml_node total = information.append_child("total");
    pugi::xml_node taxes = total.append_child("ICMSTot");
    append(taxes, "vICMS", money(0));
    append(taxes, "vProd", money(totals.products));
    append(taxes, "vDesc", money(totals.discounts));
    append(taxes, "vOutro", money(totals.surcharges));
    const pugi::xml_node adjustment = given.child("DescAcrEntr");
    totals.add(0, cents(adjustment.child("vDescSubtot")), cents(adjustment.child("vAcresSubtot")));
    append(total, "vCFe", money(totals.document()));
    appendCopy(total, adjustment);
    appendCopy(total, given.child("vCFeLei12741"));
}

void appendPayment(pugi::xml_node information, const pugi::xml_node& given, Cents total) {
    Totals paid;
    for (const pugi::xml_node& means : given.children("MP")) paid.add(cents(means.child("vMP")), 0, 0);
    pugi::xml_node payment = given ? information.append_copy(given) : information.append_child("pgto");
    if (!payment.child("vTroco")) append(payment, "vTroco", money(std::max<Cents>(0, paid.products - total)));
}

std::string customerOf(const pugi::xml_node& given) {
    const pugi::xml_node customer = given.child("dest");
    const std::string cpf = onlyDigits(customer.child_value("CPF"));
    const std::string digits = cpf.empty() ? onlyDigits(customer.child_value("CNPJ")) : cpf;
    return digits.substr(0, 14);
}

void buildSale(pugi::xml_document& document, const pugi::xml_node& given, const Issuer& issuer,
               const Numbering& numbering, ItemAmounts amounts) {
    pugi::xml_node root = document.append_child("CFe");
    pugi::xml_node information = root.append_child("infCFe");
    information.append_attribute("Id") = numbering.key.c_str();
    information.append_attribute("versao") = LAYOUT_VERSION;
    information.append_attribute("versaoDadosEnt") =
        given.attribute("versaoDadosEnt").as_string(LAYOUT_VERSION);
    information.append_attribute("versaoSB") = SOFTWARE_VERSION;
    appendIdentification(information, given.child("ide"), issuer, numbering);
    if (given.child("emit")) {
        appendCopy(information, given.child("emit"));
    } else {
        append(information.append_child("emit"), "CNPJ", numbering.taxpayer);
    }
    appendCopy(information, given.child("dest"));
    appendCopy(information, given.child("entrega"));
    Totals totals;
    for (const pugi::xml_node& item : given.children("det")) appendItem(information, item, amounts, totals);
    appendTotal(information, given.child("total"), totals);
    appendPayment(information, given.child("pgto"), cents(information.child("total").child("vCFe")));
    appendCopy(information, given.child("infAdic"));
    appendSignature(root, numbering.key);
}

/// Removes elements of the sale, items first and from the end, until `excess` bytes are gone.
void leaveOut(pugi::xml_node information, std::size_t excess) {
    std::size_t removedBytes = 0;
    int removed = 0;
    const std::size_t commentBytes = 100;
    const auto sweep = [&](auto removable) {
        pugi::xml_node previous;
        for (pugi::xml_node node = information.last_child(); node && removedBytes < excess + commentBytes;
             node = previous) {
            previous = node.previous_sibling();
            if (!removable(std::string_view(node.name()))) continue;
            removedBytes += serialized(node).size();
            information.remove_child(node);
            ++removed;
        }
    };
    sweep([](std::string_view name) { return name == "det"; });
    sweep([](std::string_view name) { return name != "ide" && name != "emit" && name != "total"; });
    information.append_child(pugi::node_comment)
        .set_value(
            ("simulador: " + std::to_string(removed) + " elementos omitidos para caber na resposta").c_str());
}

}  // namespace

std::string qrCodeSignature() { return base64(repeated("simulado, sem valor fiscal; ", 256)); }

std::string padded(int number, int width) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%0*d", width, number);
    return text.data();
}

std::string base64(const std::string& bytes) {
    return Base64::encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<std::uint32_t>(bytes.size()));
}

char checkDigit(const std::string& digits) {
    int sum = 0;
    int weight = 2;
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
        sum += (*digit - '0') * weight;
        weight = weight == 9 ? 2 : weight + 1;
    }
    const int remainder = sum % 11;
    return static_cast<char>('0' + (remainder < 2 ? 0 : 11 - remainder));
}

SignedDocument signSale(const std::string& sale, const Issuer& issuer, std::size_t maxBytes) {
    pugi::xml_document source;
    const pugi::xml_node given = body(parse(source, sale));
    const Numbering numbering = number(issuer, given.child("emit"));

    pugi::xml_document document;
    buildSale(document, given, issuer, numbering, ItemAmounts::Added);
    if (serialized(document).size() > maxBytes) {
        document.reset();
        buildSale(document, given, issuer, numbering, ItemAmounts::LeftOut);
    }
    const std::size_t bytes = serialized(document).size();
    const pugi::xml_node information = document.document_element().child("infCFe");
    if (bytes > maxBytes) leaveOut(information, bytes - maxBytes);
    SignedDocument result{serialized(document), numbering.key, information.child("total").child_value("vCFe"),
                          customerOf(given), issuer.time};
    if (result.xml.size() > maxBytes) throw InvalidDocument("ide ou emit grande demais");
    return result;
}

SignedDocument signCancellation(const std::string& request, const SignedDocument& sale,
                                const Issuer& issuer) {
    pugi::xml_document source;
    const pugi::xml_node given = body(parse(source, request));
    const std::string named = given.attribute("chCanc").as_string(sale.key.c_str());
    if (named != sale.key) throw InvalidDocument("chCanc difere da chave informada");

    pugi::xml_document saleSource;
    const pugi::xml_node sold = body(parse(saleSource, sale.xml));
    const Numbering numbering = number(issuer, sold.child("emit"));

    pugi::xml_document document;
    pugi::xml_node root = document.append_child("CFeCanc");
    pugi::xml_node information = root.append_child("infCFe");
    information.append_attribute("Id") = numbering.key.c_str();
    information.append_attribute("chCanc") = sale.key.c_str();
    information.append_attribute("versao") = LAYOUT_VERSION;
    append(information, "dEmi", localTimeText("%Y%m%d", sale.time));
    append(information, "hEmi", localTimeText("%H%M%S", sale.time));
    appendIdentification(information, given.child("ide"), issuer, numbering);
    appendCopy(information, sold.child("emit"));
    appendCopy(information, sold.child("dest"));
    append(information.append_child("total"), "vCFe", sale.total);
    appendSignature(root, numbering.key);
    return {serialized(document), numbering.key, sale.total, sale.customer, issuer.time};
}

void requireWellFormed(const std::string& xml) {
    pugi::xml_document document;
    parse(document, xml);
}

}  // namespace sim
