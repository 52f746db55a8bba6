#pragma once

#include <string>

#include "Descriptor.h"

namespace fiscorad {

/// The right to serve tills from a journal: one process at a time has it, and loses it when it ends, however
/// that happens. It is a lock (flock) on the file beside the journal that ends in ".lock".
class OwnerLock {
  public:
    /// Throws JournalError if another process has it, or if the file cannot be made.
    explicit OwnerLock(const std::string& journal);

    /// The file of that lock.
    static std::string pathFor(const std::string& journal) { return journal + ".lock"; }

  private:
    tool::Descriptor m_file;
};

}  // namespace fiscorad
