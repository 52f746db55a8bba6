#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace pbs {

// The literal pieces of a frame; docs/protocol.md shows where each occurs.
extern const std::string HDR_MSG_SPECIFIER;    ///< "smx", first bytes of a frame
extern const std::string HDR_TERMINATION;      ///< CR LF, ends the start line and each header line
extern const std::string HDR_FIELD_SEPARATOR;  ///< ":", between key and value
extern const std::string HDR_START_DATA;       ///< CR LF CR LF, between the last header line and the body

// The protocol's header keys, each followed by its values if these are fixed.
extern const std::string HDR_VERSION;
extern const std::string HDR_VERSION_NUMBER;
extern const std::string HDR_CODE;
extern const std::string HDR_SOURCE;
extern const std::string HDR_CONTENT_TYPE;
extern const std::string HDR_CONTENT_OCTET_STREAM;
extern const std::string HDR_CONTENT_COMPRESSED;
extern const std::string HDR_CONTENT_SIZE;
extern const std::string HDR_CONTENT_UNCOMPRESSED_SIZE;
extern const std::string HDR_EDC_TYPE;
extern const std::string HDR_EDC_TYPE_CRC16;
extern const std::string HDR_EDC_WORD;

class MessagePrivate;

/// One message of the device protocol: a command on its way out, or an answer coming in. It holds a code, a
/// source, headers and a body, and the state of the parser that fills it from a byte stream.
///
/// A value type: copies are deep and independent. For one thread at a time, const operations included.
class Message {
  public:
    /// Result of `parse`.
    enum ParserState : int {
        PARSER_IN_PROGRESS = 0,    ///< all bytes were taken, no frame has ended
        PARSER_MESSAGE_READY = 1,  ///< a valid frame has ended; the message holds it
        PARSER_SYNTAX_ERROR = 2,   ///< a head was refused, or `data` was null
        PARSER_CHECKSUM_ERROR = 3  ///< a frame has ended whose body does not match its `edc-word`
    };

    /// Result of `compress` and `uncompress` if `content-type` is not the one they start from. Their other
    /// results are zlib's.
    static constexpr int WRONG_CONTENT_TYPE = -100;

    /// A message with code "0" and source "0".
    Message();
    /// A message with the headers `version`, `code` and `source`, and an empty body.
    Message(const std::string& code, const std::string& source);
    /// Copies everything, parser state included, except the raw text of a head still being parsed.
    Message(const Message& other);
    Message& operator=(const Message& other);
    ~Message();

    /// Whether code, source, headers and body are equal. Ignores the parser's state.
    bool operator==(const Message& other) const;

    std::string code() const;
    std::string sourceId() const;
    /// The body itself, any byte values; valid until the body changes or the message goes.
    const std::string& body() const;
    /// The body's bytes, followed by a NUL; valid as long as `body()` is.
    const char* bodyAsCString() const;
    /// Length of the body in bytes.
    unsigned long bodySize() const;
    bool hasHeader(const std::string& key) const;
    /// Value of the header, or an empty text if there is none. Never creates an entry.
    std::string header(const std::string& key);

    /// Sets the code and the header `code`.
    void setCode(const std::string& code);
    void setCode(int code);
    /// Sets the source and the header `source`.
    void setSourceId(const std::string& source);
    void setSourceId(int source);
    /// Replaces the body by a copy of the given bytes (fewer than 2^31), as a plain one: sets `content-type`
    /// and `content-size`, and leaves `content-uncompressed-size` as it was.
    void setBody(const std::string& body);
    void setBody(const char* data, std::uint32_t size);
    /// Sets a header, but neither code nor source. Ignored if a frame could not carry it: a key with ":", CR
    /// or LF, or a value with CR or LF.
    void addHeader(const std::string& key, const std::string& value);
    /// Removes a header, if it is there.
    void removeHeader(const std::string& key);

    /// The whole frame. Like `headers`, first updates the headers `edc-type` and `edc-word` for the body.
    std::string toString() const;
    /// The frame without its body.
    std::string headers() const;

    /// Feeds up to `length` bytes at `data` to the parser, which finds the next frame in a stream of pieces
    /// of any size. Returns early after the byte that ends a frame or makes its head invalid; the following
    /// bytes are for the next call. Adds the number of bytes taken to `*consumed`, unless `consumed` is null.
    /// A null `data` is a syntax error that takes and changes nothing.
    ParserState parse(const char* data, unsigned long length, unsigned long* consumed);
    /// English text of a result; "Unknown" for any other value.
    static std::string parserStateName(ParserState state);
    /// How the parser's last attempt at a frame ended: the raw bytes of its head and the number of its state
    /// (docs/protocol.md lists the states); an empty text and 0 before any attempt has ended.
    void lastParsingState(std::string& text, int& state) const;

    /// Replaces a plain body with its zlib stream (RFC 1950, level 9) and notes that in the headers. 0 if
    /// done; WRONG_CONTENT_TYPE unless `content-type` is "octet-stream"; else zlib's result. Unless the
    /// result is 0, the body stays as it was.
    int compress();
    /// The reverse. 0 if done; WRONG_CONTENT_TYPE unless `content-type` is "z-compressed"; -4 (Z_MEM_ERROR)
    /// if `content-uncompressed-size` is negative or above 20,971,519 bytes, or there is no memory for it;
    /// else zlib's result. Unless the result is 0, the body stays as it was.
    int uncompress();
    /// Whether there is a header `content-uncompressed-size`; nothing else counts.
    bool isCompressed() const;

  private:
    std::unique_ptr<MessagePrivate> d;
};

}  // namespace pbs
