#pragma once

#include <cstddef>
#include <string>

/// Failures of the system and of the memory, made to order.
///
/// The program that links this must send its calls here, with the linker options
///
///     -Wl,--wrap=socket,--wrap=setsockopt,--wrap=bind,--wrap=listen,--wrap=accept4,--wrap=poll
///     -Wl,--wrap=recv,--wrap=send,--wrap=shutdown,--wrap=close,--wrap=gethostbyaddr_r
///
/// and must hold the library statically: calls from inside a shared object go their own way. `operator new` is replaced
/// here too. What nobody has ordered to fail is forwarded.
namespace TarnTest {

enum class Call {
    Socket,
    SetLinger,  ///< setsockopt with SO_LINGER
    JoinGroup,  ///< setsockopt with IP_ADD_MEMBERSHIP
    Bind,
    Listen,
    Accept,
    Poll,
    Receive,
    Send,
    Shutdown,
    Close,
    Sleep,            ///< nanosleep; this and the four below are sent here by RuntimeCalls
    CreateMutex,      ///< pthread_mutex_init
    CreateThread,     ///< pthread_create
    SetScheduler,     ///< sched_setscheduler
    SetSignalAction,  ///< sigaction
    Allocate,         ///< operator new, which throws std::bad_alloc (or gives null where it must not throw)
};

/// An order that calls fail, whichever thread makes them, for as long as the object lives. One at a time for each Call.
class FailingCalls {
public:
    /// Lets the next `passing` calls through, and has the `times` calls after them return -1 with errno `error`,
    /// without anything having happened.
    FailingCalls(Call call, int error, int times = 1, int passing = 0);
    ~FailingCalls();
    FailingCalls(const FailingCalls&) = delete;
    FailingCalls& operator=(const FailingCalls&) = delete;

    /// How many calls have failed by this order.
    int Failed() const;

private:
    const Call m_call;
};

/// For what comes in between: counts a call.
///
/// @param descriptor  -1 if the call has none.
/// @return whether it has to fail; errno is set then.
bool MustFail(Call call, int descriptor);

/// Counts the calls made from its construction on, failing ones included.
class CallWatch {
public:
    explicit CallWatch(Call call);

    int Count() const;

    /// The descriptor of the last call; -1 if it had none.
    int LastDescriptor() const;

private:
    const Call m_call;
    const int m_before;
};

/// Answers every reverse lookup in the resolver's place for as long as the object lives. One at a time.
class ReverseLookup {
public:
    /// @param name  of every host; empty if none is to be found.
    /// @param room  bytes that the caller's buffer must have; with a smaller one the lookup fails with ERANGE. At least
    ///              the size of the name and its terminator.
    ReverseLookup(const std::string& name, std::size_t room);
    ~ReverseLookup();
    ReverseLookup(const ReverseLookup&) = delete;
    ReverseLookup& operator=(const ReverseLookup&) = delete;

    /// How many lookups there were, failed ones included.
    int Asked() const;

private:
    const std::string m_name;
};

/// Remembers the last block of a kind that is allocated while the object lives. One at a time.
class AllocationWatch {
public:
    AllocationWatch(std::size_t smallest, std::size_t largest);
    ~AllocationWatch();
    AllocationWatch(const AllocationWatch&) = delete;
    AllocationWatch& operator=(const AllocationWatch&) = delete;

    /// Null if there was none.
    const char* Block() const;
    std::size_t Size() const;
};

}  // namespace TarnTest
