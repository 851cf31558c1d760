#pragma once

#include <signal.h>

#include <atomic>
#include <string>

#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/ThreadAnnotations.h>

namespace TarnSocketIO {

/// What an application does about a signal: derive from it, and register it with a CSignalHandler.
class CSignalHandlerBase {
public:
    virtual ~CSignalHandlerBase() = default;

    /// Called for every signal after it has been printed, on the thread that got it and in signal context, with the
    /// registration locked: one signal at a time in the whole process.
    ///
    /// Stay with what signal-safety(7) allows: set a flag, write(2) to a descriptor, end the process with _exit(2), or
    /// restore SIG_DFL, raise(3) the signal and return, which ends it as the signal would have. Not the debug log, no
    /// new CSignalHandler, no exception, no siglongjmp. Of the eight signals those that come to the same thread
    /// meanwhile wait until this returns; a fault in here ends the process.
    ///
    /// After SIGSEGV, SIGILL, SIGFPE and SIGBUS do not just return: the faulty instruction is executed again, and
    /// faults again. What has been printed is written out already.
    ///
    /// @param signal  its number.
    /// @param info    the kernel's record; valid until this returns.
    virtual void HandleSignal(int signal, siginfo_t* info) = 0;
};

/// Catches the signals that end a process, prints what each of them means, and hands it to the application.
///
/// The first instance installs the handler, for SIGTERM, SIGINT, SIGSEGV, SIGILL, SIGFPE, SIGBUS, SIGCONT and SIGPOLL;
/// every instance makes its callback the registered one, in place of the one before. For each signal standard output
/// gets
///
///     CSignalHandler::SignalHandler - got signal 11, handler at 0x7ffd5a3c1b28
///
///     		*** signal caught *** - SEGMENTATION FAULT: address not mapped to object
///
///     		At address 0x10
///
/// (the address for SIGSEGV only, if it is not null; in one that was sent with kill(2) it is a number of the sender)
/// and an empty line. Then the callback decides: whether the process ends is its business.
///
/// When an instance is destroyed no callback is registered any more, whoever registered it, but the signals are still
/// caught and printed: SIGTERM then does not end the process, and a fault is reported again and again without end.
///
/// System calls that a signal interrupts fail with EINTR (no SA_RESTART); errno of the interrupted code is kept. The
/// handler runs on the stack of the interrupted thread, so that the overflow of a stack is not caught.
///
/// **Printing in signal context** is what this class is for, and goes through the buffer of standard output, so that
/// the report comes in its place among what the process has printed. A thread that is interrupted while it prints
/// itself may find its line mixed with the report, or twice; where that would hang it, the report goes to the
/// descriptor directly. No memory is needed, so that the report comes also from a process with a broken heap.
///
/// **Threads.** Make the instances on one thread, before others are started. The callback must outlive its
/// registration, and as the destructor does not wait for a callback that is running on another thread, an object that
/// lives as long as the process is best.
class CSignalHandler {
public:
    /// Registers the callback, and installs the handler if no instance has done so. Prints
    /// "CSignalHandler::CSignalHandler - registering instance 0 0x7ffd5a3c1b28" with the address of the object.
    ///
    /// @param handler  borrowed; null for none.
    explicit CSignalHandler(CSignalHandlerBase* handler);

    /// Leaves no callback registered. Takes no lock, and so never waits for a callback.
    virtual ~CSignalHandler();
    CSignalHandler(const CSignalHandler&) = delete;
    CSignalHandler& operator=(const CSignalHandler&) = delete;

    /// Installs the handler with sigaction(2) for the eight signals and fills the block set of this instance; called by
    /// the first constructor. The block set as it stood before is blocked while the handler runs: nothing, unless this
    /// instance has been here before.
    ///
    /// A signal that cannot be had is reported as "CSignalHandler::Initialise - could not register SIGTERM" and
    /// skipped: on standard output, for SIGCONT and SIGPOLL in the debug log.
    void Initialise();

    /// Keeps SIGTERM and SIGINT from the calling thread (sigprocmask(2)): for all threads but the one that shall get
    /// them. They stay pending, and new threads inherit it. Only the instance that installed the handler has a block
    /// set; on any other this does nothing.
    void BlockSignals();

    /// Opens the calling thread to SIGTERM and SIGINT; they come at once if they are pending.
    void UnblockSignals();

    /// The handler that is installed: prints the signal and what ParseSigInfo says, writes standard output out, and
    /// calls the registered callback.
    static void SignalHandler(int signal, siginfo_t* info, void* context);

    /// Prints what a record means: its signal, and for the fault signals and SIGPOLL why it was sent. Others but SIGINT
    /// and SIGTERM are "unknown". @param info  null only writes a line to the debug log.
    static void ParseSigInfo(siginfo_t* info);

    /// Decode the `si_code` of one signal, as in "FLOATING POINT EXCEPTION: integer devide by zero". A code that is not
    /// known reads "BUS: unknown value 9".
    static void ParseSIGPOLL(int code, std::string& text);
    static void ParseSIGSEGV(int code, std::string& text);
    static void ParseSIGILL(int code, std::string& text);
    static void ParseSIGFPE(int code, std::string& text);
    static void ParseSIGBUS(int code, std::string& text);

    /// The registered callback, null if there is none. Changed under the lock, but cleared and looked at without it.
    static std::atomic<CSignalHandlerBase*> m_pHandler;
    static CMutex m_mutex;                             ///< held while a callback is registered, and while it runs
    static std::atomic<bool> s_bInitialised;           ///< set by Initialise, never cleared
    static std::atomic<int> s_nRegisteredHandlerIter;  ///< printed on registration; the application's to set

private:
    sigset_t m_BlockSet;
    sigset_t m_UnusedSet;  ///< kept: emptied, and used by nothing
};

}  // namespace TarnSocketIO
