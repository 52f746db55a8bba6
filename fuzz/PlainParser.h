#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "plain_rules.h"
#include "protocol/Message.h"
#include "protocol/MessagePrivate.h"
#include "require.h"

/// Everything that a parser shows at a result: the result, the bytes taken so far, code, source, headers,
/// body, the text of the last attempt and the state that ended it.
using Outcome = std::tuple<pbs::Message::ParserState, std::size_t, std::string, std::string,
                           std::map<std::string, std::string>, std::string, std::string, std::uint32_t>;

inline Outcome outcome(pbs::Message::ParserState result, std::size_t taken,
                       const pbs::MessagePrivate& parser) {
    return {result,           taken,       parser.code,         parser.sourceId,
            parser.headerMap, parser.body, parser.lastHeadText, parser.lastState};
}

/// A second parser for docs/protocol.md, to check the library's against: one byte per call, and the text of
/// the attempt instead of states and counters.
class PlainParser {
  public:
    pbs::Message::ParserState take(char byte) {
        if (m_inBody) {
            m_body += byte;
            if (m_body.size() < m_contentSize) return pbs::Message::PARSER_IN_PROGRESS;
            const bool sound = number(m_headers["edc-word"]) == plainCrc(m_body);
            return end(8, sound ? pbs::Message::PARSER_MESSAGE_READY : pbs::Message::PARSER_CHECKSUM_ERROR);
        }
        m_attempt += byte;
        const std::size_t size = m_attempt.size();
        if (size <= START.size()) {
            if (START.compare(0, size, m_attempt) == 0) return pbs::Message::PARSER_IN_PROGRESS;
            return end(static_cast<std::uint32_t>(size), pbs::Message::PARSER_IN_PROGRESS);
        }
        if (m_attempt[size - 2] != '\r') {
            if (size > 4096) return end(6, pbs::Message::PARSER_SYNTAX_ERROR);
            return pbs::Message::PARSER_IN_PROGRESS;
        }
        if (byte != '\n') return end(7, pbs::Message::PARSER_SYNTAX_ERROR);
        if (size < START.size() + HEAD_END.size() ||
            m_attempt.compare(size - HEAD_END.size(), HEAD_END.size(), HEAD_END) != 0)
            return pbs::Message::PARSER_IN_PROGRESS;
        if (!readHead()) return end(7, pbs::Message::PARSER_SYNTAX_ERROR);
        m_body.clear();
        if (m_contentSize == 0) return end(9, pbs::Message::PARSER_MESSAGE_READY);
        m_inBody = true;
        return pbs::Message::PARSER_IN_PROGRESS;
    }

    Outcome outcome(pbs::Message::ParserState result, std::size_t taken) const {
        return {result, taken, m_code, m_source, m_headers, m_body, m_lastAttempt, m_lastState};
    }

  private:
    pbs::Message::ParserState end(std::uint32_t state, pbs::Message::ParserState result) {
        m_lastAttempt = m_attempt;
        m_lastState = state;
        m_attempt.clear();
        m_inBody = false;
        return result;
    }

    bool readHead() {
        m_headers.clear();
        std::string rest = m_attempt.substr(START.size());
        for (std::size_t lineEnd; (lineEnd = rest.find("\r\n")) > 0; rest.erase(0, lineEnd + 2)) {
            const std::string line = rest.substr(0, lineEnd);
            const std::size_t colon = line.find(':');
            if (colon == std::string::npos) return false;
            m_headers[line.substr(0, colon)] = line.substr(colon + 1);
            if (colon == 0 || colon + 1 == line.size()) return false;
        }
        if (m_headers["version"] != "1.0") return false;
        for (const char* key : {"content-size", "code", "source", "edc-word"})
            if (m_headers.count(key) == 0) return false;
        const std::int32_t size = number(m_headers["content-size"]);
        if (size < 0) return false;
        m_code = m_headers["code"];
        m_source = m_headers["source"];
        m_contentSize = static_cast<std::size_t>(size);
        return true;
    }

    static std::int32_t number(const std::string& text) {
        return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10));
    }

    inline static const std::string START = "smx\r\n", HEAD_END = "\r\n\r\n\r\n";

    std::string m_attempt;  ///< the bytes so far, without the body's
    bool m_inBody = false;
    std::size_t m_contentSize = 0;
    std::string m_code = "0", m_source = "0", m_body, m_lastAttempt;
    std::map<std::string, std::string> m_headers = {{"code", "0"}, {"source", "0"}, {"version", "1.0"}};
    std::uint32_t m_lastState = 0;
};

constexpr auto IN_PROGRESS = pbs::Message::PARSER_IN_PROGRESS;

/// What the plain parser shows at each result, and at the end.
inline std::vector<Outcome> plainlyParsed(const std::vector<char>& stream) {
    PlainParser parser;
    std::vector<Outcome> outcomes;
    for (std::size_t i = 0; i < stream.size(); ++i)
        if (const auto result = parser.take(stream[i]); result != IN_PROGRESS)
            outcomes.push_back(parser.outcome(result, i + 1));
    outcomes.push_back(parser.outcome(IN_PROGRESS, stream.size()));
    return outcomes;
}

/// What the library's parser shows, fed as the receive loop does; each chunk ends where its memory does.
inline std::vector<Outcome> parsed(const std::vector<char>& stream, const std::vector<std::size_t>& sizes) {
    pbs::MessagePrivate parser("0", "0");
    std::vector<Outcome> outcomes;
    std::size_t start = 0;
    for (std::size_t i = 0; start < stream.size(); ++i) {
        const std::size_t size = std::min(sizes[i % sizes.size()], stream.size() - start);
        const std::vector<char> chunk(&stream[start], &stream[start] + size);
        for (unsigned long consumed = 0; consumed < size;) {
            const auto result = parser.parse(chunk.data() + consumed, size - consumed, &consumed);
            if (result != IN_PROGRESS)
                outcomes.push_back(outcome(result, start + consumed, parser));
            else
                require(consumed == size, "a frame in progress takes every byte");
        }
        start += size;
    }
    outcomes.push_back(outcome(IN_PROGRESS, start, parser));
    return outcomes;
}
