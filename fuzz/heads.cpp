// Heads of frames. The input is the header lines, with LF for CR LF. The library must refuse the heads that a
// plain parser refuses, and read the same code, source and headers from the others.
#include <cstddef>
#include <cstdint>
#include <string>

#include "PlainParser.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    std::string wire = "smx\r\n";
    for (const char byte : std::string(bytes, bytes + size))
        wire += byte == '\n' ? "\r\n" : std::string(1, byte);
    wire += "\r\n\r\n\r\n";

    pbs::MessagePrivate parser("0", "0");
    unsigned long taken = 0;
    const auto result = parser.parse(wire.data(), wire.size(), &taken);

    PlainParser plain;
    auto expected = pbs::Message::PARSER_IN_PROGRESS;
    std::size_t i = 0;
    while (i < wire.size() && expected == pbs::Message::PARSER_IN_PROGRESS) expected = plain.take(wire[i++]);
    require(outcome(result, taken, parser) == plain.outcome(expected, i),
            "a head is read as the plain parser reads it");
    return 0;
}
