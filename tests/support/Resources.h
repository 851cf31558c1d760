#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace TarnTest {

/// How many descriptors the process has open.
std::size_t CountOpenDescriptors();

/// How many threads the process has. One that was joined may still be counted for a moment (the emulator ends it only
/// afterwards); the helper that the thread sanitizer starts beside a program's first thread always is.
std::size_t CountThreads();

/// Whether the number is an open descriptor of the process.
bool IsOpen(int fd);

/// Waits until there is something to read on the descriptor, its end included.
///
/// @return false if there is still nothing after half a minute.
bool IsReadable(int fd);

/// The calling thread's number, for IsAsleep.
pid_t ThisThread();

/// Whether a thread of this process waits in the kernel for something to happen.
bool IsAsleep(pid_t thread);

/// A TCP and UDP port that nobody has bound, from below the range that the kernel hands out by itself: nobody else is
/// given it while a test binds it more than once.
std::uint16_t FindUnusedPort();

/// Makes 0 the number that the next descriptor gets, and standard input what it was before at the end.
class StandardInputSetAside {
public:
    StandardInputSetAside();
    ~StandardInputSetAside();
    StandardInputSetAside(const StandardInputSetAside&) = delete;
    StandardInputSetAside& operator=(const StandardInputSetAside&) = delete;

private:
    const int m_saved;
};

}  // namespace TarnTest
