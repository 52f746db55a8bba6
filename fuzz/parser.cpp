// The incremental parser on a stream in chunks of any size: after the same bytes it must show the same as a
// plain parser, whether the stream is cut or whole. The last bytes of the input are the chunk sizes, used in
// turn, and their number.
#include <fuzzer/FuzzedDataProvider.h>

#include <vector>

#include "PlainParser.h"
#include "require.h"

namespace {

constexpr auto IN_PROGRESS = pbs::Message::PARSER_IN_PROGRESS;

std::vector<Outcome> plainlyParsed(const std::vector<char>& stream) {
    PlainParser parser;
    std::vector<Outcome> outcomes;
    for (std::size_t i = 0; i < stream.size(); ++i)
        if (const auto result = parser.take(stream[i]); result != IN_PROGRESS)
            outcomes.push_back(parser.outcome(result, i + 1));
    outcomes.push_back(parser.outcome(IN_PROGRESS, stream.size()));
    return outcomes;
}

/// Feeds the parser as the receive loop does; each chunk ends where its memory does.
std::vector<Outcome> parsed(const std::vector<char>& stream, const std::vector<std::size_t>& sizes) {
    pbs::MessagePrivate parser("0", "0");
    std::vector<Outcome> outcomes;
    std::size_t start = 0;
    for (std::size_t i = 0; start < stream.size(); ++i) {
        const std::size_t size = std::min(sizes[i % sizes.size()], stream.size() - start);
        const std::vector<char> chunk(&stream[start], &stream[start] + size);
        for (unsigned long consumed = 0; consumed < size;) {
            const auto result = parser.parse(chunk.data() + consumed, size - consumed, &consumed);
            if (result != IN_PROGRESS)
                outcomes.push_back(outcome(result, start + consumed, parser));
            else
                require(consumed == size, "a frame in progress takes every byte");
        }
        start += size;
    }
    outcomes.push_back(outcome(IN_PROGRESS, start, parser));
    return outcomes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    FuzzedDataProvider input(bytes, size);
    std::vector<std::size_t> sizes(input.ConsumeIntegralInRange<std::size_t>(1, 8));
    for (auto& chunkSize : sizes) chunkSize = input.ConsumeIntegralInRange<std::size_t>(1, 256);
    const auto stream = input.ConsumeRemainingBytes<char>();

    const auto expected = plainlyParsed(stream);
    require(parsed(stream, {stream.size()}) == expected,
            "a stream in one piece is parsed as the plain parser does");
    require(parsed(stream, sizes) == expected, "a stream in chunks is parsed as the plain parser does");
    return 0;
}
