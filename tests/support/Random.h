#pragma once

#include <array>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>

namespace TarnTest {

/// Random input for properties: the same in each run and on each machine.
class Random {
public:
    explicit Random(unsigned int seed) : m_engine(seed) {}

    unsigned int Below(unsigned int end) { return static_cast<unsigned int>(m_engine() % end); }

    bool OneIn(unsigned int n) { return Below(n) == 0; }

    template <std::size_t Count>
    std::array<unsigned char, Count> Octets() {
        std::array<unsigned char, Count> octets{};
        for (unsigned char& octet : octets) {
            octet = static_cast<unsigned char>(Below(256));
        }
        return octets;
    }

    char OneOf(std::string_view characters) { return characters[Below(static_cast<unsigned int>(characters.size()))]; }

    /// @param alphabet  empty: every byte but NUL.
    std::string Text(std::string_view alphabet, unsigned int shortest, unsigned int longest) {
        std::string text(shortest + Below(longest - shortest + 1), '\0');
        for (char& c : text) {
            c = alphabet.empty() ? static_cast<char>(1 + Below(255)) : OneOf(alphabet);
        }
        return text;
    }

private:
    std::mt19937 m_engine;
};

}  // namespace TarnTest
