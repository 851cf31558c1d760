#pragma once

#include <chrono>

namespace TarnTest {

/// How long the call of `action` takes.
template <class Action>
std::chrono::milliseconds DurationOf(Action action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

// A wait that was cut short is told from one that was not by the fastest of a few: noise only ever makes them longer.
inline constexpr int attempts = 10;
inline constexpr std::chrono::milliseconds cut_short(250);

}  // namespace TarnTest
