#include "access/Token.h"

#include <openssl/rand.h>

#include <array>
#include <stdexcept>

#include "sha256.h"

namespace fiscorad {
namespace {

constexpr std::size_t SECRET_BYTES = 32;
constexpr std::size_t MAX_NAME = 64;

}  // namespace

bool isTokenName(const std::string& text) {
    constexpr char ALLOWED[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    return !text.empty() && text.size() <= MAX_NAME && text.find_first_not_of(ALLOWED) == std::string::npos;
}

std::string newSecret() {
    std::array<unsigned char, SECRET_BYTES> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        throw std::runtime_error("no random bits from the system");
    return tool::hexadecimal({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

std::string hashOf(const std::string& secret) { return tool::sha256(secret); }

}  // namespace fiscorad
