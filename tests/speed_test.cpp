// What is done several bytes a step, against the plain rule a byte at a time.
#include <gtest/gtest.h>

#include <bitset>
#include <random>

#include "encoding/Base64.h"
#include "protocol/Message.h"
#include "protocol/pbs.h"

namespace {

const std::string PLAIN_ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Byte strings of all small lengths and of lengths about the blocks', each in memory of its own size.
class Speed : public testing::Test {
  protected:
    template <typename Check>
    void forManyTexts(const std::string& alphabet, Check check) {
        for (std::size_t size = 0; size < 5000; size += size < 100 ? 1 : random() % 97) {
            std::string text(size, '\0');
            for (char& byte : text) byte = alphabet.empty() ? char(random()) : alphabet[random() % 64];
            text.shrink_to_fit();
            SCOPED_TRACE(testing::Message() << size << " bytes");
            check(text);
        }
    }
    std::mt19937 random{std::mt19937::default_seed};
};

std::string bitsOf(const std::string& bytes) {
    std::string bits;
    for (const unsigned char byte : bytes) bits += std::bitset<8>(byte).to_string();
    return bits;
}

std::string plainlyEncoded(const std::string& bytes) {
    std::string bits = bitsOf(bytes), text;
    bits.resize((bits.size() + 5) / 6 * 6, '0');
    for (std::size_t i = 0; i < bits.size(); i += 6)
        text += PLAIN_ALPHABET[std::bitset<6>(bits, i, 6).to_ulong()];
    return text + std::string((4 - text.size() % 4) % 4, '=');
}

std::string plainlyDecoded(const std::string& text) {
    std::string bits, bytes;
    for (const char character : text.substr(0, text.find_first_not_of(PLAIN_ALPHABET)))
        bits += std::bitset<6>(PLAIN_ALPHABET.find(character)).to_string();
    for (std::size_t i = 0; i + 8 <= bits.size(); i += 8)
        bytes += static_cast<char>(std::bitset<8>(bits, i, 8).to_ulong());
    return bytes;
}

TEST_F(Speed, AChecksumDiffersFromThatOfThePolynomial) {
    EXPECT_EQ(pbs::crc16tab[1], 0x1021);
    EXPECT_EQ(pbs::crc16tab[255], 0x1EF0);
    forManyTexts("", [&](const std::string& text) {
        const std::size_t start = text.empty() ? 0 : random() % text.size() % 20;
        unsigned remainder = 0;
        for (const char bit : bitsOf(text.substr(start)) + std::string(16, '0')) {
            remainder = remainder << 1 | (bit == '1' ? 1U : 0U);
            if ((remainder & 0x10000) != 0) remainder ^= 0x11021;
        }
        ASSERT_EQ(pbs::crc16_ccitt(text.data() + start, static_cast<int>(text.size() - start)), remainder);
    });
}

TEST_F(Speed, AnEncodingOrItsDecodingDiffersAtABlocksEnd) {
    forManyTexts("", [](const std::string& bytes) {
        const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
        const std::string text = Base64::encode(data, static_cast<std::uint32_t>(bytes.size()));
        ASSERT_EQ(text, plainlyEncoded(bytes));
        ASSERT_TRUE(Base64::decode(text) == bytes);
    });
}

TEST_F(Speed, AForeignByteIsReadOrEndsTheTextElsewhere) {
    forManyTexts(PLAIN_ALPHABET, [&](std::string text) {
        ASSERT_EQ(Base64::decode(text), plainlyDecoded(text));
        if (text.empty()) return;
        text[random() % text.size()] = "=-_ \r\n\t.,\x7F\x80\xFF"[random() % 13];  // the last is the NUL
        ASSERT_EQ(Base64::decode(text), plainlyDecoded(text));
    });
}

TEST_F(Speed, AHeadReservesWhateverItPromises) {
    const std::string head =
        "smx\r\ncode:C\r\ncontent-size:2147483647\r\nedc-word:0\r\nsource:3\r\nversion:1.0\r\n\r\n\r\n";
    pbs::Message message;
    EXPECT_EQ(message.parse(head.data(), head.size(), nullptr), pbs::Message::PARSER_IN_PROGRESS);
    EXPECT_LE(message.body().capacity(), 2'097'152U);
}

}  // namespace
