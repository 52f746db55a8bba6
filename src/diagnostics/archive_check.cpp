#include "diagnostics/archive_check.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "diagnostics/LogFile.h"

namespace {

// The header of an entry in a tar archive (POSIX.1-1988, ustar): offsets and sizes in bytes.
constexpr std::size_t BLOCK_BYTES = 512;
constexpr std::size_t NAME_BYTES = 100;
constexpr std::size_t SIZE_OFFSET = 124;
constexpr std::size_t SIZE_BYTES = 12;  ///< of the entry's size, in octal digits
constexpr std::size_t TYPE_OFFSET = 156;
constexpr char REGULAR_FILE = '0';

using Block = std::array<char, BLOCK_BYTES>;
using Archive = std::unique_ptr<gzFile_s, int (*)(gzFile)>;

bool readBlock(const Archive& archive, Block& block) {
    return gzread(archive.get(), block.data(), BLOCK_BYTES) == static_cast<int>(BLOCK_BYTES);
}

/// Reads the `size` bytes of an entry; true if they are the content of `log`.
bool readEntry(const Archive& archive, std::uint64_t size, const LogFile& log) {
    bool isSame = lseek(log.fd(), 0, SEEK_END) == static_cast<off_t>(size);
    lseek(log.fd(), 0, SEEK_SET);
    for (Block expected{}, found{}; size > 0;) {
        const auto length = std::min<std::uint64_t>(size, BLOCK_BYTES);
        if (!readBlock(archive, found)) return false;
        isSame =
            isSame && read(log.fd(), expected.data(), length) == static_cast<ssize_t>(length) &&
            std::equal(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(length), expected.begin());
        size -= length;
    }
    return isSame;
}

}  // namespace

bool archiveHolds(const std::string& path, const std::string& name, const LogFile& log) {
    const LogFile file(path, O_RDONLY);
    if (!file.isOpen()) return false;
    const Archive archive(gzdopen(fcntl(file.fd(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "rb"), gzclose);
    if (!archive) return false;

    bool isHeld = false;
    Block header{};
    while (readBlock(archive, header) && header[0] != '\0') {  // two blocks of zeros end an archive
        const std::string entry(header.data(), strnlen(header.data(), NAME_BYTES));
        const std::string octal(&header[SIZE_OFFSET], SIZE_BYTES);
        const bool isFile = header[TYPE_OFFSET] == REGULAR_FILE || header[TYPE_OFFSET] == '\0';
        const bool isSame = readEntry(archive, std::strtoull(octal.c_str(), nullptr, 8), log);
        isHeld = isHeld || (isFile && entry == name && isSame);
    }
    while (readBlock(archive, header)) continue;
    // A damaged or cut stream says so at its end.
    int error = Z_OK;
    gzerror(archive.get(), &error);
    return isHeld && error == Z_OK && gzeof(archive.get()) != 0;
}
