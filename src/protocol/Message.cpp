#include "protocol/Message.h"

#include <zlib.h>

#include <algorithm>
#include <new>
#include <utility>

#include "protocol/MessagePrivate.h"
#include "protocol/pbs.h"

namespace pbs {

const std::string HDR_MSG_SPECIFIER = "smx";
const std::string HDR_TERMINATION = "\r\n";
const std::string HDR_FIELD_SEPARATOR = ":";
const std::string HDR_START_DATA = "\r\n\r\n";
const std::string HDR_VERSION = "version";
const std::string HDR_VERSION_NUMBER = "1.0";
const std::string HDR_CODE = "code";
const std::string HDR_SOURCE = "source";
const std::string HDR_CONTENT_TYPE = "content-type";
const std::string HDR_CONTENT_OCTET_STREAM = "octet-stream";
const std::string HDR_CONTENT_COMPRESSED = "z-compressed";
const std::string HDR_CONTENT_SIZE = "content-size";
const std::string HDR_CONTENT_UNCOMPRESSED_SIZE = "content-uncompressed-size";
const std::string HDR_EDC_TYPE = "edc-type";
const std::string HDR_EDC_TYPE_CRC16 = "crc16-ccitt";
const std::string HDR_EDC_WORD = "edc-word";

namespace {

/// The most that a frame can make the receiver allocate: one byte below 20 MiB.
constexpr int MAX_UNCOMPRESSED_SIZE = 20 * 1024 * 1024 - 1;

std::string sizeText(std::size_t size) { return to_string(static_cast<int>(size)); }

Bytef* zlibBytes(std::string& text) { return reinterpret_cast<Bytef*>(text.data()); }

}  // namespace

Message::Message() : Message("0", "0") {}
Message::Message(const std::string& code, const std::string& source)
    : d(std::make_unique<MessagePrivate>(code, source)) {}
Message::Message(const Message& other) : d(std::make_unique<MessagePrivate>(*other.d)) {}
Message& Message::operator=(const Message& other) {
    if (this != &other) d = std::make_unique<MessagePrivate>(*other.d);
    return *this;
}
Message::~Message() = default;

bool Message::operator==(const Message& other) const {
    return d->code == other.d->code && d->sourceId == other.d->sourceId &&
           d->headerMap == other.d->headerMap && d->body == other.d->body;
}

std::string Message::code() const { return d->code; }
std::string Message::sourceId() const { return d->sourceId; }
const std::string& Message::body() const { return d->body; }
const char* Message::bodyAsCString() const { return d->body.c_str(); }
unsigned long Message::bodySize() const { return d->body.size(); }
bool Message::hasHeader(const std::string& key) const { return d->headerMap.count(key) != 0; }

std::string Message::header(const std::string& key) {
    const auto entry = d->headerMap.find(key);
    return entry == d->headerMap.end() ? std::string() : entry->second;
}

void Message::setCode(const std::string& code) {
    d->headerMap[HDR_CODE] = code;
    d->code = code;
}
void Message::setCode(int code) { setCode(to_string(code)); }

void Message::setSourceId(const std::string& source) {
    d->headerMap[HDR_SOURCE] = source;
    d->sourceId = source;
}
void Message::setSourceId(int source) { setSourceId(to_string(source)); }

void Message::setBody(const std::string& body) {
    d->body = body;
    d->headerMap[HDR_CONTENT_TYPE] = HDR_CONTENT_OCTET_STREAM;
    d->headerMap[HDR_CONTENT_SIZE] = sizeText(body.size());
}
void Message::setBody(const char* data, std::uint32_t size) { setBody(std::string(data, size)); }

void Message::addHeader(const std::string& key, const std::string& value) {
    // Such a header would be read as another one, or as the end of the head.
    const bool fitsFrame =
        key.find_first_of(":\r\n") == std::string::npos && value.find_first_of("\r\n") == std::string::npos;
    if (fitsFrame) d->headerMap[key] = value;
}
void Message::removeHeader(const std::string& key) { d->headerMap.erase(key); }

std::string Message::toString() const { return headers() + d->body; }

std::string Message::headers() const {
    d->headerMap[HDR_EDC_TYPE] = HDR_EDC_TYPE_CRC16;
    d->headerMap[HDR_EDC_WORD] = to_string(crc16_ccitt(d->body.data(), static_cast<int>(d->body.size())));

    std::string head = HDR_MSG_SPECIFIER + HDR_TERMINATION;
    for (const auto& [key, value] : d->headerMap)
        head.append(key).append(HDR_FIELD_SEPARATOR).append(value).append(HDR_TERMINATION);
    return head + HDR_START_DATA;
}

Message::ParserState Message::parse(const char* data, unsigned long length, unsigned long* consumed) {
    if (data == nullptr) return PARSER_SYNTAX_ERROR;
    return d->parse(data, length, consumed);
}

std::string Message::parserStateName(ParserState state) {
    switch (state) {
        case PARSER_IN_PROGRESS: return "In progress";
        case PARSER_MESSAGE_READY: return "Message ready";
        case PARSER_SYNTAX_ERROR: return "Syntax error";
        case PARSER_CHECKSUM_ERROR: return "Checksum error";
    }
    return "Unknown";
}

void Message::lastParsingState(std::string& text, int& state) const {
    text = d->lastHeadText;
    state = static_cast<int>(d->lastState);
}

int Message::compress() {
    if (d->headerMap[HDR_CONTENT_TYPE] != HDR_CONTENT_OCTET_STREAM) return WRONG_CONTENT_TYPE;
    d->headerMap[HDR_CONTENT_UNCOMPRESSED_SIZE] = sizeText(d->body.size());

    uLongf size = compressBound(d->body.size());
    // Not a string, which would touch all of the worst case's memory to clear it.
    const std::unique_ptr<Bytef[]> output(new Bytef[size]);
    const int result = compress2(output.get(), &size, zlibBytes(d->body), d->body.size(), Z_BEST_COMPRESSION);
    if (result != Z_OK) return result;

    std::string compressed(reinterpret_cast<const char*>(output.get()), size);
    d->headerMap[HDR_CONTENT_TYPE] = HDR_CONTENT_COMPRESSED;
    d->headerMap[HDR_CONTENT_SIZE] = sizeText(size);
    d->body = std::move(compressed);
    return Z_OK;
}

int Message::uncompress() {
    if (d->headerMap[HDR_CONTENT_TYPE] != HDR_CONTENT_COMPRESSED) return WRONG_CONTENT_TYPE;
    const int announced = readNumber(d->headerMap[HDR_CONTENT_UNCOMPRESSED_SIZE]);
    if (announced < 0 || announced > MAX_UNCOMPRESSED_SIZE) return Z_MEM_ERROR;

    std::string output;
    try {
        // At least one byte: without room, zlib takes a stream of one byte for an empty one.
        output.resize(static_cast<std::size_t>(std::max(announced, 1)));
    } catch (const std::bad_alloc&) {
        return Z_MEM_ERROR;
    }
    uLongf size = output.size();
    const int result = ::uncompress(zlibBytes(output), &size, zlibBytes(d->body), d->body.size());
    if (result != Z_OK) return result;
    if (size > static_cast<uLongf>(announced)) return Z_BUF_ERROR;

    d->headerMap[HDR_CONTENT_TYPE] = HDR_CONTENT_OCTET_STREAM;
    d->headerMap[HDR_CONTENT_SIZE] = sizeText(size);
    d->headerMap.erase(HDR_CONTENT_UNCOMPRESSED_SIZE);
    output.resize(size);
    d->body = std::move(output);
    return Z_OK;
}

bool Message::isCompressed() const { return hasHeader(HDR_CONTENT_UNCOMPRESSED_SIZE); }

}  // namespace pbs
