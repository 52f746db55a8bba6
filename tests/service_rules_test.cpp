// What an answer proves, and what a device's last document says of the journal.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "encoding/Base64.h"
#include "fiscora.h"
#include "rules/AccessKey.h"
#include "rules/content.h"
#include "rules/rules.h"

namespace {

using namespace fiscorad;
using namespace fiscorad::rules;
using namespace std::chrono_literals;

constexpr char SERIAL[] = "900004019";

/// Digits of the access key of a device's document.
std::string keyOf(int number, const std::string& serial = SERIAL) {
    std::string digits =
        "35261111222333000181"
        "59" +
        serial + std::to_string(1000000 + number).substr(1) + "123456";
    for (char check = '0'; check <= '9'; ++check)
        if (AccessKey::parse(digits + check)) return digits + check;
    return "";
}

constexpr char SENT[] =
    "<CFe><infCFe><ide><CNPJ>16716114000172</CNPJ></ide><dest/><det nItem=\"1\"><prod><xProd>Café</xProd>"
    "</prod></det><det nItem=\"2\"><prod><xProd>Pão de queijo</xProd></prod></det></infCFe></CFe>";

/// What the device makes of SENT, with one text replaced by another.
std::string signedDocument(const std::string& digits, const std::string& text = "",
                           const std::string& other = "") {
    std::string document =
        "<CFe><infCFe Id=\"CFe" + digits +
        "\"><ide><cUF>35</cUF><CNPJ>16716114000172</CNPJ></ide><det nItem=\"1\"><prod>"
        "<xProd>Café</xProd><vItem>1.00</vItem></prod></det><det nItem=\"2\"><prod><xProd>Pão\n de  queijo"
        "</xProd></prod></det><total><vCFe>2.00</vCFe></total></infCFe></CFe>";
    if (const auto at = document.find(text); !text.empty()) document.replace(at, text.size(), other);
    return document;
}

std::string answer(const std::string& session, const std::string& code, const std::string& digits,
                   const std::string& document) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(document.data());
    return session + "|" + code + "|0000|Emitido|||" +
           Base64::encode(bytes, static_cast<std::uint32_t>(document.size())) + "|20261123120000|CFe" +
           digits + "|2.00||assinatura";
}

Trial trial(Kind kind = Kind::Sale) {
    Trial trial;
    trial.kind = kind;
    trial.attempt.session = 123;
    trial.attempt.serial = SERIAL;
    trial.attempt.lastDocument = keyOf(7);
    trial.body = SENT;
    return trial;
}

TEST(AnAnswer, ProvesOnlyWhatBearsTheMarksOfItsAttempt) {
    const std::string good = keyOf(8);
    struct {
        const char* fault;
        int status;
        std::string body;
        Proof::Kind inCall;
        Proof::Kind inStored;
    } const cases[] = {
        {"none", 0, answer("000123", "06000", good, signedDocument(good)), Proof::Kind::Booked,
         Proof::Kind::Booked},
        {"of the question's own session", 0, answer("000777", "06000", good, signedDocument(good)),
         Proof::Kind::None, Proof::Kind::Booked},
        {"of a third session", 0, answer("000124", "06000", good, signedDocument(good)), Proof::Kind::None,
         Proof::Kind::None},
        {"too late", FISCORA_STATUS_TIMEOUT, answer("000123", "06000", good, signedDocument(good)),
         Proof::Kind::None, Proof::Kind::None},
        {"a code of four digits", 0, answer("000123", "6000", good, signedDocument(good)), Proof::Kind::None,
         Proof::Kind::None},
        {"of another operation", 0, answer("000123", "07000", good, signedDocument(good)), Proof::Kind::None,
         Proof::Kind::None},
        {"of another device", 0,
         answer("000123", "06000", keyOf(8, "900004020"), signedDocument(keyOf(8, "900004020"))),
         Proof::Kind::None, Proof::Kind::None},
        {"not later than the last document", 0, answer("000123", "06000", keyOf(7), signedDocument(keyOf(7))),
         Proof::Kind::None, Proof::Kind::None},
        {"a wrong check digit", 0, answer("000123", "06000", good.substr(0, 43) + "x", signedDocument(good)),
         Proof::Kind::None, Proof::Kind::None},
        {"another document inside", 0, answer("000123", "06000", good, signedDocument(keyOf(9))),
         Proof::Kind::None, Proof::Kind::None},
        {"other content", 0, answer("000123", "06000", good, signedDocument(good, "Café", "Chá")),
         Proof::Kind::None, Proof::Kind::None},
        {"a refusal, perhaps another's", 0, "000123|06010|1999|Erro de validação do conteúdo||",
         Proof::Kind::Refused, Proof::Kind::None},
        {"a busy device", 0, "000123|06098|0000|SAT em processamento||", Proof::Kind::None,
         Proof::Kind::None},
        {"nothing", 0, "", Proof::Kind::None, Proof::Kind::None},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.fault);
        EXPECT_EQ(proofInCall(trial(), {row.status, 123, row.body}).kind, row.inCall);
        EXPECT_EQ(proofInStoredAnswer(trial(), {row.status, 777, row.body}).kind, row.inStored);
    }
    const Booking booking = proofInCall(trial(), {0, 123, cases[0].body}).booking;
    EXPECT_EQ(booking.accessKey, "CFe" + good);
    EXPECT_EQ(booking.document, signedDocument(good));
    EXPECT_EQ(booking.answer, "000123|06000|0000|Emitido||||20261123120000|CFe" + good + "|2.00||assinatura");
    EXPECT_EQ(proofInCall(trial(), {FISCORA_STATUS_BAD_REQUEST, 123, ""}).kind, Proof::Kind::NothingSent);
}

TEST(Content, IsThatWhichWasSentWhateverTheDeviceAdds) {
    const std::string device = signedDocument(keyOf(8));
    EXPECT_TRUE(hasContentOf(device, SENT, ""));
    EXPECT_FALSE(hasContentOf(device, SENT, "CFe" + keyOf(7))) << "not a cancellation of that sale";
    EXPECT_FALSE(hasContentOf(signedDocument(keyOf(8), "<xProd>Café</xProd>"), SENT, ""))
        << "a text is missing";
    EXPECT_FALSE(hasContentOf(device.substr(0, 60), SENT, "")) << "cut off";
    EXPECT_FALSE(hasContentOf(device, "not XML", ""));
    const std::string latin1 = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a><b>Caf\xE9</b></a>";
    EXPECT_TRUE(hasContentOf("<a><b>Café</b></a>", latin1, "")) << "the same text in another encoding";
    EXPECT_TRUE(hasContentOf("<a><b>Caf\xE9</b></a>", latin1, "")) << "its bytes, without its declaration";
    EXPECT_FALSE(hasContentOf("<a><b>Caf\xE8</b></a>", latin1, ""));
}

TEST(ADevice, StandsToTheJournalByItsLastDocument) {
    const DeviceRecord record{SERIAL, keyOf(7), keyOf(8)};
    struct {
        const char* what;
        DeviceRecord record;
        std::string shown;
        int open;
        Standing standing;
    } const cases[] = {
        {"the last document", record, keyOf(7), 0, Standing::Explained},
        {"the cancellation after it", record, keyOf(8), 0, Standing::Explained},
        {"the next number with one attempt", {SERIAL, keyOf(7), ""}, keyOf(8), 1, Standing::PerhapsAttempt},
        {"the next number after a cancellation that counts", record, keyOf(9), 1, Standing::PerhapsAttempt},
        {"the next number without an attempt", {SERIAL, keyOf(7), ""}, keyOf(8), 0, Standing::Unexplained},
        {"the next number with two attempts", {SERIAL, keyOf(7), ""}, keyOf(8), 2, Standing::Unexplained},
        {"two numbers later", {SERIAL, keyOf(7), ""}, keyOf(9), 1, Standing::Unexplained},
        {"an earlier number", {SERIAL, keyOf(7), ""}, keyOf(6), 1, Standing::Unexplained},
        {"no document any more", {SERIAL, keyOf(7), ""}, "", 1, Standing::Unexplained},
        {"a new device's first document", {SERIAL, "", ""}, keyOf(1), 1, Standing::PerhapsAttempt},
        {"a new device", {SERIAL, "", ""}, "", 0, Standing::Explained},
        {"the first number after the last",
         {SERIAL, keyOf(999999), ""},
         keyOf(1),
         1,
         Standing::PerhapsAttempt},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(standingOf({SERIAL, row.shown}, row.record, row.open), row.standing);
    }
}

TEST(AnAttempt, IsNotBookedOnlyAfterAllOfItsConditionsInOrder) {
    constexpr auto TIMEOUT = 10s;  // of a sale
    const Clock::time_point start{1h};
    const Reply unknown{0, 777, "000777|11003|Sessão não existe||"};
    const Reply other{0, 777, "000777|08000|SAT em Operação||"};
    const Reply busy{0, 777, "000777|11098|SAT em processamento||"};
    const Reply refused{0, 777, "000777|11002|Erro||"};
    const Reply refusal{0, 777, "000123|06010|1999|Erro||"};
    struct Asked {
        Clock::duration after;
        Reply reply;
    };
    struct {
        const char* what;
        Kind kind;
        std::vector<Asked> asked;
        std::string lastDocument;
        bool ownNode;
        Conclusion conclusion;
    } const cases[] = {
        {"twice unknown",
         Kind::Sale,
         {{TIMEOUT, unknown}, {TIMEOUT + 2s, unknown}},
         keyOf(7),
         true,
         Conclusion::NotBooked},
        {"once unknown", Kind::Sale, {{TIMEOUT, unknown}}, keyOf(7), true, Conclusion::Open},
        {"asked too soon",
         Kind::Sale,
         {{TIMEOUT - 1s, unknown}, {TIMEOUT + 2s, unknown}},
         keyOf(7),
         true,
         Conclusion::Open},
        {"too close together",
         Kind::Sale,
         {{TIMEOUT, unknown}, {TIMEOUT + 1s, unknown}},
         keyOf(7),
         true,
         Conclusion::Open},
        {"busy in between",
         Kind::Sale,
         {{TIMEOUT, unknown}, {TIMEOUT + 2s, busy}},
         keyOf(7),
         true,
         Conclusion::Open},
        {"a refused question",
         Kind::Sale,
         {{TIMEOUT, unknown}, {TIMEOUT + 2s, refused}},
         keyOf(7),
         true,
         Conclusion::Open},
        {"the device has gone on",
         Kind::Sale,
         {{TIMEOUT, unknown}, {TIMEOUT + 2s, unknown}},
         keyOf(8),
         true,
         Conclusion::Undecided},
        {"refused, and then forgotten",
         Kind::Sale,
         {{1s, refusal}, {TIMEOUT, unknown}, {TIMEOUT + 2s, unknown}},
         keyOf(7),
         true,
         Conclusion::Refused},
        {"refused, before the device is surely done",
         Kind::Sale,
         {{1s, refusal}, {TIMEOUT, refusal}},
         keyOf(7),
         true,
         Conclusion::Open},
        {"refused, and the device has gone on",
         Kind::Sale,
         {{TIMEOUT, refusal}, {TIMEOUT + 2s, refusal}},
         keyOf(8),
         true,
         Conclusion::Undecided},
        {"another host's attempt",
         Kind::Sale,
         {{TIMEOUT, unknown}, {TIMEOUT + 2s, unknown}},
         keyOf(7),
         false,
         Conclusion::Undecided},
        {"a cancellation",
         Kind::Cancellation,
         {{TIMEOUT, unknown}, {TIMEOUT + 2s, unknown}},
         keyOf(7),
         true,
         Conclusion::Undecided},
        {"another operation's answer",
         Kind::Sale,
         {{TIMEOUT, other}, {TIMEOUT + 2s, unknown}},
         keyOf(7),
         true,
         Conclusion::Undecided},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        Trial attempt = trial(row.kind);
        attempt.ownNode = row.ownNode;
        Inquiry inquiry;
        inquiry.openSince = start;
        for (const Asked& asked : row.asked)
            inquiry = afterStoredAnswer(inquiry, attempt, asked.reply, start + asked.after);
        EXPECT_EQ(conclude(attempt, inquiry, {SERIAL, row.lastDocument}), row.conclusion);
    }
    EXPECT_EQ(conclude(trial(), {}, {"900004020", ""}), Conclusion::Undecided)
        << "another device in its place";
    EXPECT_EQ(nameOf(afterNotBooked(2)), "na-fila");
    EXPECT_EQ(nameOf(afterNotBooked(3)), "a-decidir") << "a document may crash its device";
}

}  // namespace
