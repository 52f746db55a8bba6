#pragma once

#include <cstddef>
#include <random>
#include <string>

/// Choices that a seed repeats.
class Random {
  public:
    explicit Random(unsigned seed) : m_generator(seed) {}

    /// From `least` to `most`.
    int number(int least, int most) { return std::uniform_int_distribution(least, most)(m_generator); }
    bool oneIn(int count) { return number(1, count) == 1; }
    template <typename Container>
    const auto& oneOf(const Container& container) {
        return container[static_cast<std::size_t>(number(0, static_cast<int>(container.size()) - 1))];
    }
    std::string digits(int count) {
        std::string text;
        while (count-- > 0) text += static_cast<char>('0' + number(0, 9));
        return text;
    }

  private:
    std::mt19937 m_generator;
};
