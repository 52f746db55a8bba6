#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Message.h"

namespace pbs {

/// What a Message holds, and the incremental parser that fills it.
class MessagePrivate {
  public:
    /// States of the parser, in the order of a frame.
    enum State : std::uint32_t {
        WAIT_S = 1,  ///< at rest
        WAIT_M,
        WAIT_X,
        WAIT_START_CR,
        WAIT_START_LF,
        HEADER_TEXT,  ///< head text up to a CR
        HEADER_LF,    ///< the LF after a CR of the head
        BODY_BYTES,
        NO_BODY  ///< a frame that ended with its head; seen only in `lastState`
    };

    MessagePrivate(const std::string& code, const std::string& source);
    /// Copies all but `headText`, which starts empty.
    MessagePrivate(const MessagePrivate& other);
    MessagePrivate& operator=(const MessagePrivate&) = delete;

    /// As Message::parse; `data` is not null.
    Message::ParserState parse(const char* data, unsigned long length, unsigned long* consumed);
    /// Turns `headText` into `headerMap`. True if the head is valid; only then sets code, source and
    /// `contentSize`.
    bool processHeaders();
    /// Whether the body, as received, matches the header `edc-word`.
    bool bodyIntegrityIsOk();

    std::uint32_t parserState = WAIT_S;
    std::uint32_t lastState = 0;  ///< state in which the last attempt ended
    std::string code;
    std::string sourceId;
    std::uint64_t headSize = 0;     ///< bytes of the current head so far
    std::uint32_t lineEnds = 0;     ///< CR LF pairs in a row so far
    std::uint64_t contentSize = 0;  ///< body bytes that the parser awaits
    std::string body;
    std::map<std::string, std::string> headerMap;
    std::string headText;      ///< raw bytes of the head being parsed
    std::string lastHeadText;  ///< raw bytes of the last attempt

  private:
    Message::ParserState parseHeadByte(char byte);
    Message::ParserState headComplete();
    void endAttempt();
};

}  // namespace pbs
