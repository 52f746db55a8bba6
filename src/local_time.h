#pragma once

#include <ctime>
#include <string>

/// Local time, by default the present one, in a strftime format; empty if that is longer than 79 bytes. Not
/// safe while another thread calls localtime.
std::string localTimeText(const char* format, std::time_t when = time(nullptr));
