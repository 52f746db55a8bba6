#include "doctor/Examination.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "i18n.h"
#include "link/discovery.h"
#include "sim/LineContract.h"

namespace doctor {

Examination::Examination()
    : node(channel.findUsbDevice()),
      listing(firstLineOf(serial::DISCOVERY_COMMAND)),
      simulatedLine(std::getenv(sim::LINE_VARIABLE)) {}

std::string reason(int error) {
    switch (error) {
        case EPERM: return tool::tr("forbidden by the system; give the container access to the device");
        case ENXIO:
        case ENODEV: return tool::tr("its device is gone");
        default: return tool::systemError(error);
    }
}

std::string listed(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

std::string userName() {
    const struct passwd* user = getpwuid(geteuid());
    return user != nullptr ? user->pw_name : std::to_string(geteuid());
}

std::string firstLineOf(const std::string& commandLine) {
    const std::unique_ptr<FILE, int (*)(FILE*)> stream(popen(commandLine.c_str(), "r"), pclose);
    std::array<char, 4096> line{};
    if (!stream || std::fgets(line.data(), line.size(), stream.get()) == nullptr) return {};
    const std::string text = line.data();
    return text.substr(0, text.find('\n'));
}

}  // namespace doctor
