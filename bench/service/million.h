#pragma once

#include <string>
#include <vector>

/// Multiplies the documents of the journal `path`, with all that belongs to them, until it has `count`;
/// nobody has it open. The copies have keys and access keys of their own. Returns some keys, spread over all
/// of them.
std::vector<std::string> multiplyDocuments(const std::string& path, long count);
