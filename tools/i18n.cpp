#include "i18n.h"

#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <unordered_map>

namespace tool {
namespace {

namespace fs = std::filesystem;

/// Translations by the text in the sources, or by its singular; then the translation is that of the singular,
/// a NUL, and that of the plural.
using Catalogue = std::unordered_map<std::string, std::string>;
Catalogue catalogue;

std::uint32_t numberAt(std::size_t offset, std::string_view file) {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < sizeof number; ++i)
        number |= std::uint32_t{static_cast<unsigned char>(file.at(offset + i))} << (8 * i);
    return number;
}

/// The text whose length and place are at `offset`.
std::string textAt(std::size_t offset, std::string_view file) {
    return std::string(file.substr(numberAt(offset + 4, file), numberAt(offset, file)));
}

/// What msgfmt has compiled; the format is "The Format of GNU MO Files" of the manual of GNU gettext, in the
/// byte order that msgfmt writes on every machine. Read here because the C library's gettext translates
/// nothing if the user's locale was never generated, and on a small till none was. Throws std::out_of_range
/// if `file` is cut short.
Catalogue parsed(std::string_view file) {
    constexpr std::uint32_t MAGIC = 0x950412de;
    Catalogue texts;
    if (numberAt(0, file) != MAGIC) return texts;
    const std::size_t count = numberAt(8, file), originals = numberAt(12, file),
                      translations = numberAt(16, file);
    for (std::size_t i = 0; i < count; ++i)
        texts.emplace(textAt(originals + 8 * i, file).c_str(), textAt(translations + 8 * i, file));
    return texts;
}

std::string valueOf(const char* variable) {
    const char* const value = std::getenv(variable);
    return value != nullptr ? value : "";
}

/// The locale that the environment sets for messages, in the order of POSIX.
std::string localeOfMessages() {
    for (const char* const variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (std::string value = valueOf(variable); !value.empty()) return value;
    }
    return "C";
}

/// The user's languages, the favourite first, with colons between them. Whoever sets the C locale, in any
/// charset, relies on English: LANGUAGE does not count there.
std::string languages() {
    const std::string locale = localeOfMessages(), name = locale.substr(0, locale.find('.'));
    if (name == "C" || name == "POSIX") return "";
    const std::string list = valueOf("LANGUAGE");
    return !list.empty() ? list : locale;
}

/// The catalogue in `folder` for the first of the user's languages that has one; empty if there is none, or
/// if English, the language of the sources, comes first.
fs::path catalogueIn(const fs::path& folder) {
    std::istringstream list(languages());
    for (std::string language; std::getline(list, language, ':');) {
        const std::string country = language.substr(0, language.find_first_of(".@"));
        const std::string tongue = country.substr(0, country.find('_'));
        if (tongue == "en") break;
        for (const auto& name : {country, tongue}) {
            fs::path file = folder / name / "LC_MESSAGES/fiscora.mo";
            if (std::error_code error; fs::is_regular_file(file, error)) return file;
        }
    }
    return {};
}

/// glibc's texts in English, for the catalogue.
[[maybe_unused]] constexpr const char* SYSTEM_ERRORS[] = {
    translatable("Address already in use"),
    translatable("Bad file descriptor"),
    translatable("Cannot allocate memory"),
    translatable("Cannot assign requested address"),
    translatable("Device or resource busy"),
    translatable("File exists"),
    translatable("File name too long"),
    translatable("File too large"),
    translatable("Input/output error"),
    translatable("Is a directory"),
    translatable("No space left on device"),
    translatable("No such file or directory"),
    translatable("Not a directory"),
    translatable("Operation not permitted"),
    translatable("Permission denied"),
    translatable("Read-only file system"),
    translatable("Too many levels of symbolic links"),
    translatable("Too many open files"),
};

}  // namespace

void chooseLanguage() {
    // libarchive converts the names in an archive to this charset.
    if (std::setlocale(LC_CTYPE, "") == nullptr) std::setlocale(LC_CTYPE, "C.UTF-8");
    std::error_code error;
    const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
    const fs::path inBuildTree = here / "locale";
    std::ifstream file(
        catalogueIn(fs::is_directory(inBuildTree, error) ? inBuildTree : here / FISCORA_LOCALE_FOLDER),
        std::ios::binary);
    if (!file) return;
    try {
        catalogue = parsed(std::string(std::istreambuf_iterator<char>(file), {}));
    } catch (const std::out_of_range&) {
        // A damaged catalogue is as good as none.
    }
}

const char* tr(const char* text) {
    const auto found = catalogue.find(text);
    return found != catalogue.end() ? found->second.c_str() : text;
}

const char* tr(const char* one, const char* many, unsigned long count) {
    const auto found = catalogue.find(one);
    if (found == catalogue.end()) return count == 1 ? one : many;
    const char* const singular = found->second.c_str();
    return count == 1 ? singular : singular + found->second.find('\0') + 1;
}

std::string systemError(int error) {
    // In English, for our own catalogue: the C library's Portuguese is that of Portugal.
    const char* const text = strerrordesc_np(error);
    return text != nullptr ? tr(text) : std::strerror(error);
}

std::string filled(const char* format, ...) {
    va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    std::string text(static_cast<std::size_t>(std::max(std::vsnprintf(nullptr, 0, format, arguments), 0)),
                     '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    return text;
}

}  // namespace tool
