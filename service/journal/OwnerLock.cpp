#include "journal/OwnerLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "i18n.h"
#include "journal/Journal.h"

namespace fiscorad {

OwnerLock::OwnerLock(const std::string& journal) {
    const std::string path = pathFor(journal);
    m_file = tool::Descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (m_file.get() < 0) throw JournalError(journal + ": " + tool::systemError(errno));
    if (flock(m_file.get(), LOCK_EX | LOCK_NB) != 0)
        throw JournalError(journal + ": " + tool::tr("another fiscorad is using this journal"));
}

}  // namespace fiscorad
