#include "i18n.h"

#include <algorithm>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace tool {
namespace {

/// The locale that the environment sets for `category`, in the order of POSIX.
const char* localeOf(const char* category) {
    for (const char* const name : {"LC_ALL", category, "LANG"}) {
        const char* const value = std::getenv(name);
        if (value != nullptr && *value != '\0') return value;
    }
    return "";
}

/// A locale that was never generated, as in most containers, leaves the C locale, in which gettext translates
/// nothing. C.UTF-8, which is always there, lets it look at LANGUAGE. Programs started from here inherit that
/// variable; it repeats what the user has asked for anyway.
void chooseWithoutLocale() {
    std::setlocale(LC_MESSAGES, "C.UTF-8");
    const char* const chosen = std::getenv("LANGUAGE");
    if (chosen == nullptr || *chosen == '\0') setenv("LANGUAGE", localeOf("LC_MESSAGES"), 1);
}

/// glibc's texts in English, for the catalogue.
[[maybe_unused]] constexpr const char* SYSTEM_ERRORS[] = {
    translatable("Bad file descriptor"),
    translatable("Cannot allocate memory"),
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
    namespace fs = std::filesystem;
    if (std::setlocale(LC_CTYPE, "") == nullptr) std::setlocale(LC_CTYPE, "C.UTF-8");
    if (std::setlocale(LC_MESSAGES, "") == nullptr) chooseWithoutLocale();
    std::error_code error;
    const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
    const fs::path inBuildTree = here / "locale";
    const fs::path folder = fs::is_directory(inBuildTree, error) ? inBuildTree : here / FISCORA_LOCALE_FOLDER;
    bindtextdomain("fiscora", folder.c_str());
    bind_textdomain_codeset("fiscora", "UTF-8");
    textdomain("fiscora");
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
