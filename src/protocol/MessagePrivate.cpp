#include "protocol/MessagePrivate.h"

#include <algorithm>
#include <string_view>

#include "protocol/pbs.h"

namespace pbs {

namespace {

constexpr char CR = '\r';
constexpr char LF = '\n';

/// Applies to the head's text only: an LF right after byte 4096 still passes.
constexpr std::uint64_t MAX_HEAD_TEXT = 4096;

/// The most memory reserved for a body before it arrives: enough for any answer, and all that a false
/// `content-size` can cost.
constexpr std::uint64_t MAX_RESERVED = std::uint64_t{2} * 1024 * 1024;

/// The last header line's own CR LF and the two of HDR_START_DATA.
constexpr std::uint32_t LINE_ENDS_OF_HEAD = 3;

}  // namespace

MessagePrivate::MessagePrivate(const std::string& code, const std::string& source)
    : code(code),
      sourceId(source),
      headerMap{{HDR_VERSION, HDR_VERSION_NUMBER}, {HDR_CODE, code}, {HDR_SOURCE, source}} {}

MessagePrivate::MessagePrivate(const MessagePrivate& other)
    : parserState(other.parserState),
      lastState(other.lastState),
      code(other.code),
      sourceId(other.sourceId),
      headSize(other.headSize),
      lineEnds(other.lineEnds),
      contentSize(other.contentSize),
      body(other.body),
      headerMap(other.headerMap),
      lastHeadText(other.lastHeadText) {}

Message::ParserState MessagePrivate::parse(const char* data, unsigned long length, unsigned long* consumed) {
    auto result = Message::PARSER_IN_PROGRESS;
    unsigned long taken = 0;
    while (taken < length && result == Message::PARSER_IN_PROGRESS) {
        if (parserState != BODY_BYTES) {
            result = parseHeadByte(data[taken++]);
            continue;
        }
        // A body is opaque, so the rest of it is taken in one run; at least one byte, in case setBody was
        // called in between.
        const std::uint64_t missing = contentSize > body.size() ? contentSize - body.size() : 1;
        const auto run = std::min<std::uint64_t>(length - taken, missing);
        body.append(data + taken, run);
        taken += run;
        if (body.size() >= contentSize) {
            result = bodyIntegrityIsOk() ? Message::PARSER_MESSAGE_READY : Message::PARSER_CHECKSUM_ERROR;
            endAttempt();
        }
    }
    if (consumed != nullptr) *consumed += taken;
    return result;
}

Message::ParserState MessagePrivate::parseHeadByte(char byte) {
    headText += byte;
    ++headSize;

    const auto expect = [&](char wanted, State next) {
        if (byte == wanted)
            parserState = next;
        else
            endAttempt();  // the byte is dropped, too: it does not start a new frame
        return Message::PARSER_IN_PROGRESS;
    };
    switch (parserState) {
        case WAIT_S: return expect('s', WAIT_M);
        case WAIT_M: return expect('m', WAIT_X);
        case WAIT_X: return expect('x', WAIT_START_CR);
        case WAIT_START_CR: return expect(CR, WAIT_START_LF);
        case WAIT_START_LF: return expect(LF, HEADER_TEXT);
        case HEADER_TEXT:
            if (headSize > MAX_HEAD_TEXT) break;
            if (byte == CR)
                parserState = HEADER_LF;
            else
                lineEnds = 0;
            return Message::PARSER_IN_PROGRESS;
        case HEADER_LF:
            if (byte != LF) break;
            if (++lineEnds == LINE_ENDS_OF_HEAD) return headComplete();
            parserState = HEADER_TEXT;
            return Message::PARSER_IN_PROGRESS;
        default: break;
    }
    endAttempt();
    return Message::PARSER_SYNTAX_ERROR;
}

Message::ParserState MessagePrivate::headComplete() {
    if (!processHeaders()) {
        endAttempt();
        return Message::PARSER_SYNTAX_ERROR;
    }
    body.clear();
    if (contentSize > 0) {
        parserState = BODY_BYTES;
        body.reserve(std::min(contentSize, MAX_RESERVED));
        return Message::PARSER_IN_PROGRESS;
    }
    parserState = NO_BODY;
    endAttempt();
    return Message::PARSER_MESSAGE_READY;
}

void MessagePrivate::endAttempt() {
    lineEnds = 0;
    contentSize = 0;
    lastHeadText.swap(headText);
    lastState = parserState;
    headText.clear();
    headSize = 0;
    parserState = WAIT_S;
}

bool MessagePrivate::processHeaders() {
    std::string_view rest = headText;
    const std::string startLine = HDR_MSG_SPECIFIER + HDR_TERMINATION;
    const auto start = rest.find(startLine);
    if (start == std::string_view::npos) return false;
    rest.remove_prefix(start + startLine.size());

    headerMap.clear();
    for (;;) {
        const auto end = rest.find(HDR_TERMINATION);
        if (end == std::string_view::npos || end == 0) break;
        const auto line = rest.substr(0, end);
        rest.remove_prefix(end + HDR_TERMINATION.size());

        const auto separator = line.find(HDR_FIELD_SEPARATOR);
        if (separator == std::string_view::npos) return false;
        const auto key = line.substr(0, separator);
        const auto value = line.substr(separator + HDR_FIELD_SEPARATOR.size());
        headerMap[std::string(key)] = value;
        if (key.empty() || value.empty()) return false;
    }

    if (headerMap[HDR_VERSION] != HDR_VERSION_NUMBER) return false;
    for (const auto* key : {&HDR_CONTENT_SIZE, &HDR_CODE, &HDR_SOURCE, &HDR_EDC_WORD})
        if (headerMap.count(*key) == 0) return false;

    // As an unsigned number, a negative size would hold the parser until the timeout.
    const int size = readNumber(headerMap[HDR_CONTENT_SIZE]);
    if (size < 0) return false;

    code = headerMap[HDR_CODE];
    sourceId = headerMap[HDR_SOURCE];
    contentSize = static_cast<std::uint64_t>(size);
    return true;
}

bool MessagePrivate::bodyIntegrityIsOk() {
    return readNumber(headerMap[HDR_EDC_WORD]) == crc16_ccitt(body.data(), static_cast<int>(body.size()));
}

}  // namespace pbs
