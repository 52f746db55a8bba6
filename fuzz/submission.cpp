// Requests for a document. The input is the head, an empty line and the body; the head's lines, with LF for
// CR LF, are the target and the headers. Whatever a till sends is a document that the journal and the library
// can take, or is refused with a reason in JSON.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "fields.h"
#include "http/listing.h"
#include "http/problem.h"
#include "http/submission.h"
#include "require.h"
#include "rules/AccessKey.h"

namespace {

using namespace fiscorad;

constexpr std::size_t MOST_BYTES = 200;

http::Request requestIn(const std::string& input) {
    http::Request request;
    const auto end = input.find("\n\n");
    if (end != std::string::npos) request.body = input.substr(end + 2);
    const std::string head = input.substr(0, end);
    const auto lines = fieldsOf(head, '\n');
    request.target = lines.front();
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const auto parts = fieldsOf(lines[i], ':', 2);
        request.headers.emplace(parts[0], parts.size() > 1 ? parts[1] : "");
    }
    return request;
}

void requireGood(const Submission& submission, const std::string& body) {
    require(http::isKey(submission.key), "a key is one");
    require(submission.body == body, "the document's bytes are passed on as they came");
    require(!body.empty() && body.size() <= MOST_BYTES && body.find('\0') == std::string::npos,
            "the library can take the document");
    const auto key = AccessKey::parse(submission.saleKey);
    require(
        submission.kind == Kind::Sale ? submission.saleKey.empty() : key && key->text() == submission.saleKey,
        "a cancellation, and nothing else, names its sale");
}

template <typename Read>
void requireAnswer(const Read& read) {
    try {
        read();
    } catch (const http::Rejection& rejection) {
        const http::Response response = rejection.response();
        require(response.status >= 400 && response.status < 500,
                "the till is told that the error is its own");
        require(nlohmann::json::accept(response.body), "a refusal is JSON");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const http::Request request = requestIn(std::string(reinterpret_cast<const char*>(bytes), size));
    const auto wait = http::waitOf(request, std::chrono::seconds(30));
    require(wait.count() >= 0 && wait.count() <= 120, "nobody waits longer than 120 s");
    for (const Kind kind : {Kind::Sale, Kind::Cancellation}) {
        requireAnswer([&] {
            http::Request copy = request;
            requireGood(http::submissionOf(std::move(copy), kind, MOST_BYTES), request.body);
        });
        requireAnswer([&] {
            const Filter filter = http::filterOf(request, kind);
            require(filter.limit >= 1 && filter.limit <= 1000, "a page has 1 to 1000 documents");
        });
    }
    return 0;
}
