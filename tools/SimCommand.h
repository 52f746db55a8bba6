#pragma once

#include "Subcommand.h"
#include "sim/DevicePort.h"
#include "sim/SimulatedDevice.h"

namespace tool {

/// `fiscora sim`: runs a command with a simulated device in place of the real one.
class SimCommand : public Subcommand {
  public:
    explicit SimCommand(CLI::App& application);

    int run(const std::vector<std::string>& operands) override;

  private:
    sim::DeviceSettings m_device;
    sim::PortSettings m_port;
    std::string m_ledger;  ///< file name; empty for none
    bool m_trace = false;
    bool m_traceSecrets = false;
    bool m_listFaults = false;
};

}  // namespace tool
