#pragma once

#include <ctime>
#include <string>

/// A time of the local clock, by default the present one, in a format of strftime, at most 79 bytes of it.
/// Not safe beside another thread's localtime.
std::string localTimeText(const char* format, std::time_t when = time(nullptr));
