#pragma once

#include "Subcommand.h"

namespace tool {

/// `fiscora call`: makes one call through the library and prints the answer.
class CallCommand : public Subcommand {
  public:
    explicit CallCommand(CLI::App& application);

    int run(const std::vector<std::string>& operands) override;

  private:
    int makeCall(std::vector<std::string> words) const;

    std::string m_documentPath;  ///< for the answer's document
    bool m_full = false;
    bool m_list = false;
    bool m_dump = false;
    bool m_record = false;
};

}  // namespace tool
