#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Descriptor.h"
#include "log/Lines.h"

namespace logs {

/// Today's log and those of the days to come, while the library writes them. A log stays open while it is in
/// its folder, so its last lines are read even if the change of day archives and removes it meanwhile.
class LiveLog {
  public:
    /// `since` is the first day to read, YYYYMMDD. Each line goes to `take`, as `Lines` cuts it.
    LiveLog(std::filesystem::path directory, std::string since,
            std::function<void(std::string_view line)> take);

    /// Reads what has been written since the last call. A log or folder that is missing is looked for again
    /// by the next call. Returns "path: reason" for each log that cannot be opened.
    std::vector<std::string> read();

  private:
    using Id = std::pair<dev_t, ino_t>;
    struct File {
        tool::Descriptor descriptor;
        Lines lines;
        bool isListed = false;
    };

    /// Returns why it cannot; empty if it can, or if the log is gone.
    std::string open(const std::filesystem::path& path);
    static void readRest(File& file);

    std::filesystem::path m_directory;
    std::string m_since;
    std::function<void(std::string_view)> m_take;
    std::map<Id, File> m_files;
};

}  // namespace logs
