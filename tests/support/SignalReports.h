#pragma once

#include <TarnSocketIO/CSignalHandler.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/Resources.h"

/// Lets a function run into a fault, where the sanitizers would report it or fault themselves.
#define TARN_FAULTS_ON_PURPOSE \
    __attribute__((noinline, no_sanitize("address"), no_sanitize("thread"), no_sanitize("undefined")))

/// What the signal handler prints, and what its callback is told.
namespace TarnTest {

/// The signals that are handled, in the order in which they are installed.
inline constexpr std::array handled_signals = {SIGTERM, SIGINT, SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGCONT, SIGPOLL};

struct SignalCode {
    int code;
    const char* text;
};

/// How the codes of one signal are decoded.
struct SignalDecoder {
    const char* name;
    int signal;
    void (*decode)(int code, std::string& text);
    std::string unknown;            ///< what a code that is not known reads, its number left out
    std::vector<SignalCode> codes;  ///< those that the kernel counts from 1 first
    int last;                       ///< the last one of these
};

inline void PrintTo(const SignalDecoder& decoder, std::ostream* out) {
    *out << decoder.name;
}

inline const std::vector<SignalDecoder>& SignalDecoders() {
    using TarnSocketIO::CSignalHandler;
    static const std::vector<SignalDecoder> decoders = {
        {"SIGPOLL",
         SIGPOLL,
         CSignalHandler::ParseSIGPOLL,
         "POLL: unknown value ",
         {{POLL_IN, "POLL: data available"},
          {POLL_OUT, "POLL: write available"},
          {POLL_MSG, "POLL: message available"},
          {POLL_ERR, "POLL: descriptor error"},
          {POLL_PRI, "POLL: priority data available"},
          {POLL_HUP, "POLL: remote descriptor closed"},
          {SI_SIGIO, "POLL: IO ready"}},
         POLL_HUP},
        {"SIGSEGV",
         SIGSEGV,
         CSignalHandler::ParseSIGSEGV,
         "SEGMENTATION FAULT: unknown value ",
         {{SEGV_MAPERR, "SEGMENTATION FAULT: address not mapped to object"},
          {SEGV_ACCERR, "SEGMENTATION FAULT: invalid permissions for mapped object"}},
         SEGV_ACCERR},
        {"SIGILL",
         SIGILL,
         CSignalHandler::ParseSIGILL,
         "ILLEGAL: unknown value ",
         {{ILL_ILLOPC, "ILLEGAL: illegal opcode"},
          {ILL_ILLOPN, "ILLEGAL: illegal operand"},
          {ILL_ILLADR, "ILLEGAL: illegal addressing mode"},
          {ILL_ILLTRP, "ILLEGAL: illegal trap"},
          {ILL_PRVOPC, "ILLEGAL: privileged opcode"},
          {ILL_PRVREG, "ILLEGAL: privileged register"},
          {ILL_COPROC, "ILLEGAL: coprocessor error"},
          {ILL_BADSTK, "ILLEGAL: internal stack error"}},
         ILL_BADSTK},
        {"SIGFPE",
         SIGFPE,
         CSignalHandler::ParseSIGFPE,
         "FLOATING POINT EXCEPTION: unknown value ",
         {{FPE_INTDIV, "FLOATING POINT EXCEPTION: integer devide by zero"},
          {FPE_INTOVF, "FLOATING POINT EXCEPTION: integer overflow"},
          {FPE_FLTDIV, "FLOATING POINT EXCEPTION: floating point divide by zero"},
          {FPE_FLTOVF, "FLOATING POINT EXCEPTION: floating point overflow"},
          {FPE_FLTUND, "FLOATING POINT EXCEPTION: floating point underflow"},
          {FPE_FLTRES, "FLOATING POINT EXCEPTION: floating point inexact result"},
          {FPE_FLTINV, "FLOATING POINT EXCEPTION: floating point invalid operation"},
          {FPE_FLTSUB, "FLOATING POINT EXCEPTION: subscript out of range"}},
         FPE_FLTSUB},
        {"SIGBUS",
         SIGBUS,
         CSignalHandler::ParseSIGBUS,
         "BUS: unknown value ",
         {{BUS_ADRALN, "BUS: invalid address alignment"},
          {BUS_ADRERR, "BUS: non-existant physical address"},
          {BUS_OBJERR, "BUS: object specific hardware error"}},
         BUS_OBJERR},
    };
    return decoders;
}

inline std::string PointerText(const void* pointer) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%p", pointer);
    return text.data();
}

/// What the constructor prints.
inline std::string RegistrationLine(int number, const void* instance) {
    return "CSignalHandler::CSignalHandler - registering instance " + std::to_string(number) + " " +
           PointerText(instance) + "\n";
}

inline std::string GotLine(int signal, const void* callback) {
    return "CSignalHandler::SignalHandler - got signal " + std::to_string(signal) + ", handler at " +
           PointerText(callback) + "\n";
}

/// What ParseSigInfo prints.
inline std::string CaughtLines(const std::string& text, const void* address = nullptr) {
    return "\n\t\t*** signal caught *** - " + text + "\n" +
           (address != nullptr ? "\n\t\tAt address " + PointerText(address) + "\n" : "") + "\n";
}

/// The text that a record has to be printed with.
inline std::string TextOf(const siginfo_t& record) {
    for (const SignalDecoder& decoder : SignalDecoders()) {
        if (decoder.signal == record.si_signo) {
            std::string text;
            decoder.decode(record.si_code, text);
            return text;
        }
    }
    return record.si_signo == SIGINT ? "SIGINT" : record.si_signo == SIGTERM ? "SIGTERM" : "unknown";
}

/// What the handler prints.
inline std::string Report(int signal, const void* callback, const std::string& text, const void* address = nullptr) {
    return GotLine(signal, callback) + CaughtLines(text, address);
}

inline siginfo_t SignalRecord(int signal, int code) {
    siginfo_t record = {};
    record.si_signo = signal;
    record.si_code = code;
    return record;
}

/// Sends a record as it stands to the calling process, which the kernel lets a process do to itself. Only for its first
/// thread; any thread that does not block the signal may get it.
inline bool SendToItself(siginfo_t record) {
    return syscall(SYS_rt_sigqueueinfo, getpid(), record.si_signo, &record) == 0;
}

TARN_FAULTS_ON_PURPOSE inline int ReadFrom(const volatile void* address) {
    return *static_cast<const volatile char*>(address);
}

TARN_FAULTS_ON_PURPOSE inline void WriteTo(volatile void* address) {
    *static_cast<volatile char*>(address) = 1;
}

/// What a callback was told.
struct ToldSignal {
    int signal;
    bool has_info;
    siginfo_t info;
    pid_t thread;  ///< on which it ran
};

/// A callback that remembers what it is told.
class SignalRecorder : public TarnSocketIO::CSignalHandlerBase {
public:
    static constexpr std::size_t remembered = 32;

    /// Called when a signal has been noted, in signal context.
    std::function<void(int signal)> on_signal;

    void HandleSignal(int signal, siginfo_t* info) override {
        m_has_overlapped = m_is_running.exchange(true) || m_has_overlapped;
        ToldSignal& told = m_told[m_calls % remembered];
        told.signal = signal;
        told.has_info = info != nullptr;
        if (info != nullptr) {
            told.info = *info;
        }
        told.thread = ThisThread();
        if (on_signal) {
            on_signal(signal);
        }
        m_is_running = false;
        ++m_calls;
    }

    /// How many calls have returned.
    std::size_t Calls() const { return m_calls; }

    bool IsRunning() const { return m_is_running; }

    /// Whether a call has ever begun before another one had returned.
    bool HasOverlapped() const { return m_has_overlapped; }

    /// The n-th call, of the last few, counted from 0.
    const ToldSignal& Told(std::size_t n) const { return m_told[n % remembered]; }

    /// The signals of the first few calls.
    std::vector<int> Signals() const {
        std::vector<int> signals;
        for (std::size_t n = 0; n < m_calls; ++n) {
            signals.push_back(Told(n).signal);
        }
        return signals;
    }

private:
    std::array<ToldSignal, remembered> m_told = {};
    std::atomic<std::size_t> m_calls{0};
    std::atomic<bool> m_is_running{false};
    std::atomic<bool> m_has_overlapped{false};
};

/// A handler with a callback that remembers; that it registers is not shown.
class HandlerWithRecorder {
public:
    HandlerWithRecorder() {
        const OutputCapture registration;
        m_handler = std::make_unique<TarnSocketIO::CSignalHandler>(&recorder);
    }

    TarnSocketIO::CSignalHandler& operator*() const { return *m_handler; }

    void DestroyHandler() { m_handler.reset(); }

    /// Waits until so many calls of the callback have returned.
    bool HasBeenTold(std::size_t times) const {
        return Eventually([this, times] { return recorder.Calls() >= times; });
    }

    SignalRecorder recorder;

private:
    std::unique_ptr<TarnSocketIO::CSignalHandler> m_handler;
};

inline std::vector<int> MembersOf(const sigset_t& set) {
    std::vector<int> members;
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(&set, signal) == 1) {
            members.push_back(signal);
        }
    }
    return members;
}

/// What the calling thread blocks.
inline std::vector<int> BlockedSignals() {
    sigset_t set;
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    return MembersOf(set);
}

/// What the process does about a signal.
struct Disposition {
    void (*handler)(int signal, siginfo_t* info, void* context) = nullptr;
    int flags = 0;
    std::vector<int> mask;
};

inline bool operator==(const Disposition& one, const Disposition& other) {
    return one.handler == other.handler && one.flags == other.flags && one.mask == other.mask;
}

inline Disposition DispositionOf(int signal) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    constexpr int restorer = 0x04000000;  // SA_RESTORER, which the C library adds for itself
    return {action.sa_sigaction, action.sa_flags & ~restorer, MembersOf(action.sa_mask)};
}

/// As the handler installs it.
inline Disposition HandledWith(const std::vector<int>& mask) {
    return {TarnSocketIO::CSignalHandler::SignalHandler, SA_SIGINFO, mask};
}

/// Ends the process in the callback, and leaves to its parent what it was told.
class EndProcess : public TarnSocketIO::CSignalHandlerBase {
public:
    static constexpr int status = 42;

    explicit EndProcess(ToldSignal& told) : m_told(told) {}

    void HandleSignal(int signal, siginfo_t* info) override {
        m_told = {signal, info != nullptr, *info, ThisThread()};
        _exit(status);
    }

private:
    ToldSignal& m_told;
};

/// The record that a handler gets which is not the library's, in a process that `happen` is run in.
inline siginfo_t PlainRecord(const std::function<void()>& happen) {
    static siginfo_t* record = nullptr;
    const Shared<siginfo_t> shared;
    record = &*shared;
    ChildProcess child([&happen] {
        struct sigaction action = {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t* info, void*) {
            *record = *info;
            _exit(0);
        };
        for (const int signal : handled_signals) {
            sigaction(signal, &action, nullptr);
        }
        happen();
        pause();
    });
    child.ExitStatus();
    return *shared;
}

}  // namespace TarnTest
