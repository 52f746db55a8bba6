#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace fiscorad {

/// The access key of a CF-e: 44 digits, laid out as the tax authority's "Especificação de Requisitos do
/// SAT-CF-e" has it: cUF 2, AAMM 4, CNPJ 14, mod 2, nserieSAT 9, nCF 6, cNF 6, cDV 1.
class AccessKey {
  public:
    /// Of 44 digits, with or without "CFe" before them; none if anything else is given or the check digit is
    /// wrong.
    static std::optional<AccessKey> parse(std::string_view text);

    const std::string& digits() const { return m_digits; }
    std::string text() const { return "CFe" + m_digits; }
    std::string_view serial() const { return std::string_view(m_digits).substr(22, 9); }
    int number() const;
    /// "2026" and "11": year and month of issue.
    std::string year() const { return "20" + m_digits.substr(2, 2); }
    std::string month() const { return m_digits.substr(4, 2); }

    /// How many documents after `other` this one is, by the device's numbers, which go from 1 to 999999 and
    /// begin again; 0 or less if it is not later. Half a million ahead counts as earlier.
    int numbersAfter(const AccessKey& other) const;

  private:
    explicit AccessKey(std::string digits) : m_digits(std::move(digits)) {}
    std::string m_digits;
};

}  // namespace fiscorad
