// Heads of frames. The input is the header lines, with LF for CR LF. The library must refuse the heads that a
// plain parser refuses, and read the same code, source and headers from the others.
#include <cstddef>
#include <cstdint>

#include "PlainParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string start = "smx\r\n", end = "\r\n\r\n\r\n";
    std::vector<char> wire(start.begin(), start.end());
    for (std::size_t i = 0; i < size; ++i) {
        if (bytes[i] == '\n') wire.push_back('\r');
        wire.push_back(static_cast<char>(bytes[i]));
    }
    wire.insert(wire.end(), end.begin(), end.end());
    require(parsed(wire, {wire.size()}) == plainlyParsed(wire),
            "a head is read as the plain parser reads it");
    return 0;
}
