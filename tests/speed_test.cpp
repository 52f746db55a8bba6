// What is done several bytes a step, against the plain rule a byte at a time.
#include <gtest/gtest.h>

#include <bitset>
#include <clocale>
#include <cstdlib>
#include <random>
#include <vector>

#include "encoding/Base64.h"
#include "platform.h"
#include "protocol/Message.h"
#include "protocol/pbs.h"

namespace {

const std::string PLAIN_ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// In memory of exactly its size, so that the address sanitizer sees what is read behind it: a string has a
// NUL there.
using Bytes = std::vector<unsigned char>;

std::string textOf(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

// Bytes of all small lengths and of lengths about the blocks'.
class Speed : public testing::Test {
  protected:
    template <typename Check>
    void forManySizes(const std::string& alphabet, Check check) {
        for (std::size_t size = 0; size < 5000; size += size < 100 ? 1 : random() % 97) {
            Bytes bytes(size);
            for (auto& byte : bytes) byte = alphabet.empty() ? random() : alphabet[random() % 64];
            SCOPED_TRACE(testing::Message() << size << " bytes");
            check(bytes);
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
    forManySizes("", [&](const Bytes& bytes) {
        const std::size_t start = bytes.empty() ? 0 : random() % bytes.size() % 20;
        unsigned remainder = 0;
        for (const char bit : bitsOf(textOf(bytes).substr(start)) + std::string(16, '0')) {
            remainder = remainder << 1 | (bit == '1' ? 1U : 0U);
            if ((remainder & 0x10000) != 0) remainder ^= 0x11021;
        }
        ASSERT_EQ(pbs::crc16_ccitt(bytes.data() + start, static_cast<int>(bytes.size() - start)), remainder);
    });
}

TEST_F(Speed, AnEncodingOrItsDecodingDiffersAtABlocksEnd) {
    forManySizes("", [](const Bytes& bytes) {
        const std::string text = Base64::encode(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        ASSERT_EQ(text, plainlyEncoded(textOf(bytes)));
        ASSERT_TRUE(Base64::decode(text) == textOf(bytes));
    });
}

TEST_F(Speed, AForeignByteIsReadOrEndsTheTextElsewhere) {
    forManySizes(PLAIN_ALPHABET, [&](const Bytes& bytes) {
        std::string text = textOf(bytes);
        ASSERT_EQ(Base64::decode(text), plainlyDecoded(text));
        if (text.empty()) return;
        text[random() % text.size()] = "=-_ \r\n\t.,\x7F\x80\xFF"[random() % 13];  // the last is the NUL
        ASSERT_EQ(Base64::decode(text), plainlyDecoded(text));
    });
}

// The locale of a Brazilian program of before UTF-8, made for the test, while it lives.
class Latin1 {
  public:
    Latin1() {
        setenv("LOCPATH", ".", 1);
        isThere =
            std::system("localedef -c -i pt_BR -f ISO-8859-1 ./pt_BR.ISO-8859-1 >/dev/null 2>&1") == 0 &&
            std::setlocale(LC_CTYPE, "pt_BR.ISO-8859-1") != nullptr;
    }
    Latin1(const Latin1&) = delete;
    Latin1& operator=(const Latin1&) = delete;
    ~Latin1() {
        std::setlocale(LC_CTYPE, "C");
        unsetenv("LOCPATH");
    }
    bool isThere = false;

  private:
    WorkingDirectory m_folder;
};

TEST_F(Speed, ALetterOfTheLocaleEndsATextOrSpoilsItsNeighbours) {
    const Latin1 locale;
    if (!locale.isThere) GTEST_SKIP() << "no localedef here, or no sources of the locale pt_BR";
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
}

TEST_F(Speed, AHeadReservesWhateverItPromises) {
    const std::string head =
        "smx\r\ncode:C\r\ncontent-size:2147483647\r\nedc-word:0\r\nsource:3\r\nversion:1.0\r\n\r\n\r\n";
    pbs::Message message;
    EXPECT_EQ(message.parse(head.data(), head.size(), nullptr), pbs::Message::PARSER_IN_PROGRESS);
    EXPECT_LE(message.body().capacity(), 2'097'152U);
}

}  // namespace
