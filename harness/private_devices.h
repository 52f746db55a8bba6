#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform.h"
#include "surroundings.h"

/// Whether this process has a /dev, /sys and /run of its own, in which /dev/serial and /sys/bus/usb/devices
/// are the working directory's folders "serial" and "devices". Only then may a test touch them.
inline bool devicesArePrivate() {
    std::error_code absent;
    return std::filesystem::equivalent("serial", "/dev/serial", absent) &&
           std::filesystem::equivalent("devices", "/sys/bus/usb/devices", absent);
}

/// Runs the present test once more, as the only one of a process whose devices are private. There its
/// working directory's file "group" is /etc/group, with the group "terminais", and it sees no other process.
inline void repeatWithPrivateDevices() {
    const WorkingDirectory folder;
    for (const auto* root : {"serial", "devices"}) std::filesystem::create_directory(root);
    writeFile("group", "terminais:x:4711:\n");
    const std::string bubble =
        "bwrap --bind / / --dev /dev --bind \"$PWD/serial\" /dev/serial --tmpfs /sys --tmpfs /run"
        " --bind \"$PWD/devices\" /sys/bus/usb/devices --bind \"$PWD/group\" /etc/group"
        " --unshare-pid --proc /proc --cap-drop ALL --cap-add CAP_CHOWN ";
    if (runShell(bubble + "true").exitStatus != 0) GTEST_SKIP() << "bubblewrap makes no namespace here";
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    // Not on our terminal: one of the same number, of another instance of devpts, counts as the world's.
    const auto result = runShell(bubble + "'" + self + "' --gtest_filter=" + test->test_suite_name() + "." +
                                 test->name() + " </dev/null");
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    if (result.output.find("SKIPPED") != std::string::npos) GTEST_SKIP() << result.output;
}
