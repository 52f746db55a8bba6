#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "link/SerialCommChannel.h"
#include "platform.h"
#include "private_devices.h"

namespace {

namespace fs = std::filesystem;

/// Makes what "link -> target", "file=content" or "folder" says.
void make(const std::string& entry) {
    const auto mark = entry.find_first_of(" =");
    const fs::path path = entry.substr(0, mark);
    fs::create_directories(mark == std::string::npos ? path : path.parent_path());
    if (mark != std::string::npos && entry[mark] == '=') std::ofstream(path) << entry.substr(mark + 1);
    if (mark != std::string::npos && entry[mark] == ' ') fs::create_symlink(entry.substr(mark + 4), path);
}

TEST(Discovery, TheDeviceIsFoundByNameAndByVendor) {
    if (!devicesArePrivate()) return repeatWithPrivateDevices();
    const std::string usb = "serial/by-id/usb", mark = "-mfc+_with_musb-if00 -> ../../tty";
    const std::string device = "devices/1-1", vendor = device + "/idVendor=0525\n",
                      tty = "/1-1:1.0/tty/ttyACM";
    const std::string later = "devices/2-1", laterVendor = later + "/idVendor=0525\n";
    const struct {
        std::string name, byName, byVendor;
        std::vector<std::string> entries;
    } cases[] = {
        // clang-format off
        {"no folders", "", "", {}},
        {"empty folders", "", "", {"serial/by-id", vendor}},
        {"one device", "/dev/ttyACM0", "/dev/ttyACM3", {usb + mark + "ACM0", vendor, device + tty + "3"}},
        {"two names", "/dev/ttyACM2", "", {usb + "b" + mark + "ACM2", usb + "a" + mark + "ACM5"}},
        {"two digits", "/dev/ttyACM1", "/dev/ttyACM12", {usb + mark + "ACM12", vendor, device + tty + "12"}},
        {"last name on another driver", "", "", {usb + "a" + mark + "ACM0", usb + "b" + mark + "USB0"}},
        {"similar names", "", "", {usb + "-mfc_with_musb -> ../../ttyACM0", usb + "-mfcc_with_musb -> ../../ttyACM1"}},
        {"vendor without line end", "", "/dev/ttyACM3", {device + "/idVendor=0525", device + "/idProduct=ffff", device + tty + "3"}},
        {"longer vendor", "", "", {device + "/idVendor=05250\n", device + tty + "3"}},
        {"empty and foreign vendor first", "", "/dev/ttyACM7", {device + "/idVendor=", "devices/1-2/idVendor=1d6b\n", laterVendor, later + tty + "7"}},
        {"unreadable vendor first", "", "", {"devices/1-0/idVendor -> nowhere", vendor, device + tty + "3"}},
        {"folders beside tty", "", "/dev/ttyS4", {vendor, device + "/a/ttys/S0", device + "/b/tty/ttyS4", device + "/c/tty/ttyS5"}},
        {"first device without tty", "", "", {vendor, laterVendor, later + tty + "7"}},
        {"hidden entry", "", "", {vendor, device + "/a/tty/.hidden"}},
    };  // clang-format on
    platform.usleep = [](useconds_t) { return 0; };
    serial::SerialCommChannel channel;
    const long before = openDescriptors();
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        for (const auto& entry : one.entries) make(entry);
        testing::internal::CaptureStderr();
        EXPECT_EQ(channel.findUsbDevice(), one.byName);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        const std::unique_ptr<char, decltype(&std::free)> path(channel.findUsbDeviceByVendorId(), &std::free);
        EXPECT_EQ(path ? path.get() : "", one.byVendor);
        for (const auto* root : {"serial", "devices"})
            for (const auto& entry : fs::directory_iterator(root)) fs::remove_all(entry);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Discovery, ALineOfTheListingIsReadUpToItsBuffer) {
    FakeLine line;
    serial::SerialCommChannel channel;
    line.listing = std::string(248, 'x') + "ttyACM12";
    EXPECT_EQ(channel.findUsbDevice(), "/dev/ttyACM1");
    line.listing.insert(0, 2, 'x');
    EXPECT_EQ(channel.findUsbDevice(), "");
    platform.popen = [](const char*) { return nullptr; };
    EXPECT_EQ(channel.findUsbDevice(), "");
}

}  // namespace
