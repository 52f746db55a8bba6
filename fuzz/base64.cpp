// The Base64 codec: any text decodes to what a plain decoder makes of it, and any bytes come back from their
// encoding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "encoding/Base64.h"
#include "plain_rules.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string input(bytes, bytes + size);
    require(Base64::decode(input) == plainlyDecoded(input),
            "a text decodes up to its first foreign character");

    const std::string text = Base64::encode(bytes, static_cast<std::uint32_t>(size));
    require(text.size() == (size + 2) / 3 * 4, "an encoding is padded to groups of four");
    require(text.find_first_not_of(BASE64_ALPHABET) ==
                (size % 3 == 0 ? std::string::npos : text.size() + size % 3 - 3),
            "an encoding holds the alphabet and its padding");
    require(Base64::decode(text) == input, "bytes come back from their encoding");
    return 0;
}
