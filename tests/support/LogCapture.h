#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace TarnTest {

/// Puts the debug log back into the state that it has when the library is loaded: off, empty, not initialised.
void ResetLog();

/// Switches the debug log on, into its ring, for as long as the object lives. One at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// The messages of the ring (the last 200 at most), oldest first, without their time stamps.
    std::vector<std::string> Messages() const;

    /// How often exactly this message is in the ring.
    std::size_t Count(const std::string& message) const;
};

}  // namespace TarnTest
