#pragma once

#include <string>

/// The present local time in a format of strftime, at most 79 bytes of it. Not safe beside another thread's
/// localtime.
std::string localTimeText(const char* format);
