#include "local_time.h"

#include <array>

std::string localTimeText(const char* format, std::time_t when) {
    std::array<char, 80> text{};
    strftime(text.data(), text.size(), format, localtime(&when));
    return text.data();
}
