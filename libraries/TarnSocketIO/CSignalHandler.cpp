#include <TarnSocketIO/CSignalHandler.h>

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string_view>

#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/SignalMeaning.h>

namespace TarnSocketIO {

using detail::SignalMeaning;

std::atomic<CSignalHandlerBase*> CSignalHandler::m_pHandler{nullptr};
CMutex CSignalHandler::m_mutex(CMutex::enNormal);
std::atomic<bool> CSignalHandler::s_bInitialised{false};
std::atomic<int> CSignalHandler::s_nRegisteredHandlerIter{0};

static_assert(std::atomic<CSignalHandlerBase*>::is_always_lock_free, "it is read in signal context");

namespace {

struct Registration {
    int signal;
    const char* failure;
};

constexpr Registration ending_signals[] = {
    {SIGTERM, "CSignalHandler::Initialise - could not register SIGTERM"},
    {SIGINT, "CSignalHandler::Initialise - could not register SIGINT"},
    {SIGSEGV, "CSignalHandler::Initialise - could not register SIGSEGV"},
    {SIGILL, "CSignalHandler::Initialise - could not register SIGILL"},
    {SIGFPE, "CSignalHandler::Initialise - could not register SIGFPE"},
    {SIGBUS, "CSignalHandler::Initialise - could not register SIGBUS"},
};

// Kept: these two are reported in the log, and with a newline of their own.
constexpr Registration other_signals[] = {
    {SIGCONT, "CSignalHandler::Initialise - could not register SIGCONT\n"},
    {SIGPOLL, "CSignalHandler::Initialise - could not register SIGPOLL\n"},
};

/// Keeps the handled signals from the calling thread for a scope. One that came while the thread has the registration
/// locked would wait for that lock for ever. So they come afterwards; only a fault cannot wait, and ends the process.
class HandledSignalsHeld {
public:
    HandledSignalsHeld() : m_before() {
        sigset_t handled;
        sigemptyset(&handled);
        for (const Registration& registration : ending_signals) {
            sigaddset(&handled, registration.signal);
        }
        for (const Registration& registration : other_signals) {
            sigaddset(&handled, registration.signal);
        }
        pthread_sigmask(SIG_BLOCK, &handled, &m_before);
    }
    ~HandledSignalsHeld() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    HandledSignalsHeld(const HandledSignalsHeld&) = delete;
    HandledSignalsHeld& operator=(const HandledSignalsHeld&) = delete;

private:
    sigset_t m_before;
};

/// Writes to standard output from signal context: in its order with what the process has printed itself, and through to
/// the file, because the callback may end the process.
void Print(std::string_view text) {
    if (ftrylockfile(stdout) == 0) {
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
        funlockfile(stdout);
        return;
    }
    // Somebody is printing, and if it is the very thread that was interrupted, waiting for it would be for ever.
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written > 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

void PrintFormat(const char* format, ...) TARN_PRINTF_FORMAT(1, 2);

void PrintFormat(const char* format, ...) {
    char buffer[512];
    detail::BoundedText text(buffer, sizeof buffer, 0);
    va_list args;
    va_start(args, format);
    text.AppendFormat(format, args);
    va_end(args);
    Print(text.View());
}

}  // namespace

CSignalHandler::CSignalHandler(CSignalHandlerBase* handler) : m_BlockSet(), m_UnusedSet() {
    if (!s_bInitialised) {
        m_pHandler = nullptr;
    }
    std::printf("CSignalHandler::CSignalHandler - registering instance %d %p\n", s_nRegisteredHandlerIter.load(),
                static_cast<void*>(this));
    {
        const HandledSignalsHeld held;
        const CScopedLocker<CMutex> lock(m_mutex);
        m_pHandler = handler;
    }
    sigemptyset(&m_BlockSet);
    sigemptyset(&m_UnusedSet);
    if (!s_bInitialised) {
        Initialise();
    }
}

CSignalHandler::~CSignalHandler() {
    m_pHandler = nullptr;
}

void CSignalHandler::Initialise() {
    struct sigaction action {};
    action.sa_sigaction = SignalHandler;
    action.sa_flags = SA_SIGINFO;
    action.sa_mask = m_BlockSet;
    const auto install = [&action](int signal) { return sigaction(signal, &action, nullptr) == 0; };

    for (const Registration& registration : ending_signals) {
        if (!install(registration.signal)) {
            std::puts(registration.failure);
        }
    }
    for (const Registration& registration : other_signals) {
        if (!install(registration.signal)) {
            CUtility::Debug("%s", registration.failure);
        }
    }

    sigaddset(&m_BlockSet, SIGTERM);
    sigaddset(&m_BlockSet, SIGINT);
    s_bInitialised = true;
}

void CSignalHandler::BlockSignals() {
    sigprocmask(SIG_BLOCK, &m_BlockSet, nullptr);
}

void CSignalHandler::UnblockSignals() {
    sigprocmask(SIG_UNBLOCK, &m_BlockSet, nullptr);
}

void CSignalHandler::SignalHandler(int signal, siginfo_t* info, void* /*context*/) {
    const int errno_of_interrupted = errno;
    {
        const HandledSignalsHeld held;
        PrintFormat("CSignalHandler::SignalHandler - got signal %d, handler at %p\n", signal,
                    static_cast<void*>(m_pHandler.load()));
        ParseSigInfo(info);
        const CScopedLocker<CMutex> lock(m_mutex);
        // Looked at once: the destructor clears it without the lock.
        CSignalHandlerBase* const handler = m_pHandler;
        if (handler != nullptr) {
            handler->HandleSignal(signal, info);
        }
    }
    errno = errno_of_interrupted;
}

void CSignalHandler::ParseSigInfo(siginfo_t* info) {
    if (info == nullptr) {
        CUtility::Debug("CSignalHandler::ParseSIInfo - NULL siginfo");
        return;
    }
    const SignalMeaning meaning(info->si_signo, info->si_code);
    if (info->si_signo == SIGSEGV && info->si_addr != nullptr) {
        PrintFormat("\n\t\t*** signal caught *** - %s\n\n\t\tAt address %p\n\n", meaning.Text(), info->si_addr);
    } else {
        PrintFormat("\n\t\t*** signal caught *** - %s\n\n", meaning.Text());
    }
}

void CSignalHandler::ParseSIGPOLL(int code, std::string& text) {
    text = SignalMeaning(SIGPOLL, code).Text();
}

void CSignalHandler::ParseSIGSEGV(int code, std::string& text) {
    text = SignalMeaning(SIGSEGV, code).Text();
}

void CSignalHandler::ParseSIGILL(int code, std::string& text) {
    text = SignalMeaning(SIGILL, code).Text();
}

void CSignalHandler::ParseSIGFPE(int code, std::string& text) {
    text = SignalMeaning(SIGFPE, code).Text();
}

void CSignalHandler::ParseSIGBUS(int code, std::string& text) {
    text = SignalMeaning(SIGBUS, code).Text();
}

}  // namespace TarnSocketIO
