#pragma once

/// The driver's version: what getVersion returns, every command carries and the log names.
constexpr char DRIVER_VERSION[] = "01.00.01.001";
