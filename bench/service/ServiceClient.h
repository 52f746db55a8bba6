#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

/// An answer of the service.
struct HttpAnswer {
    int status = 0;
    std::string body;
};

/// A till's end of HTTP. Each request has a connection of its own, as if the till had just been switched on,
/// so it can be used from several threads at once.
class ServiceClient {
  public:
    using Fields = std::multimap<std::string, std::string>;

    /// `stirred` is called right before each request and after each answer.
    explicit ServiceClient(
        int port, std::function<void()> stirred = [] {})
        : m_port(port), m_stirred(std::move(stirred)) {}

    // None if the connection is refused or breaks, or if no answer comes within 150 s.

    std::optional<HttpAnswer> get(const std::string& path, const Fields& headers = {}) const;
    std::optional<HttpAnswer> remove(const std::string& path) const;
    std::optional<HttpAnswer> post(const std::string& path, const Fields& headers, const std::string& body,
                                   const std::string& type) const;
    std::optional<HttpAnswer> postForm(const std::string& path, const Fields& headers,
                                       const Fields& form) const;

  private:
    template <typename Request>
    std::optional<HttpAnswer> exchange(Request request) const;

    int m_port;
    std::function<void()> m_stirred;
};
