#include "dispatcher/ActivationCode.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Descriptor.h"
#include "i18n.h"

namespace fiscorad {
namespace {

using tool::tr;

constexpr std::size_t LONGEST = 32;

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw ActivationCodeError(path + ": " + why);
}

bool isCode(std::string_view text) {
    return !text.empty() && text.size() <= LONGEST &&
           std::all_of(text.begin(), text.end(),
                       [](unsigned char c) { return c >= ' ' && c != '|' && c != 0x7F; });
}

/// Whether systemd keeps the file for this service alone. Its mode may show what an access control list
/// allows this user as if it were the group's.
bool isCredential(const std::string& path) {
    const char* const folder = std::getenv("CREDENTIALS_DIRECTORY");
    return folder != nullptr && std::filesystem::path(path).parent_path() == folder;
}

bool same(const struct stat& left, const struct stat& right) {
    const auto key = [](const struct stat& file) {
        return std::array<long long, 7>{static_cast<long long>(file.st_dev),
                                        static_cast<long long>(file.st_ino),
                                        file.st_size,
                                        file.st_mtim.tv_sec,
                                        file.st_mtim.tv_nsec,
                                        file.st_ctim.tv_sec,
                                        file.st_ctim.tv_nsec};
    };
    return key(left) == key(right);
}

}  // namespace

ActivationCode::ActivationCode(std::string path) : m_path(std::move(path)), m_text(read()) {}

std::string ActivationCode::read() {
    const tool::Descriptor file(open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0 || fstat(file.get(), &m_seen) != 0) fail(m_path, tool::systemError(errno));
    if (!S_ISREG(m_seen.st_mode)) fail(m_path, tr("not a regular file"));
    if ((m_seen.st_mode & (S_IRWXG | S_IRWXO)) != 0 && !isCredential(m_path))
        fail(m_path, tr("others may read the activation code; run: chmod 600 on it"));
    std::array<char, LONGEST + 3> bytes{};
    const ssize_t count = ::read(file.get(), bytes.data(), bytes.size());
    if (count < 0) fail(m_path, tool::systemError(errno));
    std::string text(bytes.data(), static_cast<std::size_t>(count));
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (!text.empty() && text.back() == '\r') text.pop_back();
    if (text.empty()) fail(m_path, tr("the activation code is missing"));
    if (!isCode(text))
        fail(m_path, tr("not an activation code: one line of 1 to 32 characters without \"|\""));
    return text;
}

bool ActivationCode::changed() {
    struct stat present {};
    if (stat(m_path.c_str(), &present) != 0 || same(present, m_seen)) return false;
    try {
        const std::string before = std::exchange(m_text, read());
        return before != m_text;
    } catch (const ActivationCodeError&) {
        return false;
    }
}

void ActivationCode::prepare(const std::string& code) {
    if (!isCode(code))
        fail(m_path, tr("not an activation code: one line of 1 to 32 characters without \"|\""));
    const std::string line = code + "\n";
    const std::string path = preparedPath();
    std::remove(path.c_str());
    const tool::Descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file.get() < 0 || write(file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
        fsync(file.get()) != 0)
        fail(path, tool::systemError(errno));
    m_prepared = code;
}

void ActivationCode::commit() {
    if (std::rename(preparedPath().c_str(), m_path.c_str()) != 0) fail(m_path, tool::systemError(errno));
    const std::string folder = std::filesystem::absolute(m_path).parent_path().string();
    const tool::Descriptor directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fsync(directory.get()) != 0) fail(m_path, tool::systemError(errno));
    m_text = m_prepared;
    stat(m_path.c_str(), &m_seen);
}

}  // namespace fiscorad
