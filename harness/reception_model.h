#pragma once

#include <deque>
#include <iosfwd>
#include <string>

#include "fiscora.h"
#include "platform.h"
#include "protocol/Message.h"

/// The outcome of receiving an answer.
struct Reception {
    int status = FISCORA_STATUS_NO_ANSWER;
    pbs::Message answer;  ///< unchanged if none was accepted
    long reads = 0;
    bool open = true;        ///< the port
    std::int64_t endMs = 0;  ///< since sending began
    std::string events;      ///< the log, as in `logEvents`
};
bool operator==(const Reception& one, const Reception& other);
std::ostream& operator<<(std::ostream& stream, const Reception& reception);

/// A log as one letter per line: sent, failed to send, Accepted, Refused, restarted, Syntax error, Checksum
/// error, read Error, Timeout; a dot for any other line.
std::string logEvents(const std::vector<std::string>& lines);

/// The rules of the reception (docs/protocol.md), applied one byte at a time: how the wait for an answer to
/// `command` must end if the line delivers `script` and then stays silent. Tests, fuzz targets and the soak
/// program compare with it.
///
/// `elapsedMs`: since sending began. `failures`: transfers in a row that have moved nothing so far.
Reception expectedReception(std::deque<FakeLine::Reading> script, const std::string& command, int timeoutMs,
                            std::int64_t elapsedMs, int failures = 0);

/// One exchange as it went and as it should have gone.
struct JudgedReception {
    Reception seen, expected;
};
/// Lets the library send `command` on the line and wait for the answer, which comes from the line's readings.
/// The caller judges the log: `seen.events` is empty.
JudgedReception receive(FakeLine& line, const std::string& command, int timeoutMs);
