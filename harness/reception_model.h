#pragma once

#include <deque>
#include <iosfwd>
#include <string>

#include "fiscora.h"
#include "platform.h"
#include "protocol/Message.h"

/// What the reception of an answer comes to.
struct Reception {
    int status = FISCORA_STATUS_NO_ANSWER;
    pbs::Message answer;  ///< as given, if none was accepted
    long reads = 0;
    bool open = true;    ///< the port
    long endMs = 0;      ///< since the sending began
    std::string events;  ///< the log, as in `logEvents`
};
bool operator==(const Reception& one, const Reception& other);
std::ostream& operator<<(std::ostream& stream, const Reception& reception);

/// A log as one letter per line: sent, failed to send, Accepted, Refused, restarted, Syntax error, Checksum
/// error, read Error, Timeout; a point for any other line.
std::string logEvents(const std::vector<std::string>& lines);

/// The rules of the reception (docs/protocol.md), applied a byte at a time: what the wait for an answer to
/// `command` must come to if the line gives `script` and then stays silent. Tests, fuzz targets and the soak
/// program judge by it.
///
/// `elapsedMs`: since the sending began. `failures`: transfers in a row that moved nothing until now.
Reception expectedReception(std::deque<FakeLine::Reading> script, const std::string& command, int timeoutMs,
                            long elapsedMs, int failures = 0);

/// One exchange as it went and as it should have gone.
struct JudgedReception {
    Reception seen, expected;
};
/// Lets the library send `command` on the line and wait for the answer, which the line's readings play. What
/// was logged is left for the caller to judge: `seen.events` is empty.
JudgedReception receive(FakeLine& line, const std::string& command, int timeoutMs);
