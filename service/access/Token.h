#pragma once

#include <optional>
#include <string>

#include "rules/document.h"

namespace fiscorad {

/// What its holder may do.
enum class Role {
    Till,           ///< sells, and sees what it sold
    Administrator,  ///< sees everything, decides, and calls any operation
};

/// What a till or a person proves itself with. The secret is shown once, when the token is made; only its
/// hash is kept.
struct Token {
    std::string name;  ///< of the till (`caixa`) or of the person
    Role role = Role::Till;
    std::string hash;  ///< see hashOf
    Time madeAt;
    std::optional<Time> revokedAt;
};

/// Whether `text` may name a token: 1 to 64 characters of A-Z a-z 0-9 . _ -.
bool isTokenName(const std::string& text);

/// A secret that nobody can guess: 256 random bits in hexadecimal. Throws std::runtime_error if the system
/// has no random bits.
std::string newSecret();
/// SHA-256 (FIPS 180-4) of `secret`, in hexadecimal. Needs no salt, since a secret is random itself.
std::string hashOf(const std::string& secret);

/// Who makes a request.
struct Identity {
    Role role = Role::Till;
    std::string person;               ///< for the journal
    std::optional<std::string> till;  ///< the name of the token; none if there are no tokens
};

}  // namespace fiscorad
