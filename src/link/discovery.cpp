#include "link/discovery.h"

#include <dirent.h>
#include <glob.h>
#include <regex.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "link/SerialCommChannel.h"

namespace serial {

const std::string SERIAL_VENDOR_ID = "0525";
const std::string SERIAL_PRODUCT_ID = "a4a6";

namespace {

constexpr std::string_view NODE_PREFIX = "ttyACM";

using Stream = std::unique_ptr<FILE, int (*)(FILE*)>;

/// The sorted paths that match a pattern; none if the search failed.
class PathList {
  public:
    explicit PathList(const std::string& pattern)
        : m_found(glob(pattern.c_str(), 0, nullptr, &m_list) == 0) {}
    PathList(const PathList&) = delete;
    PathList& operator=(const PathList&) = delete;
    ~PathList() { globfree(&m_list); }

    std::size_t size() const { return m_found ? m_list.gl_pathc : 0; }
    const char* operator[](std::size_t index) const { return m_list.gl_pathv[index]; }

  private:
    glob_t m_list{};
    bool m_found;
};

/// First line of a stream, without its newline.
std::string firstLine(FILE* stream) {
    char* line = nullptr;
    std::size_t capacity = 0;
    const ssize_t length = getdelim(&line, &capacity, '\n', stream);
    const std::unique_ptr<char, void (*)(void*)> owner(line, std::free);
    if (length <= 0) return {};
    const std::string_view text(line, static_cast<std::size_t>(length));
    return std::string(text.back() == '\n' ? text.substr(0, text.size() - 1) : text);
}

/// Path of the vendor file of the first USB device with the fiscal device's vendor; empty if there is none,
/// or if a file before it cannot be read.
std::string findVendorFile() {
    const PathList files("/sys/bus/usb/devices/*/idVendor");
    for (std::size_t i = 0; i < files.size(); ++i) {
        const Stream file(fopen(files[i], "r"), fclose);
        if (!file) return {};
        if (firstLine(file.get()) == SERIAL_VENDOR_ID) return files[i];
    }
    return {};
}

/// Directory of a vendor file, its trailing slash included; empty if the path is no vendor file.
std::string deviceDirectory(const std::string& vendorFile) {
    regex_t expression;
    // Ending the process is given behaviour. It happens only if memory has run out.
    if (regcomp(&expression, "^(.*)idVendor[ \t\n]*$", REG_EXTENDED) != 0) std::exit(1);
    const std::unique_ptr<regex_t, void (*)(regex_t*)> owner(&expression, regfree);
    std::array<regmatch_t, 2> match;
    if (regexec(&expression, vendorFile.c_str(), match.size(), match.data(), 0) != 0) return {};
    return vendorFile.substr(0, static_cast<std::size_t>(match[1].rm_eo));
}

/// First name in a directory that does not begin with a dot; empty if there is none.
std::string firstEntry(const char* path) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path), closedir);
    if (!directory) return {};
    while (const dirent* entry = readdir(directory.get()))
        if (entry->d_name[0] != '.') return entry->d_name;
    return {};
}

}  // namespace

std::string SerialCommChannel::findUsbDevice() { return findDeviceNode(); }

std::string findDeviceNode() {
    std::array<char, 256> buffer{};
    const Stream listing(popen(DISCOVERY_COMMAND, "r"), pclose);
    if (!listing || fgets(buffer.data(), static_cast<int>(buffer.size()), listing.get()) == nullptr)
        return {};

    const std::string_view line = buffer.data();
    const auto node = line.find(NODE_PREFIX);
    if (node == std::string_view::npos) return {};
    return "/dev/" + std::string(line.substr(node, NODE_PREFIX.size() + 1));
}

char* SerialCommChannel::findUsbDeviceByVendorId() {
    const std::string vendorFile = findVendorFile();
    if (vendorFile.empty()) return nullptr;
    const std::string directory = deviceDirectory(vendorFile);
    if (directory.empty()) return nullptr;
    const PathList terminals(directory + "*/tty/");
    if (terminals.size() == 0) return nullptr;
    const std::string name = firstEntry(terminals[0]);
    if (name.empty()) return nullptr;

    return strdup(("/dev/" + name).c_str());
}

}  // namespace serial
