#pragma once

#include <soci/soci.h>

#include <string>

#include "journal/Journal.h"

namespace fiscorad {

/// Marks the file as a journal (PRAGMA application_id): "FISC".
constexpr int APPLICATION_ID = 0x46495343;
/// Of the schema (PRAGMA user_version).
constexpr int SCHEMA_VERSION = 2;

/// Makes sure that a journal at `path`, or what becomes one, can be read by its user alone. Throws
/// JournalError.
void makePrivate(const std::string& path, Journal::IfMissing ifMissing);
/// Opens `path` with the settings that make a commit durable. Throws JournalError or soci_error.
void connect(soci::session& sql, const std::string& path);
/// Creates the tables in an empty database, or brings them up to date. Throws JournalError if it is no
/// journal, is damaged, or is from a newer version.
void prepareSchema(soci::session& sql, const std::string& path, Journal::IfMissing ifMissing);

}  // namespace fiscorad
