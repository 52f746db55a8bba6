#include "sim/Ledger.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <iostream>
#include <stdexcept>
#include <string_view>

#include "i18n.h"
#include "local_time.h"
#include "sha256.h"
#include "terminal_text.h"

namespace sim {
namespace {

/// Local time as RFC 3339 has it; strftime writes the offset without its colon.
std::string timestamp(std::time_t time) {
    std::string text = localTimeText("%Y-%m-%dT%H:%M:%S%z", time);
    return text.insert(text.size() - 2, ":");
}

std::string lineOf(const BookedDocument& document) {
    std::string line = timestamp(document.time);
    for (const std::string_view field : {document.operation, document.session, document.key})
        line.append("\t").append(field);
    return line + "\t" + tool::sha256(document.request) + "\n";
}

/// `error` is an errno.
std::string unwritable(const std::string& path, int error) {
    return tool::filled(tool::tr("cannot write %s: %s"), path.empty() ? "\"\"" : path.c_str(),
                        tool::systemError(error).c_str());
}

}  // namespace

Ledger::Ledger(const std::string& path)
    : m_path(path),
      m_file(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, S_IRUSR | S_IWUSR)) {
    if (m_file.get() < 0) throw CLI::ValidationError(unwritable(path, errno));
}

bool Ledger::add(const BookedDocument& document) {
    const std::string line = lineOf(document);
    ssize_t count = 0;
    do {
        errno = ENOSPC;  // what a write that takes only a part of the line means
        count = write(m_file.get(), line.data(), line.size());
    } while (count < 0 && errno == EINTR);
    if (count == static_cast<ssize_t>(line.size())) return true;

    const int error = errno;
    if (count > 0) {
        const off_t end = lseek(m_file.get(), 0, SEEK_CUR);
        [[maybe_unused]] const int ignored = ftruncate(m_file.get(), end - count);
    }
    if (!m_hasFailed) {
        std::cerr << "fiscora sim: " << tool::withoutControls(unwritable(m_path, error)) << "; "
                  << tool::tr("the device refuses documents") << "\n";
    }
    m_hasFailed = true;
    return false;
}

}  // namespace sim
