#pragma once

namespace TarnSocketIO::detail {

/// What a signal and its code (`si_code`) mean, in words. Made without allocating, because the thread that a signal
/// interrupts may be in the allocator.
class SignalMeaning {
public:
    /// The code counts for SIGPOLL, SIGSEGV, SIGILL, SIGFPE and SIGBUS. Of the others SIGINT and SIGTERM are named.
    SignalMeaning(int signal, int code);
    SignalMeaning(const SignalMeaning&) = delete;
    SignalMeaning& operator=(const SignalMeaning&) = delete;

    const char* Text() const { return m_text; }

private:
    const char* m_text;
    char m_buffer[256];  ///< for what is in no table
};

}  // namespace TarnSocketIO::detail
