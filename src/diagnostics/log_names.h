#pragma once

// Names of the debug log's files, for what writes the log and for what reads it:
// logsDrs/logDrsYYYYMMDD.log below the working directory, archived as logsDrs/logDrsYYYYMMDD.tar.gz.

constexpr char LOG_DIRECTORY[] = "logsDrs";
constexpr char LOG_PREFIX[] = "logDrs";
constexpr char LOG_SUFFIX[] = ".log";
constexpr char ARCHIVE_SUFFIX[] = ".tar.gz";
