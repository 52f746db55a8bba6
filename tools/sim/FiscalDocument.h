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

/// What the device itself knows when it issues a document.
struct Issuer {
    std::string stateCode;     ///< cUF, 2 digits
    std::string taxpayer;      ///< CNPJ, 14 digits, for a document that names none
    std::string serialNumber;  ///< 9 digits
    int number;                ///< nCFe, 1 to 999999
    std::time_t time;
};

/// A document as the device returns it.
struct SignedDocument {
    std::string xml;
    std::string key;       ///< "CFe" and 44 digits
    std::string total;     ///< in reais, two decimals, such as "10.00"
    std::string customer;  ///< CPF or CNPJ, up to 14 digits; empty if the sale names none
    std::time_t time;
};

/// In place of the signature of the QR code: 344 characters of Base64.
std::string qrCodeSignature();

/// `number` (0 or more) in decimal, padded with zeros to `width` digits.
std::string padded(int number, int width);

std::string base64(const std::string& bytes);

/// The digit that ends an access key: modulo 11 of `digits`, with the weights 2 to 9 from the right.
char checkDigit(const std::string& digits);

/// The CF-e (layout 0.07) that a device makes of `sale`, with its items' amounts and their total. Any
/// well-formed document is accepted, even with elements missing; throws InvalidDocument for any other, and
/// for amounts that are not numbers.
///
/// If the result would exceed `maxBytes`, the amounts that the device adds to the items are left out; if that
/// is not enough, items go, from the end, then everything but ide, emit and total. A comment in the document
/// says how many elements are missing; the total stays that of the whole sale.
SignedDocument signSale(const std::string& sale, const Issuer& issuer, std::size_t maxBytes);

/// The cancellation of `sale` that a device makes of `request`. Throws InvalidDocument if `request` is not
/// well-formed or names another sale.
SignedDocument signCancellation(const std::string& request, const SignedDocument& sale, const Issuer& issuer);

/// Throws InvalidDocument if `xml` is not a well-formed document with one root element.
void requireWellFormed(const std::string& xml);

}  // namespace sim
