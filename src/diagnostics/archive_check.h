#pragma once

#include <string>

class LogFile;

/// Whether the tar archive at path `archive`, compressed by gzip or plain, is intact and holds
/// an entry `name` with the present content of `log`, byte for byte.
__attribute__((visibility("hidden"))) bool archiveHolds(const std::string& archive, const std::string& name,
                                                        const LogFile& log);
