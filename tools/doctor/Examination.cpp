#include "doctor/Examination.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "link/discovery.h"
#include "sim/LineContract.h"

namespace doctor {

Examination::Examination()
    : node(channel.findUsbDevice()),
      listing(firstLineOf(serial::DISCOVERY_COMMAND)),
      simulatedLine(std::getenv(sim::LINE_VARIABLE)) {}

std::string reason(int error) {
    switch (error) {
        case ENOENT: return "não existe";
        case EACCES: return "sem permissão";
        case EPERM: return "proibido pelo sistema; em um contêiner, dê-lhe acesso ao dispositivo";
        case ENXIO:
        case ENODEV: return "não há aparelho atrás dele";
        case EIO: return "erro de entrada ou saída";
        case ELOOP: return "links em círculo";
        default: return std::strerror(error);
    }
}

std::string listed(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) text += (text.empty() ? "" : ", ") + word;
    return text;
}

std::string counted(int count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
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
