#include <TarnSocketIO/CSignalHandler.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>

#include <TarnSocketIO/CUtility.h>

namespace TarnSocketIO {

std::atomic<CSignalHandlerBase*> CSignalHandler::m_pHandler{nullptr};
CMutex CSignalHandler::m_mutex(CMutex::enNormal);
std::atomic<bool> CSignalHandler::s_bInitialised{false};
std::atomic<int> CSignalHandler::s_nRegisteredHandlerIter{0};

static_assert(std::atomic<CSignalHandlerBase*>::is_always_lock_free, "it is read in signal context");

namespace {

struct CodeText {
    int code;
    const char* text;
};

/// What the codes of one signal mean.
struct CodeTable {
    const char* name;  ///< what every text begins with
    const CodeText* entries;
    std::size_t count;

    template <std::size_t Count>
    constexpr CodeTable(const char* table_name, const CodeText (&table)[Count])
        : name(table_name), entries(table), count(Count) {}
};

constexpr CodeText poll_codes[] = {
    {SI_SIGIO, "POLL: IO ready"},
    {POLL_IN, "POLL: data available"},
    {POLL_OUT, "POLL: write available"},
    {POLL_MSG, "POLL: message available"},
    {POLL_ERR, "POLL: descriptor error"},
    {POLL_PRI, "POLL: priority data available"},
    {POLL_HUP, "POLL: remote descriptor closed"},
};

constexpr CodeText segv_codes[] = {
    {SEGV_MAPERR, "SEGMENTATION FAULT: address not mapped to object"},
    {SEGV_ACCERR, "SEGMENTATION FAULT: invalid permissions for mapped object"},
};

constexpr CodeText ill_codes[] = {
    {ILL_ILLOPC, "ILLEGAL: illegal opcode"},          {ILL_ILLOPN, "ILLEGAL: illegal operand"},
    {ILL_ILLADR, "ILLEGAL: illegal addressing mode"}, {ILL_ILLTRP, "ILLEGAL: illegal trap"},
    {ILL_PRVOPC, "ILLEGAL: privileged opcode"},       {ILL_PRVREG, "ILLEGAL: privileged register"},
    {ILL_COPROC, "ILLEGAL: coprocessor error"},       {ILL_BADSTK, "ILLEGAL: internal stack error"},
};

constexpr CodeText fpe_codes[] = {
    {FPE_INTDIV, "FLOATING POINT EXCEPTION: integer devide by zero"},
    {FPE_INTOVF, "FLOATING POINT EXCEPTION: integer overflow"},
    {FPE_FLTDIV, "FLOATING POINT EXCEPTION: floating point divide by zero"},
    {FPE_FLTOVF, "FLOATING POINT EXCEPTION: floating point overflow"},
    {FPE_FLTUND, "FLOATING POINT EXCEPTION: floating point underflow"},
    {FPE_FLTRES, "FLOATING POINT EXCEPTION: floating point inexact result"},
    {FPE_FLTINV, "FLOATING POINT EXCEPTION: floating point invalid operation"},
    {FPE_FLTSUB, "FLOATING POINT EXCEPTION: subscript out of range"},
};

constexpr CodeText bus_codes[] = {
    {BUS_ADRALN, "BUS: invalid address alignment"},
    {BUS_ADRERR, "BUS: non-existant physical address"},
    {BUS_OBJERR, "BUS: object specific hardware error"},
};

constexpr CodeTable poll_table("POLL", poll_codes);
constexpr CodeTable segv_table("SEGMENTATION FAULT", segv_codes);
constexpr CodeTable ill_table("ILLEGAL", ill_codes);
constexpr CodeTable fpe_table("FLOATING POINT EXCEPTION", fpe_codes);
constexpr CodeTable bus_table("BUS", bus_codes);

/// A text for one code. Made without allocating: the interrupted thread may have been in the allocator.
class Meaning {
public:
    Meaning(const CodeTable& table, int code) {
        for (std::size_t i = 0; i < table.count; ++i) {
            if (table.entries[i].code == code) {
                m_text = table.entries[i].text;
                return;
            }
        }
        std::snprintf(m_buffer, sizeof m_buffer, "%s: unknown value %d", table.name, code);
        m_text = m_buffer;
    }
    Meaning(const Meaning&) = delete;
    Meaning& operator=(const Meaning&) = delete;

    const char* Text() const { return m_text; }

private:
    char m_buffer[256];
    const char* m_text;
};

/// @return null for a signal whose codes are not told.
const CodeTable* CodesOf(int signal) {
    switch (signal) {
        case SIGILL:
            return &ill_table;
        case SIGBUS:
            return &bus_table;
        case SIGFPE:
            return &fpe_table;
        case SIGSEGV:
            return &segv_table;
        case SIGPOLL:
            return &poll_table;
        default:
            return nullptr;
    }
}

const char* NameOf(int signal) {
    switch (signal) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        default:
            return "unknown";
    }
}

void PrintCaught(const char* text) {
    std::printf("\n\t\t*** signal caught *** - %s\n", text);
}

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
    std::printf("CSignalHandler::SignalHandler - got signal %d, handler at %p\n", signal,
                static_cast<void*>(m_pHandler.load()));
    ParseSigInfo(info);
    // The callback may end the process, and the report with it.
    std::fflush(stdout);
    {
        const HandledSignalsHeld held;
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
    const CodeTable* const codes = CodesOf(info->si_signo);
    if (codes != nullptr) {
        PrintCaught(Meaning(*codes, info->si_code).Text());
    } else {
        PrintCaught(NameOf(info->si_signo));
    }
    if (info->si_signo == SIGSEGV && info->si_addr != nullptr) {
        std::printf("\n\t\tAt address %p\n", info->si_addr);
    }
    std::printf("\n");
}

void CSignalHandler::ParseSIGPOLL(int code, std::string& text) {
    text = Meaning(poll_table, code).Text();
}

void CSignalHandler::ParseSIGSEGV(int code, std::string& text) {
    text = Meaning(segv_table, code).Text();
}

void CSignalHandler::ParseSIGILL(int code, std::string& text) {
    text = Meaning(ill_table, code).Text();
}

void CSignalHandler::ParseSIGFPE(int code, std::string& text) {
    text = Meaning(fpe_table, code).Text();
}

void CSignalHandler::ParseSIGBUS(int code, std::string& text) {
    text = Meaning(bus_table, code).Text();
}

}  // namespace TarnSocketIO
