// What a call needs besides the device: a folder for its log and the programs that it starts.

#include <fcntl.h>
#include <fnmatch.h>
#include <paths.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "doctor/Examination.h"
#include "local_time.h"

namespace doctor {
namespace {

namespace fs = std::filesystem;

/// The debug log's folder, below the working directory.
constexpr char LOG_DIRECTORY[] = "logsDrs";

bool isWritable(const std::string& path, int mode) {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

bool matches(const char* pattern, const std::string& name) { return fnmatch(pattern, name.c_str(), 0) == 0; }

/// Nothing that is wrong with the log fails a call.
Finding withoutLog(const std::string& found, const std::string& remedy) {
    return warning(found, "As chamadas seguem, mas sem log: " + remedy);
}

/// `path` as one word of a shell.
std::string quoted(const std::string& path) {
    std::string word = "'";
    for (const char character : path) word += character == '\'' ? "'\\''" : std::string(1, character);
    return word + "'";
}

/// What lets this user write to the log directory, `place`, and what is in it.
std::string adviceFor(const std::string& place) {
    struct stat status {};
    if (access(LOG_DIRECTORY, W_OK) != 0 && errno == EROFS)
        return "o disco só permite leitura: veja por quê (dmesg).";
    if (stat(LOG_DIRECTORY, &status) == 0 && status.st_uid == geteuid())
        return "rode \"chmod -R u+rwX " + quoted(place) + "\".";
    return "rode \"sudo chown -R " + userName() + " " + quoted(place) + "\".";
}

/// The present log directory, `place`.
Finding checkLogs(const std::string& place) {
    int logs = 0;
    int archives = 0;
    std::vector<std::string> unnamed;  // archives that a failed rename has left under their first name
    std::error_code unreadable;
    for (fs::directory_iterator entry(LOG_DIRECTORY, unreadable), end; !unreadable && entry != end;
         entry.increment(unreadable)) {
        const std::string name = entry->path().filename();
        if (matches("logDrs*.log", name)) ++logs;
        if (matches("logDrs*.tar.gz", name)) ++archives;
        if (matches("logDrs*.log.tar.gz", name)) unnamed.push_back(name);
    }
    const std::string user = userName();
    const std::string mend = adviceFor(place);
    if (unreadable) return withoutLog(place + " não pode ser lida: " + reason(unreadable.value()), mend);
    const std::string found =
        place + ": " + counted(logs, "log") + ", " + counted(archives, "arquivo") + " .tar.gz";
    const std::string today = std::string(LOG_DIRECTORY) + "/logDrs" + localTimeText("%Y%m%d") + ".log";
    if (!isWritable(LOG_DIRECTORY, W_OK | X_OK))
        return withoutLog(found + "; " + user + " não pode gravar nela", mend);
    if (fs::exists(today, unreadable) && !fs::is_regular_file(today, unreadable))
        return withoutLog(today + " não é um arquivo", "renomeie-o.");
    if (fs::exists(today, unreadable) && !isWritable(today, W_OK))
        return withoutLog(found + "; " + user + " não pode gravar o log de hoje", mend);
    if (fs::space(LOG_DIRECTORY, unreadable).available == 0)
        return withoutLog(found + "; o disco está cheio", "libere espaço.");
    if (!unnamed.empty())
        return warning(found + "; falhou a renomeação de " + listed(unnamed),
                       "Tire o \".log\" do meio do nome, se o outro nome ainda não existe.");
    return ok(found);
}

/// Those of the programs `names` that the shell does not find, each behind a blank.
std::string missingOf(const std::string& names) {
    return firstLineOf("for name in " + names +
                       "; do command -v $name >/dev/null || printf ' %s' $name; done");
}

}  // namespace

Finding checkLogDirectory(Examination& /*examination*/) {
    std::error_code failure;
    const fs::path here = fs::current_path(failure);
    if (failure)
        return warning("a pasta de trabalho não existe mais", "Entre na pasta do aplicativo e rode de novo.");
    const std::string place = here / LOG_DIRECTORY;
    const fs::file_status entry = fs::symlink_status(LOG_DIRECTORY, failure);
    if (!fs::exists(entry)) {
        if (isWritable(".", W_OK | X_OK)) return ok(place + " ainda não existe, e pode ser criada");
        return withoutLog(place + " não existe, e " + userName() + " não pode criá-la",
                          "rode o aplicativo em uma pasta em que ele possa gravar.");
    }
    if (!fs::is_directory(LOG_DIRECTORY, failure))
        return withoutLog(place + " não é uma pasta", "renomeie-o.");
    return checkLogs(place);
}

Finding checkCommands(Examination& /*examination*/) {
    if (access(_PATH_BSHELL, X_OK) != 0)
        return error(std::string("falta ") + _PATH_BSHELL, "Reinstale o shell do sistema.");
    const std::string ofSearch = missingOf("ls grep tail");
    const std::string ofLog = missingOf("tar gzip");
    if (!ofSearch.empty())
        return error(
            "fora do caminho de busca (PATH):" + ofSearch + ofLog,
            "Sem eles a biblioteca não acha o equipamento: corrija o PATH do aplicativo, ou instale-os.");
    if (!ofLog.empty())
        return warning(
            "fora do caminho de busca (PATH):" + ofLog,
            "Sem eles os logs antigos não são arquivados: corrija o PATH do aplicativo, ou instale-os.");
    return ok("sh, ls, grep, tail, tar e gzip estão no caminho de busca");
}

}  // namespace doctor
