#include "i18n.h"

#include <clocale>
#include <filesystem>
#include <system_error>

namespace tool {

void chooseLanguage() {
    namespace fs = std::filesystem;
    std::setlocale(LC_CTYPE, "");
    std::setlocale(LC_MESSAGES, "");
    std::error_code error;
    const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
    const fs::path inBuildTree = here / "locale";
    const fs::path folder = fs::is_directory(inBuildTree, error) ? inBuildTree : here / FISCORA_LOCALE_FOLDER;
    bindtextdomain("fiscora", folder.c_str());
    bind_textdomain_codeset("fiscora", "UTF-8");
    textdomain("fiscora");
}

}  // namespace tool
