// How the library finds the name of the node.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include "doctor/Examination.h"
#include "i18n.h"

namespace doctor {

using tool::filled;
using tool::tr;

namespace {

namespace fs = std::filesystem;

constexpr char USB_DEVICES[] = "/sys/bus/usb/devices";
constexpr char BY_ID[] = "/dev/serial/by-id";
/// What the library's search looks for in the entries' names.
constexpr char FRAGMENT[] = "-mfc+_with_musb";

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

/// The first word of a file; empty if it cannot be read.
std::string wordIn(const fs::path& file) {
    std::string word;
    std::ifstream(file) >> word;
    return word;
}

/// Names in a folder, sorted.
std::vector<std::string> namesIn(const char* folder, std::error_code& failure) {
    std::vector<std::string> names;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
         entry.increment(failure))
        names.push_back(entry->path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

/// The target of a link in by-id; empty for anything else.
std::string targetOf(const std::string& name) {
    std::error_code none;
    const fs::path target = fs::read_symlink(fs::path(BY_ID) / name, none);
    return none ? "" : (BY_ID / target).lexically_normal().string();
}

std::string usbDevice(const std::string& product, const std::string& port) {
    return filled(tr("%s:%s on USB port %s"), serial::SERIAL_VENDOR_ID.c_str(), product.c_str(),
                  port.c_str());
}

/// Why there is no entry. `names` are those in by-id, `failure` says why it could not be read.
Finding missingEntry(Examination& examination, const std::vector<std::string>& names,
                     const std::error_code& failure) {
    if (failure && failure != std::errc::no_such_file_or_directory)
        return error(filled(tr("cannot read %s: %s"), BY_ID, reason(failure.value()).c_str()),
                     tr("Run this as the application's user and check the folder's permissions."));
    if (!examination.usbDevicePresent) return skipped(tr("no entry, because the device is not connected"));
    const std::unique_ptr<char, decltype(&std::free)> terminal(examination.channel.findUsbDeviceByVendorId(),
                                                               &std::free);
    if (!terminal)
        return error(tr("the device is connected, but the kernel has not created its serial port"),
                     tr("Load the driver with \"sudo modprobe cdc_acm\" and reconnect the USB cable."));
    if (failure)
        return error(
            filled(tr("%s does not exist, although the device is %s"), BY_ID, terminal.get()),
            tr("Start udev with \"sudo systemctl start systemd-udevd\" and reconnect the USB cable; in a "
               "container, mount /dev/serial."));
    return error(
        filled(tr("no entry with %s in its name (present: %s)"), FRAGMENT,
               names.empty() ? tr("nothing") : listed(names).c_str()),
        tr("The connected device is not the fiscal device, or is a model that the library does not know."));
}

}  // namespace

Finding checkSimulation(Examination& /*examination*/) {
    return {Verdict::Ok, tr("fiscora sim is active: the next steps examine the simulated device"),
            tr("To examine the real device, run \"fiscora doctor\" outside fiscora sim.")};
}

Finding checkUsbDevice(Examination& examination) {
    std::vector<std::string> found;
    bool expected = false;
    std::error_code failure;
    for (const auto& port : namesIn(USB_DEVICES, failure)) {
        const fs::path device = fs::path(USB_DEVICES) / port;
        if (wordIn(device / "idVendor") != serial::SERIAL_VENDOR_ID) continue;
        const std::string product = wordIn(device / "idProduct");
        expected = expected || product == serial::SERIAL_PRODUCT_ID;
        found.push_back(usbDevice(product, port));
    }
    examination.usbDevicePresent = !found.empty();
    if (expected) return ok(listed(found));
    if (!found.empty())
        return warning(
            filled(tr("%s; expected product %s"), listed(found).c_str(), serial::SERIAL_PRODUCT_ID.c_str()),
            tr("Check that this is the fiscal device; the library does not check the product."));
    const char* const vendor = serial::SERIAL_VENDOR_ID.c_str();
    const char* const node = examination.node.c_str();
    if (exists(examination.node))
        return warning(filled(tr("no USB device of vendor %s, but the library finds %s"), vendor, node),
                       filled(tr("Check that %s is the fiscal device."), node));
    if (failure)
        return error(filled(tr("cannot read %s: %s"), USB_DEVICES, reason(failure.value()).c_str()),
                     tr("Give the container or virtual machine access to the USB device."));
    return error(
        filled(tr("no USB device of vendor %s"), vendor),
        tr("Switch the device on, check its cable and power supply, wait until it has started and run this "
           "again."));
}

Finding checkEntry(Examination& examination) {
    std::error_code failure;
    const auto names = namesIn(BY_ID, failure);
    std::vector<std::string> matching;
    std::copy_if(names.begin(), names.end(), std::back_inserter(matching),
                 [](const std::string& name) { return name.find(FRAGMENT) != std::string::npos; });
    if (matching.empty()) return missingEntry(examination, names, failure);

    // ls sorts by locale, so the library's own listing says which entry counts.
    const auto winner = std::find_if(matching.begin(), matching.end(), [&](const std::string& name) {
        return examination.listing.find(" " + name + " -> ") != std::string::npos;
    });
    if (winner == matching.end())
        return error(filled(tr("%s exists, but the library's search does not list it as a link"),
                            listed(matching).c_str()),
                     tr("See the step \"commands\", and reconnect the USB cable."));
    examination.target = targetOf(*winner);
    const std::string entry = *winner + " -> " + examination.target;
    if (examination.node.empty())
        return error(
            filled(tr("%s, but the library opens only ttyACM terminals"), entry.c_str()),
            tr("That is not the fiscal device: disconnect the other device and reconnect the fiscal one."));
    if (!exists(examination.target))
        return error(filled(tr("%s, which does not exist"), entry.c_str()),
                     tr("This link was left by an earlier connection: reconnect the device's USB cable."));
    if (matching.size() == 1) return ok(entry);
    matching.erase(winner);
    return warning(filled(tr("the library uses the last of %zu entries, %s (there is also %s)"),
                          matching.size() + 1, entry.c_str(), listed(matching).c_str()),
                   tr("Leave only one fiscal device connected."));
}

Finding checkNodeNumber(Examination& examination) {
    const std::string& node = examination.node;
    if (examination.target == node) return ok(node);
    return error(
        filled(
            exists(node)
                ? tr("the device is %s, but the library reads only one digit and would open %s, another "
                     "device")
                : tr("the device is %s, but the library reads only one digit and would open %s, which does "
                     "not "
                     "exist"),
            examination.target.c_str(), node.c_str()),
        tr("Disconnect other USB serial devices and reconnect the fiscal one until it has a number from 0 "
           "to 9."));
}

}  // namespace doctor
