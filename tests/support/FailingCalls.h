#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Failures of the system and of the memory, made to order.
///
/// The program that links this must send its calls here, with the linker options
///
///     -Wl,--wrap=socket,--wrap=setsockopt,--wrap=bind,--wrap=listen,--wrap=accept4,--wrap=connect,--wrap=poll
///     -Wl,--wrap=recv,--wrap=recvfrom,--wrap=recvmsg,--wrap=send,--wrap=sendto,--wrap=shutdown,--wrap=close
///     -Wl,--wrap=fcntl,--wrap=ioctl,--wrap=system
///     -Wl,--wrap=gethostname,--wrap=gethostbyaddr_r,--wrap=gethostbyname_r,--wrap=getaddrinfo
///
/// and must hold the library statically: calls from inside a shared object go their own way. `operator new` is replaced
/// here too. What nobody has ordered to fail is forwarded.
namespace TarnTest {

enum class Call {
    Socket,
    SetLinger,              ///< setsockopt with SO_LINGER; and so on
    SetReuseAddress,        ///< SO_REUSEADDR
    SetReceiveBuffer,       ///< SO_RCVBUF
    SetSendBuffer,          ///< SO_SNDBUF
    SetBroadcast,           ///< SO_BROADCAST
    SetDevice,              ///< SO_BINDTODEVICE
    SetMulticastInterface,  ///< IP_MULTICAST_IF
    SetMulticastLoop,       ///< IP_MULTICAST_LOOP
    JoinGroup,              ///< IP_ADD_MEMBERSHIP
    LeaveGroup,             ///< IP_DROP_MEMBERSHIP
    Bind,
    Listen,
    Accept,
    Connect,
    Poll,
    Receive,         ///< recv
    ReceiveFrom,     ///< recvfrom
    ReceiveMessage,  ///< recvmsg
    Send,            ///< send
    SendTo,          ///< sendto
    Shutdown,
    Close,
    SetOwner,         ///< fcntl with F_SETOWN; and so on
    SetSignal,        ///< F_SETSIG
    GetFlags,         ///< F_GETFL
    SetFlags,         ///< F_SETFL
    Control,          ///< ioctl
    GetHostName,      ///< gethostname
    GetAddressInfo,   ///< getaddrinfo, which returns `error`
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

/// Holds the next call of a kind, whichever thread makes it, before anything has happened. One at a time for each Call.
class HeldCall {
public:
    explicit HeldCall(Call call);
    ~HeldCall() { Release(); }
    HeldCall(const HeldCall&) = delete;
    HeldCall& operator=(const HeldCall&) = delete;

    /// Whether a thread is in it.
    bool IsHeld() const;

    /// Lets the call go on, and holds no other one.
    void Release();

private:
    const Call m_call;
};

/// For what comes in between: counts a call, and holds it.
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

/// Answers every lookup of a host name by gethostbyname_r in the resolver's place for as long as the object lives. One
/// at a time.
class ForwardLookup {
public:
    /// @param addresses  of every host, as dotted quads; none if no host is to be found.
    /// @param room       bytes that the caller's buffer must have; with a smaller one the lookup fails with ERANGE. At
    ///                   least what the entry needs is taken.
    explicit ForwardLookup(const std::vector<std::string>& addresses, std::size_t room = 0);
    ~ForwardLookup();
    ForwardLookup(const ForwardLookup&) = delete;
    ForwardLookup& operator=(const ForwardLookup&) = delete;

    /// How many lookups there were, failed ones included.
    int Asked() const;
};

/// Takes the commands that are meant for the shell, in its place, for as long as the object lives. One at a time.
class ShellWatch {
public:
    /// @param status  that system(3) returns.
    explicit ShellWatch(int status);
    ~ShellWatch();
    ShellWatch(const ShellWatch&) = delete;
    ShellWatch& operator=(const ShellWatch&) = delete;

    /// The last one; empty if there was none.
    std::string Command() const;
};

/// How many blocks of `operator new` there are at this moment, whoever has asked for them.
int CountBlocks();

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
