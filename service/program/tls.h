#pragma once

#include <string>

namespace fiscorad {

/// A certificate chain and its private key, as PEM.
struct Identification {
    std::string certificate;
    std::string key;
};

/// Reads both, and checks that they belong together and that the key's file is its user's alone. Throws
/// std::runtime_error with one line for the user.
Identification readIdentification(const std::string& certificateFile, const std::string& keyFile);

}  // namespace fiscorad
