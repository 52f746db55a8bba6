#include "dispatcher/LibraryEquipment.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>

#include "link/discovery.h"

namespace fiscorad {
namespace {

/// When a link was last added to the folder that the library searches, or removed from it.
timespec linksChanged() {
    struct stat folder {};
    return stat("/dev/serial/by-id", &folder) == 0 ? folder.st_mtim : timespec{};
}

bool operator==(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

}  // namespace

bool LibraryEquipment::isStillThere() const {
    pollfd terminal{m_terminal.get(), 0, 0};
    const bool hungUp = poll(&terminal, 1, 0) != 0;
    return !hungUp && linksChanged() == m_linksChanged;
}

std::optional<std::uint64_t> LibraryEquipment::connection() {
    if (m_terminal.get() >= 0 && isStillThere()) return m_number;
    m_terminal = tool::Descriptor();
    m_linksChanged = linksChanged();
    const std::string node = serial::findDeviceNode();
    if (node.empty()) return std::nullopt;
    // For reading only, so that nothing printed can reach it; without waiting for a carrier.
    tool::Descriptor terminal(open(node.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (terminal.get() < 0 || flock(terminal.get(), LOCK_EX | LOCK_NB) != 0) return std::nullopt;
    m_terminal = std::move(terminal);
    return ++m_number;
}

rules::Reply LibraryEquipment::call(const manipulaDados::Operation& operation,
                                    const std::vector<manipulaDados::Argument>& arguments) {
    pbs::Message answer;
    const char* const body =
        m_library.exchange(operation, m_library.makeRequest(operation, arguments), answer);
    return {m_library.CodigoErro(), 0, body};
}

}  // namespace fiscorad
