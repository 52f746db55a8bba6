#include <dlfcn.h>
#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>

#include "fiscal/UCManipulaDadosSat.h"
#include "fiscora.h"
#include "platform.h"

namespace {

using std::bind, std::placeholders::_1, std::placeholders::_2, std::placeholders::_3;
using std::string_literals::operator""s;
using Sat = manipulaDados::ManipulaDadosSat;
using Text = const char*;

Sat* const SAT = &objManipulaDadosSat;

/// The library's g_resp. Naming the symbol would move it into this program, away from the zero after it.
char* const RESP = static_cast<char*>(dlsym(RTLD_DEFAULT, "g_resp"));

/// What a buffer holds up to its last byte that is not zero.
std::string contentOf(const char* buffer, size_t size) {
    const std::string all(buffer, size);
    return all.substr(0, all.find_last_not_of('\0') + 1);
}
std::string respContent() { return contentOf(RESP, sizeof g_resp); }

const struct Operation {
    std::string name, request;  ///< the request for the texts "a", "bb" and "ccc"
    int timeoutS;
    size_t buffer;  ///< of the request, in bytes, its terminating zero included
    std::function<char*(Text, Text, Text)> call;
    int documentField = 0;
    // clang-format off
} OPERATIONS[] = {
    {"AtivarSAT", "000001|1|a|bb|35", 302, 64, bind(AtivarSAT, 1, 65537, _1, _2, 65571)},
    {"AtivarSAT", "000001|65537|a|bb|05", 302, 64, bind(&Sat::AtivarSAT, SAT, 1, 65537, _1, _2, 5)},
    {"ComunicarCertificadoICPBRASIL", "000123|a|bb", 302, 2096, bind(ComunicarCertificadoICPBRASIL, 123, _1, _2)},
    {"EnviarDadosVenda", "000123|a|bb", 10, 1572904, bind(EnviarDadosVenda, 123, _1, _2), 6},
    {"ConsultarSAT", "000005", 6, 16, bind(ConsultarSAT, 5)},
    {"CancelarUltimaVenda", "000123|a|bb|ccc", 7, 1572952, bind(CancelarUltimaVenda, 123, _1, _2, _3), 6},
    {"TesteFimAFim", "000123|a|bb", 22, 1572904, bind(TesteFimAFim, 123, _1, _2)},
    {"ConsultarStatusOperacional", "1234567|a", 20, 48, bind(ConsultarStatusOperacional, 1234567, _1)},
    {"ConsultarUltimaSessaoFiscal", "000123|a", 22, 48, bind(&Sat::ConsultarUltimaSessaoFiscal, SAT, 123, _1)},
    {"ConsultarStatusOperacionalMFE", "000123|a", 20, 48, bind(&Sat::ConsultarStatusOperacionalMFE, SAT, 123, _1)},
    {"ConsultarNumeroSessao", "-00005|a|065571", 22, 48, bind(ConsultarNumeroSessao, -5, _1, 65571)},
    {"ConfigurarInterfaceDeRede", "000123|a|bb", 22, 1072, bind(ConfigurarInterfaceDeRede, 123, _1, _2)},
    {"ConfigurarInterfaceDeRedeMFE", "000123|a|bb", 22, 1072, bind(&Sat::ConfigurarInterfaceDeRedeMFE, SAT, 123, _1, _2)},
    {"AssociarAssinatura", "000123|a|bb|ccc", 900, 2128, bind(AssociarAssinatura, 123, _1, _2, _3)},
    {"AtualizarSoftwareSAT", "000123|a", 1800, 48, bind(AtualizarSoftwareSAT, 123, _1)},
    {"ExtrairLogs", "000123|a", 22, 48, bind(ExtrairLogs, 123, _1), 5},
    {"BloquearSAT", "000123|a", 302, 48, bind(BloquearSAT, 123, _1)},
    {"DesbloquearSAT", "000123|a", 22, 48, bind(DesbloquearSAT, 123, _1)},
    {"TrocarCodigoDeAtivacao", "000123|a|65535|bb|ccc", 22, 112, bind(TrocarCodigoDeAtivacao, 123, _1, -1, _2, _3)},
    {"ReiniciarMFE", "000123|a", 17, 48, bind(&Sat::ReiniciarMFE, SAT, 123, _1)},
    {"EnviarStatusAC", "000123|a|bb|ccc", 7, 80, bind(&Sat::EnviarStatusAC, SAT, 123, _1, _2, _3)},
};
// clang-format on

class Fiscal : public testing::Test {
  protected:
    Fiscal() {
        m_line.answers = [this](pbs::Message& command) {
            m_command = command;
            pbs::Message answer(command.code(), "1");
            answer.setBody(m_answer);
            return std::vector{answer};
        };
    }
    std::string sent(Text) const { return m_command.body(); }

    WorkingDirectory m_folder;
    FakeLine m_line;
    std::string m_answer;
    pbs::Message m_command;  ///< the last that reached the device
};

TEST_F(Fiscal, AnOperationSendsItsRequestAndWaitsItsTime) {
    for (const auto& operation : OPERATIONS) {
        m_line.readings.assign(2000, {"x", 0, 1000});  // the device babbles, and its answer comes too late
        const long start = m_line.nowMs();
        EXPECT_EQ(sent(operation.call("a", "bb", "ccc")), operation.request);
        EXPECT_EQ(m_command.code(), operation.name);
        constexpr int PAUSES_MS = 1100;
        EXPECT_EQ(m_line.nowMs() - start, 1000 * operation.timeoutS + PAUSES_MS) << operation.name;
    }
    m_line.calls.clear();
    CloseSerial();
    EXPECT_STREQ(getVersion(), "01.00.01.001");
    EXPECT_THAT(m_line.calls, testing::IsEmpty()) << "neither needs the device";
}

TEST_F(Fiscal, EachDocumentStaysInItsOwnBuffer) {
    for (const auto* document : {"longer", "x"}) {
        EnviarDadosVenda(1, "venda", document);
        CancelarUltimaVenda(1, "cancela", "k", document);
        TesteFimAFim(1, "fim", document);
        EXPECT_EQ(contentOf(g_bufferVenda, sizeof g_bufferVenda), "000001|venda|"s + document);
        EXPECT_EQ(contentOf(g_bufferCancela, sizeof g_bufferCancela), "000001|cancela|k|"s + document);
        EXPECT_EQ(contentOf(g_bufferFimAFim, sizeof g_bufferFimAFim), "000001|fim|"s + document);
    }
}

TEST_F(Fiscal, ARequestIsSentWholeOrRefused) {
    for (const auto& operation : OPERATIONS) {
        for (const size_t i : {0, 1, 2}) {
            SCOPED_TRACE(testing::Message() << operation.name << ", text " << i);
            std::array<Text, 3> texts = {"a", "bb", "ccc"};
            const size_t place = operation.request.find("|"s + texts[i]);
            if (place == std::string::npos) continue;
            std::string text(operation.buffer - 1 - operation.request.size() + i + 1, 'x');
            texts[i] = text.c_str();
            EXPECT_EQ(sent(std::apply(operation.call, texts)),
                      std::string(operation.request).replace(place + 1, i + 1, text));
            text += 'x';
            for (const Text refused : {text.c_str(), Text()}) {
                texts[i] = refused;
                std::strcpy(RESP, "before");
                m_line.calls.clear();
                EXPECT_EQ(std::apply(operation.call, texts), RESP);
                EXPECT_EQ(respContent(), "");
                EXPECT_THAT(m_line.calls, testing::IsEmpty()) << "no search, no write, no pause";
                EXPECT_EQ(CodigoErro(), FISCORA_STATUS_BAD_REQUEST);
            }
        }
    }
    for (const auto* buffer : {g_bufferVenda, g_bufferCancela, g_bufferFimAFim})
        EXPECT_STREQ(buffer, "") << "a part of a refused request, with its activation code, stays";
}

TEST_F(Fiscal, AnAnswerIsTerminatedAndLeavesNothingOfTheLast) {
    for (const auto& answer : {std::string(FISCORA_ANSWER_MAX_BYTES, 'x'), "1|a\0b|c"s, ""s, "x"s}) {
        m_answer = answer;
        EXPECT_EQ(std::strlen(ConsultarSAT(1)), std::strlen(answer.c_str()));
        EXPECT_EQ(respContent(), answer);
    }
    m_line.listing = "";
    EXPECT_EQ(ConsultarSAT(1), RESP);
    EXPECT_EQ(respContent(), "");
    EXPECT_EQ(CodigoErro(), FISCORA_STATUS_NO_ANSWER);
}

TEST_F(Fiscal, ADocumentIsTakenFromItsField) {
    const std::tuple<Text, Text, std::map<int, std::string>> cases[] = {
        {"0|1|||4", "0\n1\n\n\n4\n", {}},
        {"0|1|2|3|4|NQ==|", "0\n1\n2\n3\n4\nNQ==\n", {{5, "5"}}},
        {"0|1|2|3|4|NQ==|Ng==|", "0\n1\n2\n3\n4\nNQ==\nNg==\n", {{5, "5"}, {6, "6"}}},
        {"|1|2|3|4||Ng==|7", "\n1\n2\n3\n4\n\nNg==\n7\n", {{6, "6"}}},
        {"", "", {}}};
    for (const auto& operation : OPERATIONS) {
        operation.call(nullptr, nullptr, nullptr);  // a refused operation counts as the last one too
        for (auto [answer, printed, documents] : cases) {
            SCOPED_TRACE(operation.name + " " + answer);
            std::strcpy(RESP, answer);
            testing::internal::CaptureStdout();
            EXPECT_EQ(Base64ToAscii(), documents[operation.documentField]);
            EXPECT_EQ(testing::internal::GetCapturedStdout(), printed);
        }
    }
}

TEST_F(Fiscal, OnlyACancellationLengthensItsFirstEmptyElements) {
    const std::string tags = "<CNPJ/><CPF/><CNPJ/><CPF/><cnpj/><CPF />";
    const std::string full = "<CPF/>" + std::string(sizeof g_bufferCancela - 18, 'x');  // outgrows its buffer
    EXPECT_EQ(sent(CancelarUltimaVenda(1, "<CPF/>", "", tags.c_str())),
              "000001|<CPF></CPF>||<CNPJ></CNPJ>" + tags.substr(7));
    EXPECT_EQ(sent(CancelarUltimaVenda(1, "a", "b", full.c_str())),
              "000001|a|b|<CPF></CPF>" + full.substr(6));
    EXPECT_EQ(sent(EnviarDadosVenda(1, "a", tags.c_str())), "000001|a|" + tags);
    EXPECT_EQ(sent(TesteFimAFim(1, "a", tags.c_str())), "000001|a|" + tags);
}

TEST_F(Fiscal, NoActivationCodeReachesTheLog) {
    const Text code = "segredo-1234";
    std::filesystem::create_directory("logsDrs");
    for (const auto* answer : {"000007|06000|0000|Ok|", "000007|06001||Errado|"}) {
        m_answer = answer;
        for (const auto& operation : OPERATIONS) operation.call(code, code, code);
    }
    m_line.answers = [](auto&) { return std::vector(6, compressedMessage("Other", "000007|06000|")); };
    for (const auto& operation : OPERATIONS) operation.call(code, code, code);
    m_line.answers = nullptr;
    for (const auto& operation : OPERATIONS) operation.call(code, code, code);
    const auto lines = m_folder.logLines();
    EXPECT_GT(lines.size(), 4 * 5 * std::size(OPERATIONS));
    EXPECT_THAT(lines, testing::Each(testing::Not(testing::HasSubstr(code))));
}

}  // namespace
