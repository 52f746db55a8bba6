#pragma once

#include <cstddef>
#include <ctime>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sim {

/// A document that a device refuses; the text says why, in Portuguese.
struct InvalidDocument : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What the device knows itself when it issues a document.
struct Issuer {
    std::string stateCode;  ///< cUF, 2 digits
    std::string taxpayer;   ///< CNPJ, 14 digits, for a document that names none
    int number;             ///< nCFe, 1 to 999999
    std::time_t time;
};

/// A document as the device gives it back.
struct SignedDocument {
    std::string xml;
    std::string key;       ///< "CFe" and 44 digits
    std::string total;     ///< in reais, two decimals, such as "10.00"
    std::string customer;  ///< CPF or CNPJ, up to 14 digits; empty where the sale names none
    std::time_t time;
};

/// Serial number of the simulated device, 9 digits.
inline constexpr std::string_view SERIAL_NUMBER = "900004019";
/// What stands where a device puts the signature of its QR code: 344 characters of Base64.
std::string qrCodeSignature();

/// Decimal text of `number` (0 or more), with zeros in front up to `width` digits.
std::string padded(int number, int width);

std::string base64(const std::string& bytes);

/// The digit that ends an access key: modulo 11 of `digits`, with the weights 2 to 9 from the right.
char checkDigit(const std::string& digits);

/// The CF-e (layout 0.07) that a device makes of `sale`, with its items' amounts and their total. Any
/// well-formed document is taken, missing elements included; throws InvalidDocument for any other, and for
/// amounts that are no numbers.
///
/// Where the result would have more than `maxBytes`, the amounts that the device adds to the items are left
/// out; where that is not enough, so are the items, from the last one backwards, then all that is neither
/// ide, emit nor total. A comment in the document then says how many elements are missing; the total stays
/// that of the whole sale.
SignedDocument signSale(const std::string& sale, const Issuer& issuer, std::size_t maxBytes);

/// The cancellation of `sale` that a device makes of `request`. Throws InvalidDocument where `request` is not
/// well-formed or names another sale.
SignedDocument signCancellation(const std::string& request, const SignedDocument& sale, const Issuer& issuer);

/// Throws InvalidDocument where `xml` is not a well-formed document with one root element.
void requireWellFormed(const std::string& xml);

}  // namespace sim
