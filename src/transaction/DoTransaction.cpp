#include "transaction/DoTransaction.h"

#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string_view>

#include "diagnostics/logdebug.h"
#include "fields.h"
#include "fiscora.h"
#include "local_time.h"
#include "printable.h"
#include "protocol/Message.h"
#include "quiet_writes.h"
#include "version.h"

namespace {

/// Tells the device who sends.
constexpr int SOURCE_ID = 3;

/// Logged in place of a missing field.
constexpr char MISSING_FIELD[] = " ";

/// The fields of `split`, as views of `text`; at most `most`, the last one with the rest.
std::vector<std::string_view> splitViews(const std::string& text, char delimiter,
                                         std::size_t most = std::string::npos) {
    std::string_view pieces = text.c_str();
    if (pieces.empty()) return {};
    if (pieces.back() == delimiter) pieces.remove_suffix(1);
    return fieldsOf(pieces, delimiter, most);
}

std::string fieldOr(const std::vector<std::string_view>& fields, std::size_t index, const char* missing) {
    return index < fields.size() ? std::string(fields[index]) : missing;
}

void logRequest(const char* command, const std::string& request) {
    logOrDrop([&](LogDebug& log) {
        const auto fields = splitViews(request, '|', 2);
        std::array<char, 100> line{};
        std::snprintf(line.data(), line.size(), "txCode: %s txSessao:%s txBufferSize:%d", command,
                      fieldOr(fields, 0, "").c_str(), static_cast<int>(request.size()));
        log.saveLog("info", line.data());
    });
}

void logAnswer(const pbs::Message& answer, int status) {
    logOrDrop([&](LogDebug& log) {
        const auto fields = splitViews(answer.body(), '|', 5);
        // A line break from the device must not begin a line of the log.
        const auto received = [&](std::size_t index) {
            return printable(fieldOr(fields, index, MISSING_FIELD));
        };
        std::array<char, 512> line{};
        std::snprintf(
            line.data(), line.size(),
            "rxCode: %s rxSessao: %s rxEEEEE: %s rxCCCC: %s rxMessage: %s rxBufferSize: %d status: %d",
            printable(answer.code()).c_str(), received(0).c_str(), received(1).c_str(), received(2).c_str(),
            received(3).c_str(), static_cast<int>(answer.bodySize()), status);
        log.saveLog("info", line.data());
    });
}

}  // namespace

DoTransaction::DoTransaction() = default;
DoTransaction::~DoTransaction() = default;

int DoTransaction::run(int timeoutMs, const char* command, const std::string& request, pbs::Message& answer) {
    logRequest(command, request);
    int status = FISCORA_STATUS_NO_ANSWER;
    try {
        status = exchange(timeoutMs, command, request, answer);
    } catch (const std::exception&) {  // out of memory
        m_channel.disconnect_client();
    }
    logAnswer(answer, status);
    return status;
}

int DoTransaction::exchange(int timeoutMs, const char* command, const std::string& request,
                            pbs::Message& answer) {
    if (m_channel.connect_client() != 0) return FISCORA_STATUS_NO_ANSWER;
    // A failed sending shows as a missing answer.
    WriteMessageCommand(command, request);
    const int status = ReadMessageAnswer(command, answer, timeoutMs);
    m_channel.disconnect_client();
    return status;
}

int DoTransaction::WriteMessageCommand(const char* command, const std::string& request) {
    pbs::Message message;
    message.setSourceId(SOURCE_ID);
    message.setCode(command);
    message.addHeader("drs-version", DRIVER_VERSION);
    message.setBody(request);
    message.compress();
    return m_channel.send_data(message) <= 0 ? 1 : 0;
}

int DoTransaction::ReadMessageAnswer(const char* command, pbs::Message& answer, int timeoutMs) {
    return m_channel.receive_data(command, answer, timeoutMs);
}

void DoTransaction::fileDump(const char* code, const char* tx, std::uint32_t txSize, const char* rx,
                             std::uint32_t rxSize) {
    dumpExchange(code, tx, txSize, rx, rxSize);
}

bool dumpExchange(const char* code, const char* tx, std::uint32_t txSize, const char* rx,
                  std::uint32_t rxSize) {
    const std::string time = localTimeText("%Y%d%m%H%M%S");
    bool complete = true;
    const auto write = [&](const char* suffix, const char* data, std::uint32_t size) {
        std::array<char, 256> name{};
        std::snprintf(name.data(), name.size(), "%s_%s_%s", time.c_str(), code, suffix);
        const QuietWrites guard;
        FILE* const file = std::fopen(name.data(), "wb+");
        const bool written = file != nullptr && (size == 0 || std::fwrite(data, 1, size, file) == size);
        struct stat present {};
        const bool lasts =  // not so in a pipe
            file != nullptr && fstat(fileno(file), &present) == 0 && S_ISREG(present.st_mode);
        const bool closed = file != nullptr && std::fclose(file) == 0;
        complete = complete && written && lasts && closed;
    };
    std::array<char, 256> description{};
    std::snprintf(description.data(), description.size(),
                  "DRS Version:%s\r\nDebug msg code: %s\r\ntxBufferSize:%d\r\nrxBufferSize:%d\r\n",
                  DRIVER_VERSION, code, static_cast<int>(txSize), static_cast<int>(rxSize));

    write("tx.bin", tx, txSize);
    write("debug.txt", description.data(), static_cast<std::uint32_t>(std::strlen(description.data())));
    if (rxSize != 0) write("rx.bin", rx, rxSize);
    return complete;
}

std::vector<std::string> split(const std::string& text, char delimiter) {
    const auto pieces = splitViews(text, delimiter);
    return {pieces.begin(), pieces.end()};
}
