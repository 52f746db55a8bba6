// Functions of the library that only use memory, each as NAME/ours, and another library's function that does
// the same, as NAME/theirs.

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <boost/crc.hpp>
#include <cstring>
#include <random>
#include <string>

#include "encoding/Base64.h"
#include "fiscora.h"
#include "protocol/Message.h"
#include "protocol/pbs.h"
#include "sale_document.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

constexpr int BYTES = FISCORA_ANSWER_MAX_BYTES;
constexpr unsigned long READ_BYTES = 8192;

const std::string& sale() {
    static const std::string document = saleDocument(BYTES);
    return document;
}

const unsigned char* bytesOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string randomBytes() {
    std::mt19937 random{std::mt19937::default_seed};
    std::string bytes(BYTES, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

void crc(State& state) {
    const std::string& bytes = sale();
    while (state.KeepRunning()) DoNotOptimize(pbs::crc16_ccitt(bytes.data(), BYTES));
}

void boostCrc(State& state) {
    const std::string& bytes = sale();
    while (state.KeepRunning()) {
        boost::crc_optimal<16, 0x1021, 0, 0, false, false> crc;
        crc.process_bytes(bytes.data(), BYTES);
        DoNotOptimize(crc.checksum());
    }
}

/// Parses a frame in pieces into a fresh message, as an exchange does.
void parse(State& state, const std::string& frame) {
    while (state.KeepRunning()) {
        pbs::Message message;
        auto result = pbs::Message::PARSER_IN_PROGRESS;
        for (unsigned long taken = 0; taken < frame.size();)
            result = message.parse(frame.data() + taken, std::min(READ_BYTES, frame.size() - taken), &taken);
        if (result != pbs::Message::PARSER_MESSAGE_READY) state.SkipWithError("not a frame");
    }
}

void parseLarge(State& state) {
    pbs::Message message("EnviarDadosVenda", "3");
    message.setBody(sale());
    parse(state, message.toString());
}

void copyAndCrc(State& state) {
    const std::string& bytes = sale();
    std::string copy(BYTES, '\0');
    while (state.KeepRunning()) {
        std::memcpy(copy.data(), bytes.data(), BYTES);
        DoNotOptimize(pbs::crc16_ccitt(copy.data(), BYTES));
    }
}

void parseSmall(State& state) {
    pbs::Message message("ConsultarSAT", "3");
    message.addHeader("drs-version", "01.00.01.001");
    message.setBody("123456");
    message.compress();
    const std::string frame = message.toString();
    if (frame.size() != 201) state.SkipWithError("not the documented frame");
    parse(state, frame);
}

void encode(State& state) {
    const std::string bytes = randomBytes();
    while (state.KeepRunning()) DoNotOptimize(Base64::encode(bytesOf(bytes), BYTES));
}

void opensslEncode(State& state) {
    const std::string bytes = randomBytes();
    std::string text(BYTES / 3 * 4 + 1, '\0');
    auto* const to = reinterpret_cast<unsigned char*>(text.data());
    while (state.KeepRunning()) DoNotOptimize(EVP_EncodeBlock(to, bytesOf(bytes), BYTES));
}

/// 1.5 MiB of text.
std::string encoded() { return Base64::encode(bytesOf(randomBytes()), BYTES).substr(0, BYTES); }

void decode(State& state) {
    const std::string text = encoded();
    while (state.KeepRunning()) DoNotOptimize(Base64::decode(text));
}

void opensslDecode(State& state) {
    const std::string text = encoded();
    std::string bytes(BYTES, '\0');
    auto* const to = reinterpret_cast<unsigned char*>(bytes.data());
    while (state.KeepRunning()) DoNotOptimize(EVP_DecodeBlock(to, bytesOf(text), BYTES));
}

BENCHMARK(crc)->Name("crc16_ccitt/ours");
BENCHMARK(boostCrc)->Name("crc16_ccitt/theirs");
BENCHMARK(parseLarge)->Name("parse/ours");
BENCHMARK(copyAndCrc)->Name("parse/theirs");
BENCHMARK(parseSmall)->Name("small parse/ours");
BENCHMARK(encode)->Name("encode/ours");
BENCHMARK(opensslEncode)->Name("encode/theirs");
BENCHMARK(decode)->Name("decode/ours");
BENCHMARK(opensslDecode)->Name("decode/theirs");

}  // namespace
