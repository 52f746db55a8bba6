// The device protocol: the message, its frame, the parser that reads it back, and compression.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <ostream>
#include <random>
#include <tuple>
#include <vector>

#include "encoding/Base64.h"
#include "plain_rules.h"
#include "platform.h"
#include "protocol/Message.h"
#include "protocol/pbs.h"

namespace pbs {

void PrintTo(const Message& message, std::ostream* stream) { *stream << Message(message).toString(); }

}  // namespace pbs

namespace {

using pbs::Message;
// What a call of `parse` returned, the bytes it took, and what lastParsingState says then.
using Outcome = std::tuple<Message::ParserState, unsigned long, std::string, int>;
constexpr auto IN_PROGRESS = Message::PARSER_IN_PROGRESS, READY = Message::PARSER_MESSAGE_READY,
               SYNTAX_ERROR = Message::PARSER_SYNTAX_ERROR, CHECKSUM_ERROR = Message::PARSER_CHECKSUM_ERROR;

// A head as it stands on the wire; each of `lines` ends in "\n".
std::string head(const std::string& lines) {
    std::string wire;
    for (const char byte : "smx\n" + lines + "\n\n") wire += byte == '\n' ? "\r\n" : std::string(1, byte);
    return wire;
}

const std::string PLAIN = "123456";  // its CRC is 8420
const std::string DEFLATED("\x78\xDA\x33\x34\x32\x36\x31\x35\x03\x00\x04\x2E\x01\x36", 14);
const std::string PLAIN_HEAD = head(
    "code:ConsultarSAT\ncontent-size:6\ncontent-type:octet-stream\ndrs-version:01.00.01.001\n"
    "edc-type:crc16-ccitt\nedc-word:8420\nsource:3\nversion:1.0\n");
const std::string DEFLATED_HEAD = head(
    "code:ConsultarSAT\ncontent-size:14\ncontent-type:z-compressed\ncontent-uncompressed-size:6\n"
    "drs-version:01.00.01.001\nedc-type:crc16-ccitt\nedc-word:4375\nsource:3\nversion:1.0\n");
const std::string EMPTY = "code:C\ncontent-size:0\nedc-type:crc16-ccitt\nedc-word:0\nsource:9\nversion:1.0\n";

Message command() {
    Message message("ConsultarSAT", "3");
    message.addHeader("drs-version", "01.00.01.001");
    message.setBody(PLAIN);
    return message;
}

Outcome feed(Message& message, const std::string& bytes) {
    Outcome outcome;
    auto& [result, consumed, lastText, lastState] = outcome;
    result = message.parse(bytes.data(), bytes.size(), &consumed);
    message.lastParsingState(lastText, lastState);
    return outcome;
}

// Result, code, source and body after a frame with these header lines.
std::string judge(const std::string& lines, const std::string& body = "") {
    Message message;
    const auto result = std::get<0>(feed(message, head(lines) + body));
    return std::to_string(result) + message.code() + message.sourceId() + message.body();
}

TEST(Message, HeadersAreSortedAndCannotBeForged) {
    Message message;
    message.removeHeader("absent");
    EXPECT_EQ(message.header("absent"), "");
    EXPECT_EQ(message, Message("0", "0"));
    message.setCode(-1), message.setSourceId(7);
    for (const char* key : {"a:b", "a\r", "a\nb"}) message.addHeader(key, "forged");
    for (const char* value : {"1\r\nsource:X", "\r", "1\n"}) message.addHeader("code", value);
    for (const char* key : {"\xC3", "codes", "Z", "cod"}) message.addHeader(key, "");
    const std::string lines = "code:-1\ncodes:\nedc-type:crc16-ccitt\nedc-word:0\nsource:7\nversion:1.0\n";
    EXPECT_EQ("-17" + head("Z:\ncod:\n" + lines + "\xC3:\n"),
              message.code() + message.sourceId() + message.toString());
}

TEST(Message, CopiesAreIndependentAndEveryDifferenceCounts) {
    const Message original = command();
    Message changed[] = {original, original, original, original, original};
    changed[0].setCode("X"), changed[0].addHeader("code", "ConsultarSAT");
    changed[1].setSourceId("X"), changed[1].addHeader("source", "3");
    changed[2].removeHeader("drs-version"), changed[2].addHeader("drs-w", "01.00.01.001");
    changed[3].addHeader("drs-version", "");
    changed[4].setBody("123457");
    for (const Message& copy : changed) EXPECT_FALSE(copy == original) << "change " << &copy - changed;
}

TEST(Frame, EachByteStandsInItsPlace) {
    Message message = command();
    message.addHeader("edc-word", "1");  // must not survive
    EXPECT_EQ(PLAIN_HEAD, message.headers());
    EXPECT_EQ(PLAIN_HEAD + PLAIN, message.toString());
    ASSERT_EQ(0, message.compress());
    EXPECT_EQ(DEFLATED_HEAD + DEFLATED, message.toString());
    EXPECT_EQ(head("code:0\nedc-type:crc16-ccitt\nedc-word:0\nsource:0\nversion:1.0\n"), Message().headers());
    EXPECT_EQ(0x31C3, pbs::crc16_ccitt("123456789", 9));
    for (const int length : {0, -1}) EXPECT_EQ(0, pbs::crc16_ccitt(nullptr, length));
}

TEST(Parser, AnAttemptEndsAlikeHoweverTheStreamIsCut) {
    // Bytes before the attempt, its head, its body, the result, and the state in which it ends.
    const std::tuple<std::string, std::string, std::string, Message::ParserState, int> attempts[] = {
        {"?", "ss", "", IN_PROGRESS, 2},
        {"", "sm\r", "", IN_PROGRESS, 3},
        {"", "smxs", "", IN_PROGRESS, 4},
        {"mx\r\n", "smx\r\r", "", IN_PROGRESS, 5},
        {"", "x", "", IN_PROGRESS, 1},
        {"", PLAIN_HEAD, PLAIN, READY, 8},
        {"", PLAIN_HEAD, "smx\r\n\r", CHECKSUM_ERROR, 8},
        {std::string(5000, '\0'), head(EMPTY), "", READY, 9},
        {"", "smx\r\ncode:b\n\r\n\r\n\r\r", "", SYNTAX_ERROR, 7},
        {"", head("\n"), "", SYNTAX_ERROR, 7},
        {"", DEFLATED_HEAD, DEFLATED, READY, 8},
        {"", head("a:b:c \n:2\nlate:3\n"), "", SYNTAX_ERROR, 7},
    };
    Message message;
    for (const auto& [stray, text, body, result, state] : attempts) {
        const std::string wire = stray + text + body;
        const Message before = message;
        for (std::size_t cut = stray.size(); cut < wire.size(); ++cut) {
            SCOPED_TRACE(text + std::to_string(cut));
            message = before;
            ASSERT_EQ(IN_PROGRESS, message.parse(wire.data(), cut, nullptr));
            ASSERT_EQ(cut < stray.size() + text.size(), message == before);
            Message copy(message), &alias = message;
            message = alias;
            ASSERT_EQ(feed(message, ""), feed(copy, ""));
            const std::string rest = wire.substr(cut);
            ASSERT_EQ(Outcome(result, rest.size(), text, state), feed(message, rest));
            if (result == READY) {
                ASSERT_EQ(Message(message).toString(), text + body);
            }
            if (text.back() != '\n') {
                ASSERT_EQ(message, before);
            }
            if (cut > stray.size() && cut < stray.size() + text.size()) continue;  // the copy lacks the head
            Outcome last;
            for (const char byte : rest) last = feed(copy, std::string(1, byte));
            ASSERT_EQ(last, Outcome(result, 1, cut > stray.size() ? "" : text, state));
            ASSERT_EQ(copy, message);
        }
    }
    EXPECT_EQ("b:c 2", message.header("a") + message.header("")) << "lines up to the refused one stay";
    EXPECT_EQ("ConsultarSAT3" + DEFLATED, message.code() + message.sourceId() + message.body());
}

TEST(Parser, TheCounterIsAddedToAndNullTakesNothing) {
    Message message;
    unsigned long consumed = 100;
    EXPECT_EQ(IN_PROGRESS, message.parse(PLAIN_HEAD.data(), 7, &consumed));
    EXPECT_EQ(SYNTAX_ERROR, message.parse(nullptr, 0, &consumed));
    EXPECT_EQ(107u, consumed);
    EXPECT_EQ(Outcome(IN_PROGRESS, 0, "", 0), feed(message, ""));
    EXPECT_EQ(Outcome(READY, 156, PLAIN_HEAD, 8), feed(message, PLAIN_HEAD.substr(7) + PLAIN + PLAIN));
}

TEST(Parser, AHeadHasAtMost4097Bytes) {
    for (const std::size_t size : {4096, 4097, 4098, 4099, 5000}) {
        const auto wire = head(EMPTY + "a:" + std::string(size - head(EMPTY + "a:\n").size(), '?') + "\n");
        const std::size_t taken = size == 4099 ? 4098 : 4097;  // an LF may pass
        const Outcome fits(READY, size, wire, 9), refused(SYNTAX_ERROR, taken, wire.substr(0, taken), 6);
        Message message;
        EXPECT_EQ(feed(message, wire), size < 4098 ? fits : refused) << size;
    }
}

TEST(Head, OnlyACompleteHeadOfVersion1IsAccepted) {
    for (const auto& lines : {"code:X\n" + EMPTY, EMPTY + "\nx\n"}) EXPECT_EQ("1C9", judge(lines)) << lines;
    for (const char* line : {"version:1.00\n", "version: 1.0\n", "code:\n", ":x\n", "x\n"})
        EXPECT_EQ("200", judge(EMPTY + line)) << line;
    for (const char* key : {"version", "content-size", "code", "source", "edc-word"})
        EXPECT_EQ("200", judge(std::string(EMPTY).insert(EMPTY.find(key), "X"))) << key;
    EXPECT_EQ("200", judge("x:y\n\n" + EMPTY));
}

TEST(Head, NumbersAreReadByStrtolAndCutTo32Bits) {
    const auto read = [](const std::string& size, const std::string& word) {
        return judge(EMPTY + "edc-type:?\ncontent-size:" + size + "\nedc-word:" + word + "\n", PLAIN);
    };
    for (const char* n : {"006", " \t+6x", "4294967302"}) EXPECT_EQ("1C9123456", read(n, "8420")) << n;
    for (const char* n : {"abc", "0x10", "- 6"}) EXPECT_EQ("1C9", read(n, "1")) << n;
    for (const char* n : {"-6", "2147483648", "9223372036854775808"}) EXPECT_EQ("200", read(n, "1")) << n;
    for (const char* n : {"08420 ", "4294975716"}) EXPECT_EQ("1C9123456", read("6", n)) << n;
    for (const char* n : {"0x20E4", "73956", "-57116", "abc"}) EXPECT_EQ("3C9123456", read("6", n)) << n;
}

TEST(Compression, AMessageComesBackAndIsCompressedOnce) {
    for (const std::string& body : {std::string(), std::string(300000, '\0') + "x"}) {
        Message message;
        EXPECT_EQ(Message::WRONG_CONTENT_TYPE, message.compress());
        EXPECT_TRUE(message.hasHeader("content-type"));
        EXPECT_FALSE(message.isCompressed());
        message.setBody(body.data(), body.size());
        const Message plain = message;
        EXPECT_EQ(Message::WRONG_CONTENT_TYPE, message.uncompress());
        EXPECT_EQ(0, message.compress());
        EXPECT_EQ(Message::WRONG_CONTENT_TYPE, message.compress());
        EXPECT_TRUE(message.isCompressed());
        EXPECT_EQ(0, message.uncompress());
        EXPECT_EQ(message, plain);
        EXPECT_EQ(body, std::string(message.bodyAsCString(), message.bodySize()));
    }
}

TEST(Compression, TheAnnouncedSizeBoundsTheBodyAndAFailureKeepsIt) {
    const std::pair<const char*, int> cases[] = {{"6", 0},  {"4294967302", 0}, {"20971519", 0},
                                                 {"5", -5}, {"20971520", -4},  {"-1", -4}};
    for (const auto& [announced, result] : cases) {
        Message message = command();
        EXPECT_EQ(0, message.compress());
        message.addHeader("content-uncompressed-size", announced);
        const Message before = message;
        EXPECT_EQ(result, message.uncompress()) << announced;
        EXPECT_EQ(message, result == 0 ? command() : before) << announced;
    }
    Message corrupt = command();
    corrupt.addHeader("content-type", "z-compressed");
    EXPECT_EQ(-3, corrupt.uncompress());
    EXPECT_TRUE(corrupt.isCompressed()) << "an absent size has to be left empty";
    EXPECT_EQ(corrupt.body(), PLAIN);
    corrupt.setBody(DEFLATED);
    EXPECT_TRUE(corrupt.isCompressed()) << "a new body has to leave content-uncompressed-size";
}

// The loops that take several bytes per step, against the plain rule for one byte at a time.

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
    Message message;
    EXPECT_EQ(message.parse(head.data(), head.size(), nullptr), IN_PROGRESS);
    EXPECT_LE(message.body().capacity(), 2'097'152U);
}

}  // namespace
