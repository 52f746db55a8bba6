#pragma once

#include "Subcommand.h"

namespace tool {

/// `fiscora doctor`: checks everything that a call needs, in the order of a call, and says what to do about
/// what is not in order. Sends nothing unless asked to.
class DoctorCommand : public Subcommand {
  public:
    explicit DoctorCommand(CLI::App& application);

    int run(const std::vector<std::string>& operands) override;

  private:
    bool m_ask = false;
    bool m_json = false;
};

}  // namespace tool
