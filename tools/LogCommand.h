#pragma once

#include "Subcommand.h"
#include "diagnostics/log_names.h"

namespace tool {

/// `fiscora log`: shows the calls in the library's daily logs and their archives.
class LogCommand : public Subcommand {
  public:
    explicit LogCommand(CLI::App& application);

    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_directory = LOG_DIRECTORY;
    std::string m_since;  ///< YYYYMMDD, or empty
    std::string m_picturePath;
    bool m_json = false;
    bool m_follow = false;
};

}  // namespace tool
