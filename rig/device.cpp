/// The simulated fiscal device at the device's end of any serial line:
///
///     driver_device LINE ACTIVATION_CODE [LATENCY_MS [BAUD]]
///
/// Each answer begins LATENCY_MS after its request (default 0), and the line runs at BAUD (default 0: no
/// limit). If the line has hung up or is missing, the program waits for it.

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>

#include "Descriptor.h"
#include "sim/DevicePort.h"
#include "sim/SimulatedDevice.h"

namespace {

/// The line in raw mode; -1 if it is missing.
tool::Descriptor openLine(const char* path) {
    tool::Descriptor line(open(path, O_RDWR | O_NOCTTY));
    termios mode;
    if (tcgetattr(line.get(), &mode) != 0) return tool::Descriptor();
    cfmakeraw(&mode);
    if (tcsetattr(line.get(), TCSANOW, &mode) != 0) return tool::Descriptor();
    return line;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr useconds_t LINE_POLL_US = 20'000;
    if (argc < 3 || argc > 5) {
        std::cerr << "usage: driver_device LINE ACTIVATION_CODE [LATENCY_MS [BAUD]]\n";
        return 2;
    }
    sim::DeviceSettings settings;
    settings.activationCode = argv[2];
    sim::SimulatedDevice device(settings);
    sim::PortSettings portSettings;
    if (argc > 3) portSettings.latency = std::chrono::milliseconds(std::atoi(argv[3]));
    if (argc > 4) portSettings.baud = std::atoi(argv[4]);
    sim::DevicePort port(device, portSettings);
    for (;;) {
        const tool::Descriptor line = openLine(argv[1]);
        if (line.get() < 0)
            usleep(LINE_POLL_US);
        else
            port.run(line.get());
    }
}
