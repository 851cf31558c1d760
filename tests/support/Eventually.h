#pragma once

#include <chrono>
#include <thread>

namespace TarnTest {

/// Waits until `condition()` holds.
///
/// @return true as soon as it does; false if it still does not after half a minute, which only happens when the test
///         has failed.
template <class Condition>
bool Eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace TarnTest
