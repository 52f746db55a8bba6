// The Base64 codec: any text decodes as a plain decoder decodes it, and any bytes survive encoding and
// decoding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "encoding/Base64.h"
#include "plain_rules.h"
#include "require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string input(bytes, bytes + size);
    require(Base64::decode(input) == plainlyDecoded(input),
            "a text decodes up to its first character outside the alphabet");

    const std::string text = Base64::encode(bytes, static_cast<std::uint32_t>(size));
    require(text.size() == (size + 2) / 3 * 4, "an encoding is padded to groups of four");
    require(text.find_first_not_of(BASE64_ALPHABET) ==
                (size % 3 == 0 ? std::string::npos : text.size() + size % 3 - 3),
            "an encoding has only the alphabet and padding");
    require(Base64::decode(text) == input, "bytes survive encoding and decoding");
    return 0;
}
