// Heads of frames, as text: the input is the header lines, each LF of it a CR LF on the wire. Which are
// refused, and what code, source and headers are read, must be what a plain parser says.
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
    require(outcome(result, taken, parser) == plain.outcome(expected, i), "a head is judged by the rules");
    return 0;
}
