#include "rules/AccessKey.h"

#include <algorithm>

namespace fiscorad {
namespace {

constexpr std::size_t DIGITS = 44;
constexpr int NUMBERS = 999999;  ///< a device counts from 1 to this and begins again

/// Modulo 11 with the weights 2 to 9 from the right.
char checkDigit(std::string_view digits) {
    int sum = 0;
    int weight = 2;
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit) {
        sum += (*digit - '0') * weight;
        weight = weight == 9 ? 2 : weight + 1;
    }
    const int rest = sum % 11;
    return rest < 2 ? '0' : static_cast<char>('0' + 11 - rest);
}

}  // namespace

std::optional<AccessKey> AccessKey::parse(std::string_view text) {
    constexpr std::string_view PREFIX = "CFe";
    if (text.substr(0, PREFIX.size()) == PREFIX) text.remove_prefix(PREFIX.size());
    const bool digits = text.size() == DIGITS &&
                        std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (!digits || checkDigit(text.substr(0, DIGITS - 1)) != text.back()) return std::nullopt;
    return AccessKey(std::string(text));
}

int AccessKey::number() const { return std::stoi(m_digits.substr(31, 6)); }

int AccessKey::numbersAfter(const AccessKey& other) const {
    const int ahead = (number() - other.number() + NUMBERS) % NUMBERS;
    return ahead <= NUMBERS / 2 ? ahead : ahead - NUMBERS;
}

}  // namespace fiscorad
