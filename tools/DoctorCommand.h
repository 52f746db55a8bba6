#pragma once

#include "Subcommand.h"

namespace tool {

/// `fiscora doctor`: goes along the way of a call and says, in Portuguese, what is in order and what to do
/// about what is not. Sends nothing unless asked to.
class DoctorCommand : public Subcommand {
  public:
    explicit DoctorCommand(CLI::App& application);

    int run(const std::vector<std::string>& operands) override;

  private:
    bool m_ask = false;
    bool m_json = false;
};

}  // namespace tool
