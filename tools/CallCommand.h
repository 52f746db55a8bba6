#pragma once

#include "Subcommand.h"

namespace tool {

/// `fiscora call`: makes one call through the library and prints what came of it.
class CallCommand : public Subcommand {
  public:
    explicit CallCommand(CLI::App& application);

    int run(const std::vector<std::string>& operands) override;

  private:
    std::string m_documentPath;  ///< where the answer's document goes
    bool m_dump = false;
    bool m_record = false;
};

}  // namespace tool
