/// The simulated fiscal device at the device's end of any serial line:  driver_device LINE ACTIVATION_CODE

#include <fcntl.h>
#include <termios.h>

#include <cstdio>
#include <iostream>

#include "sim/Descriptor.h"
#include "sim/DevicePort.h"
#include "sim/SimulatedDevice.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: driver_device LINE ACTIVATION_CODE\n";
        return 2;
    }
    const sim::Descriptor line(open(argv[1], O_RDWR | O_NOCTTY));
    termios mode;
    if (tcgetattr(line.get(), &mode) != 0) {
        std::perror(argv[1]);
        return 1;
    }
    cfmakeraw(&mode);
    if (tcsetattr(line.get(), TCSANOW, &mode) != 0) {
        std::perror(argv[1]);
        return 1;
    }
    sim::DeviceSettings settings;
    settings.activationCode = argv[2];
    sim::SimulatedDevice device(settings);
    sim::DevicePort(device, {}).run(line.get());
    return 0;
}
