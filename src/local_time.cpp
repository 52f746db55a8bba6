#include "local_time.h"

#include <array>
#include <ctime>

std::string localTimeText(const char* format) {
    const std::time_t now = time(nullptr);
    std::array<char, 80> text{};
    strftime(text.data(), text.size(), format, localtime(&now));
    return text.data();
}
