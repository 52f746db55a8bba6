#include "sha256.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace tool {

std::string hexadecimal(std::string_view bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += DIGITS[byte >> 4U];
        text += DIGITS[byte & 0xfU];
    }
    return text;
}

std::string sha256(std::string_view bytes) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256");
    return hexadecimal({reinterpret_cast<const char*>(digest.data()), size});
}

}  // namespace tool
