#pragma once

/// The driver's version: getVersion returns it, every command carries it, and the log names it.
constexpr char DRIVER_VERSION[] = "01.00.01.001";
