// What a call needs besides the device: a folder for its log and the programs that it starts.

#include <fcntl.h>
#include <paths.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "diagnostics/log_names.h"
#include "doctor/Examination.h"
#include "i18n.h"
#include "local_time.h"
#include "terminal_text.h"

namespace doctor {

using tool::filled;
using tool::tr;

namespace {

namespace fs = std::filesystem;

bool isWritable(const std::string& path, int mode) {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

bool endsWith(const std::string& name, const std::string& suffix) {
    return name.size() >= suffix.size() &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

/// Only a warning: no fault of the log fails a call.
Finding withoutLog(const std::string& found, const std::string& remedy) {
    return warning(found, tr("Calls work, but without a log.") + std::string(" ") + remedy);
}

/// How this user gets to write to the log directory, `place`, and to the files in it.
std::string adviceFor(const std::string& place) {
    struct stat status {};
    if (access(LOG_DIRECTORY, W_OK) != 0 && errno == EROFS)
        return tr("The disk is read-only; find out why with dmesg.");
    if (stat(LOG_DIRECTORY, &status) == 0 && status.st_uid == geteuid())
        return filled(tr("Run \"chmod -R u+rwX %s\"."), tool::shellWord(place).c_str());
    return filled(tr("Run \"sudo chown -R %s %s\"."), userName().c_str(), tool::shellWord(place).c_str());
}

/// The present log directory, `place`.
Finding checkLogs(const std::string& place) {
    unsigned long logs = 0;
    unsigned long archives = 0;
    std::vector<std::string> unnamed;  // archives left under their first name by a failed rename
    std::error_code unreadable;
    for (fs::directory_iterator entry(LOG_DIRECTORY, unreadable), end; !unreadable && entry != end;
         entry.increment(unreadable)) {
        const std::string name = entry->path().filename();
        std::error_code unknown;
        if (name.rfind(LOG_PREFIX, 0) != 0 || !entry->is_regular_file(unknown)) continue;
        if (endsWith(name, LOG_SUFFIX)) ++logs;
        if (endsWith(name, ARCHIVE_SUFFIX)) ++archives;
        if (endsWith(name, std::string(LOG_SUFFIX) + ARCHIVE_SUFFIX)) unnamed.push_back(name);
    }
    const std::string user = userName();
    const std::string mend = adviceFor(place);
    if (unreadable)
        return withoutLog(filled(tr("cannot read %s: %s"), place.c_str(), reason(unreadable.value()).c_str()),
                          mend);
    const std::string found = place + ": " + filled(tr("%lu log", "%lu logs", logs), logs) + ", " +
                              filled(tr("%lu .tar.gz archive", "%lu .tar.gz archives", archives), archives);
    const std::string today =
        std::string(LOG_DIRECTORY) + "/" + LOG_PREFIX + localTimeText("%Y%m%d") + LOG_SUFFIX;
    if (!isWritable(LOG_DIRECTORY, W_OK | X_OK))
        return withoutLog(filled(tr("%s; %s cannot write to it"), found.c_str(), user.c_str()), mend);
    if (fs::exists(today, unreadable) && !fs::is_regular_file(today, unreadable))
        return withoutLog(filled(tr("%s is not a file"), today.c_str()), tr("Rename it."));
    if (fs::exists(today, unreadable) && !isWritable(today, W_OK))
        return withoutLog(filled(tr("%s; %s cannot write today's log"), found.c_str(), user.c_str()), mend);
    if (fs::space(LOG_DIRECTORY, unreadable).available == 0)
        return withoutLog(filled(tr("%s; the disk is full"), found.c_str()), tr("Free some space."));
    if (!unnamed.empty())
        return warning(
            filled(tr("%s; %s could not be renamed"), found.c_str(), listed(unnamed).c_str()),
            tr("Remove the \".log\" from the middle of the name, unless that name already exists."));
    return ok(found);
}

/// Which of the programs `names` the shell does not find, with a blank before each.
std::string missingOf(const std::string& names) {
    return firstLineOf("for name in " + names +
                       "; do command -v $name >/dev/null || printf ' %s' $name; done");
}

}  // namespace

Finding checkLogDirectory(Examination& /*examination*/) {
    std::error_code failure;
    const fs::path here = fs::current_path(failure);
    if (failure)
        return warning(tr("the working directory no longer exists"),
                       tr("Change to the application's folder and run this again."));
    const std::string place = here / LOG_DIRECTORY;
    const fs::file_status entry = fs::symlink_status(LOG_DIRECTORY, failure);
    if (!fs::exists(entry)) {
        if (isWritable(".", W_OK | X_OK))
            return ok(filled(tr("%s does not exist yet and can be created"), place.c_str()));
        return withoutLog(
            filled(tr("%s does not exist, and %s cannot create it"), place.c_str(), userName().c_str()),
            tr("Run the application in a folder that it can write to."));
    }
    if (!fs::is_directory(LOG_DIRECTORY, failure))
        return withoutLog(filled(tr("%s is not a folder"), place.c_str()), tr("Rename it."));
    return checkLogs(place);
}

Finding checkCommands(Examination& /*examination*/) {
    if (access(_PATH_BSHELL, X_OK) != 0)
        return error(filled(tr("%s is missing"), _PATH_BSHELL), tr("Reinstall the system's shell."));
    const std::string ofSearch = missingOf("ls grep tail");
    const std::string ofLog = missingOf("tar gzip");
    if (!ofSearch.empty())
        return error(filled(tr("not in the PATH:%s"), (ofSearch + ofLog).c_str()),
                     tr("The library cannot find the device without them: correct the application's PATH, or "
                        "install them."));
    if (!ofLog.empty())
        return warning(
            filled(tr("not in the PATH:%s"), ofLog.c_str()),
            tr("Old logs are not archived without them: correct the application's PATH, or install "
               "them."));
    return ok(tr("sh, ls, grep, tail, tar and gzip are in the PATH"));
}

}  // namespace doctor
