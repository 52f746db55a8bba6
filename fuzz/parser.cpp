// The incremental parser on a stream in chunks of any size: after the same bytes it must show the same as a
// plain parser, whether the stream is cut or whole. The last bytes of the input are the chunk sizes, used in
// turn, and their number.
#include <fuzzer/FuzzedDataProvider.h>

#include <vector>

#include "PlainParser.h"
#include "require.h"

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
