// The loops that take several bytes per step, against the plain rule for one byte at a time.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <random>
#include <vector>

#include "encoding/Base64.h"
#include "plain_rules.h"
#include "platform.h"
#include "protocol/Message.h"
#include "protocol/pbs.h"

namespace {

// Memory of exactly its size, unlike a string's, so that the address sanitizer sees a read past the end.
using Bytes = std::vector<unsigned char>;

std::mt19937 g_random;

/// Calls `check` with random bytes of all small sizes and of larger ones on both sides of a block's end.
template <typename Check>
void forManySizes(Check check) {
    for (std::size_t size = 0; size < 5000; size += size < 100 ? 1 : g_random() % 97) {
        Bytes bytes(size);
        for (auto& byte : bytes) byte = g_random();
        SCOPED_TRACE(testing::Message() << size << " bytes");
        check(bytes);
    }
}

TEST(Speed, AChecksumIsTheRemainderByItsPolynomial) {
    EXPECT_EQ(pbs::crc16tab[1], 0x1021);
    EXPECT_EQ(pbs::crc16tab[255], 0x1EF0);
    forManySizes([](const Bytes& bytes) {
        const std::size_t start = bytes.empty() ? 0 : g_random() % bytes.size() % 20;
        const std::string plain(bytes.begin() + start, bytes.end());
        ASSERT_EQ(pbs::crc16_ccitt(bytes.data() + start, static_cast<int>(plain.size())), plainCrc(plain));
    });
}

TEST(Speed, ATextIsDecodedUpToItsFirstForeignByte) {
    forManySizes([](const Bytes& bytes) {
        std::string text = Base64::encode(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        const std::string plain(bytes.begin(), bytes.end());
        ASSERT_EQ(text.size(), (bytes.size() + 2) / 3 * 4);
        ASSERT_EQ(text.find_first_not_of(BASE64_ALPHABET + "="), std::string::npos);
        ASSERT_EQ(plainlyDecoded(text), plain);
        ASSERT_EQ(Base64::decode(text), plain);
        if (text.empty()) return;
        text[g_random() % text.size()] = "=-_ \r\n\t.,\x7F\x80\xFF"[g_random() % 13];  // the last is the NUL
        ASSERT_EQ(Base64::decode(text), plainlyDecoded(text));
        text.resize(g_random() % text.size());
        ASSERT_EQ(Base64::decode(text), plainlyDecoded(text));
    });
}

TEST(Speed, ALetterOfTheLocaleCountsAsTheAlphabetsLast) {
    const WorkingDirectory folder;  // of a locale as a Brazilian program from before UTF-8 has it
    setenv("LOCPATH", ".", 1);
    if (std::system("localedef -c -i pt_BR -f ISO-8859-1 ./pt_BR.ISO-8859-1 >/dev/null 2>&1") != 0 ||
        std::setlocale(LC_CTYPE, "pt_BR.ISO-8859-1") == nullptr)
        GTEST_SKIP() << "no localedef here, or no sources of the locale pt_BR";
    ASSERT_TRUE(Base64::is_base64(0xE7));
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        for (std::size_t place = 4; place < 8; ++place) {
            std::string text = "TWFuQUJDTWFu", asLastOfAlphabet = text;
            text[place] = static_cast<char>(byte);
            asLastOfAlphabet[place] = '/';
            const bool isLetter = Base64::is_base64(static_cast<unsigned char>(byte));
            ASSERT_EQ(Base64::decode(text), plainlyDecoded(isLetter ? asLastOfAlphabet : text))
                << byte << " at " << place;
        }
    }
    std::setlocale(LC_CTYPE, "C");
}

TEST(Speed, AHeadReservesLittleOfWhatItPromises) {
    const std::string head =
        "smx\r\ncode:C\r\ncontent-size:2147483647\r\nedc-word:0\r\nsource:3\r\nversion:1.0\r\n\r\n\r\n";
    pbs::Message message;
    EXPECT_EQ(message.parse(head.data(), head.size(), nullptr), pbs::Message::PARSER_IN_PROGRESS);
    EXPECT_LE(message.body().capacity(), 2'097'152U);
}

}  // namespace
