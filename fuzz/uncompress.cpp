// `Message::uncompress`. The input is a letter, the announced size up to the first LF, and the body. The
// letter says what the body is: "p" plain, to be compressed here; "o" marked as plain; "n" without a mark;
// any other, taken as compressed.
#include <zlib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "protocol/Message.h"
#include "require.h"

namespace {

constexpr int MAX_ANNOUNCED = 20'971'519;

/// The stream inflated piece by piece; nothing if it is damaged, incomplete, or holds more than `limit`.
std::optional<std::string> inflated(std::string stream, std::size_t limit) {
    z_stream state{};
    state.next_in = reinterpret_cast<Bytef*>(stream.data());
    state.avail_in = static_cast<uInt>(stream.size());
    require(inflateInit(&state) == Z_OK, "zlib starts");
    std::string output;
    int result = Z_OK;
    while (result == Z_OK && output.size() <= limit) {
        std::array<char, 4000> piece;
        state.next_out = reinterpret_cast<Bytef*>(piece.data());
        state.avail_out = piece.size();
        result = inflate(&state, Z_NO_FLUSH);
        output.append(piece.data(), piece.size() - state.avail_out);
    }
    inflateEnd(&state);
    if (result != Z_STREAM_END || output.size() > limit) return std::nullopt;
    return output;
}

pbs::Message message(char kind, const std::string& announced, const std::string& body) {
    pbs::Message result("C", "9");
    result.setBody(body);
    if (kind == 'p')
        result.compress();
    else if (kind == 'n')
        result.removeHeader(pbs::HDR_CONTENT_TYPE);
    else if (kind != 'o')
        result.addHeader(pbs::HDR_CONTENT_TYPE, pbs::HDR_CONTENT_COMPRESSED);
    if (!announced.empty()) result.addHeader(pbs::HDR_CONTENT_UNCOMPRESSED_SIZE, announced);
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string input(bytes, bytes + size);
    const std::size_t lineEnd = input.find('\n');
    if (lineEnd == 0 || lineEnd == std::string::npos) return -1;
    pbs::Message tried = message(input[0], input.substr(1, lineEnd - 1), input.substr(lineEnd + 1));

    const auto announced = static_cast<std::int32_t>(
        std::strtol(tried.header(pbs::HDR_CONTENT_UNCOMPRESSED_SIZE).c_str(), nullptr, 10));
    // A size in between differs from the limit only in time.
    if (announced > 200'000 && announced < MAX_ANNOUNCED) return -1;

    const pbs::Message before = tried;
    pbs::Message expected = before;
    const int result = tried.uncompress();
    if (expected.header(pbs::HDR_CONTENT_TYPE) != pbs::HDR_CONTENT_COMPRESSED) {
        require(result == pbs::Message::WRONG_CONTENT_TYPE, "only a body marked as compressed is inflated");
        if (!expected.hasHeader(pbs::HDR_CONTENT_TYPE)) expected.addHeader(pbs::HDR_CONTENT_TYPE, "");
    } else if (announced < 0 || announced > MAX_ANNOUNCED) {
        require(result == Z_MEM_ERROR, "a size out of range is not tried");
    } else if (const auto body = inflated(before.body(), static_cast<std::size_t>(announced)); !body) {
        require(result == Z_DATA_ERROR || result == Z_BUF_ERROR, "a bad stream is reported");
        if (!expected.isCompressed()) expected.addHeader(pbs::HDR_CONTENT_UNCOMPRESSED_SIZE, "");
    } else {
        require(result == Z_OK, "a good stream is accepted");
        expected.setBody(*body);
        expected.removeHeader(pbs::HDR_CONTENT_UNCOMPRESSED_SIZE);
    }
    require(tried == expected, "the message has the inflated body, or is unchanged");
    return 0;
}
