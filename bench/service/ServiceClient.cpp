#include "service/ServiceClient.h"

#include <httplib.h>

namespace {

/// The service answers within 120 s, whatever the device does.
constexpr int PATIENCE_SECONDS = 150;

httplib::Headers headersOf(const ServiceClient::Fields& fields) { return {fields.begin(), fields.end()}; }

}  // namespace

template <typename Request>
std::optional<HttpAnswer> ServiceClient::exchange(Request request) const {
    httplib::Client client("127.0.0.1", m_port);
    client.set_read_timeout(PATIENCE_SECONDS);
    client.set_tcp_nodelay(true);
    m_stirred();
    const httplib::Result result = request(client);
    m_stirred();
    if (!result) return std::nullopt;
    return HttpAnswer{result->status, result->body};
}

std::optional<HttpAnswer> ServiceClient::get(const std::string& path, const Fields& headers) const {
    return exchange([&](httplib::Client& client) { return client.Get(path, headersOf(headers)); });
}

std::optional<HttpAnswer> ServiceClient::remove(const std::string& path) const {
    return exchange([&](httplib::Client& client) { return client.Delete(path); });
}

std::optional<HttpAnswer> ServiceClient::post(const std::string& path, const Fields& headers,
                                              const std::string& body, const std::string& type) const {
    return exchange(
        [&](httplib::Client& client) { return client.Post(path, headersOf(headers), body, type); });
}

std::optional<HttpAnswer> ServiceClient::postForm(const std::string& path, const Fields& headers,
                                                  const Fields& form) const {
    return exchange([&](httplib::Client& client) {
        return client.Post(path, headersOf(headers), httplib::Params(form.begin(), form.end()));
    });
}
