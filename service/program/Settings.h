#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fiscorad {

/// What the command line and the configuration file say. Paths are absolute.
struct Settings {
    std::string listen = "127.0.0.1:8059";
    std::string journal = "/var/lib/fiscorad/journal.db";
    std::string activationCodeFile = "/etc/fiscorad/activation-code";
    std::size_t queueLimit = 1000;
    std::string certificate;  ///< PEM file with the chain; empty: plain HTTP
    std::string key;          ///< PEM file
    bool plainHttp = false;   ///< also beyond this machine: a proxy does TLS
};

/// Where to listen.
struct Endpoint {
    std::string address;  ///< IPv4 or IPv6, without brackets
    std::uint16_t port = 0;
};

}  // namespace fiscorad
