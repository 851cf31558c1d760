#include "tests/support/FailingCalls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace TarnTest {

namespace {

// Atomics throughout, and nothing that allocates: this is also what operator new passes through.
struct CallState {
    std::atomic<int> calls{0};
    std::atomic<int> last_descriptor{-1};
    std::atomic<int> error{0};
    std::atomic<int> to_pass{0};
    std::atomic<int> to_fail{0};
    std::atomic<int> failed{0};
    std::atomic<bool> to_hold{false};
    std::atomic<bool> held{false};
};

std::array<CallState, static_cast<std::size_t>(Call::Allocate) + 1> call_states;

CallState& StateOf(Call call) {
    return call_states[static_cast<std::size_t>(call)];
}

struct LookupState {
    std::atomic<const std::string*> name{nullptr};
    std::atomic<std::size_t> room{0};
    std::atomic<int> asked{0};
};

LookupState lookup;

// As an entry holds them: the addresses, and a list of pointers to them with a null at its end.
struct ForwardLookupState {
    std::atomic<bool> active{false};
    std::array<in_addr, 64> addresses{};
    std::atomic<std::size_t> count{0};
    std::atomic<std::size_t> room{0};
    std::atomic<int> asked{0};
};

ForwardLookupState forward_lookup;

struct ShellState {
    std::atomic<bool> active{false};
    int status = 0;
    std::string command;
};

ShellState shell;

/// A host's entry is written into the storage as the resolver does it.
///
/// @return false if there is no room.
bool WriteEntry(hostent& entry, char* storage, std::size_t size) {
    const std::size_t count = forward_lookup.count;
    const std::size_t misaligned = reinterpret_cast<std::uintptr_t>(storage) % alignof(char*);
    const std::size_t padding = misaligned != 0 ? alignof(char*) - misaligned : 0;
    const std::size_t needed = padding + (count + 1) * sizeof(char*) + count * sizeof(in_addr);
    if (size < std::max<std::size_t>(needed, forward_lookup.room)) {
        return false;
    }
    char** const list = reinterpret_cast<char**>(storage + padding);
    char* const addresses = storage + padding + (count + 1) * sizeof(char*);
    for (std::size_t i = 0; i < count; ++i) {
        list[i] = addresses + i * sizeof(in_addr);
        std::memcpy(list[i], &forward_lookup.addresses[i], sizeof(in_addr));
    }
    list[count] = nullptr;
    entry = hostent{};
    entry.h_addrtype = AF_INET;
    entry.h_length = sizeof(in_addr);
    entry.h_addr_list = list;
    return true;
}

/// What an option's setsockopt is ordered to fail as; Call::Allocate if it is not.
Call CallOfOption(int level, int option) {
    struct Option {
        int level;
        int option;
        Call call;
    };
    static constexpr Option options[] = {{SOL_SOCKET, SO_LINGER, Call::SetLinger},
                                         {SOL_SOCKET, SO_REUSEADDR, Call::SetReuseAddress},
                                         {SOL_SOCKET, SO_RCVBUF, Call::SetReceiveBuffer},
                                         {SOL_SOCKET, SO_SNDBUF, Call::SetSendBuffer},
                                         {SOL_SOCKET, SO_BROADCAST, Call::SetBroadcast},
                                         {SOL_SOCKET, SO_BINDTODEVICE, Call::SetDevice},
                                         {IPPROTO_IP, IP_MULTICAST_IF, Call::SetMulticastInterface},
                                         {IPPROTO_IP, IP_MULTICAST_LOOP, Call::SetMulticastLoop},
                                         {IPPROTO_IP, IP_ADD_MEMBERSHIP, Call::JoinGroup},
                                         {IPPROTO_IP, IP_DROP_MEMBERSHIP, Call::LeaveGroup}};
    for (const Option& known : options) {
        if (known.level == level && known.option == option) {
            return known.call;
        }
    }
    return Call::Allocate;
}

/// The same for the commands of fcntl.
Call CallOfCommand(int command) {
    switch (command) {
        case F_SETOWN:
            return Call::SetOwner;
        case F_SETSIG:
            return Call::SetSignal;
        case F_GETFL:
            return Call::GetFlags;
        case F_SETFL:
            return Call::SetFlags;
        default:
            return Call::Allocate;
    }
}

bool MustFailIfKnown(Call call, int fd) {
    return call != Call::Allocate && MustFail(call, fd);
}

std::atomic<int> block_count{0};

struct AllocationState {
    std::atomic<std::size_t> smallest{1};
    std::atomic<std::size_t> largest{0};
    std::atomic<const char*> block{nullptr};
    std::atomic<std::size_t> size{0};
};

AllocationState allocation;

/// @return null if memory has to run out, or really has.
void* Allocate(std::size_t size) {
    if (MustFail(Call::Allocate, -1)) {
        return nullptr;
    }
    void* const block = std::malloc(size != 0 ? size : 1);
    block_count += block != nullptr ? 1 : 0;
    if (size >= allocation.smallest && size <= allocation.largest) {
        allocation.block = static_cast<const char*>(block);
        allocation.size = size;
    }
    return block;
}

// Not inlined: a compiler that sees `free` on what `operator new` gave takes the pair for a mistake.
[[gnu::noinline]] void Free(void* block) {
    block_count -= block != nullptr ? 1 : 0;
    std::free(block);
}

void* AllocateOrThrow(std::size_t size) {
    void* const block = Allocate(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

}  // namespace

bool MustFail(Call call, int descriptor) {
    CallState& state = StateOf(call);
    ++state.calls;
    state.last_descriptor = descriptor;
    if (state.to_hold.exchange(false)) {
        state.held = true;
        while (state.held) {
            usleep(1000);
        }
    }
    if (state.to_fail <= 0 || state.to_pass-- > 0 || state.to_fail-- <= 0) {
        return false;
    }
    ++state.failed;
    errno = state.error;
    return true;
}

FailingCalls::FailingCalls(Call call, int error, int times, int passing) : m_call(call) {
    CallState& state = StateOf(call);
    state.error = error;
    state.failed = 0;
    state.to_pass = passing;
    state.to_fail = times;
}

FailingCalls::~FailingCalls() {
    StateOf(m_call).to_fail = 0;
}

int FailingCalls::Failed() const {
    return StateOf(m_call).failed;
}

HeldCall::HeldCall(Call call) : m_call(call) {
    StateOf(m_call).to_hold = true;
}

bool HeldCall::IsHeld() const {
    return StateOf(m_call).held;
}

void HeldCall::Release() {
    StateOf(m_call).to_hold = false;
    StateOf(m_call).held = false;
}

CallWatch::CallWatch(Call call) : m_call(call), m_before(StateOf(call).calls) {
    StateOf(call).last_descriptor = -1;
}

int CallWatch::Count() const {
    return StateOf(m_call).calls - m_before;
}

int CallWatch::LastDescriptor() const {
    return StateOf(m_call).last_descriptor;
}

ReverseLookup::ReverseLookup(const std::string& name, std::size_t room) : m_name(name) {
    lookup.asked = 0;
    lookup.room = room;
    lookup.name = &m_name;
}

ReverseLookup::~ReverseLookup() {
    lookup.name = nullptr;
}

int ReverseLookup::Asked() const {
    return lookup.asked;
}

ForwardLookup::ForwardLookup(const std::vector<std::string>& addresses, std::size_t room) {
    const std::size_t count = std::min(addresses.size(), forward_lookup.addresses.size());
    for (std::size_t i = 0; i < count; ++i) {
        forward_lookup.addresses[i].s_addr = inet_addr(addresses[i].c_str());
    }
    forward_lookup.count = count;
    forward_lookup.room = room;
    forward_lookup.asked = 0;
    forward_lookup.active = true;
}

ForwardLookup::~ForwardLookup() {
    forward_lookup.active = false;
}

int ForwardLookup::Asked() const {
    return forward_lookup.asked;
}

ShellWatch::ShellWatch(int status) {
    shell.status = status;
    shell.command.clear();
    shell.active = true;
}

ShellWatch::~ShellWatch() {
    shell.active = false;
}

std::string ShellWatch::Command() const {
    return shell.command;
}

int CountBlocks() {
    return block_count;
}

AllocationWatch::AllocationWatch(std::size_t smallest, std::size_t largest) {
    allocation.block = nullptr;
    allocation.size = 0;
    allocation.smallest = smallest;
    allocation.largest = largest;
}

AllocationWatch::~AllocationWatch() {
    allocation.largest = 0;
}

const char* AllocationWatch::Block() const {
    return allocation.block;
}

std::size_t AllocationWatch::Size() const {
    return allocation.size;
}

}  // namespace TarnTest

using TarnTest::Call;
using TarnTest::MustFail;
using TarnTest::shell;

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker prescribes the names
extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t length);
int __real_bind(int fd, const sockaddr* address, socklen_t length);
int __real_listen(int fd, int backlog);
int __real_accept4(int fd, sockaddr* address, socklen_t* length, int flags);
int __real_poll(pollfd* set, nfds_t count, int timeout);
ssize_t __real_recv(int fd, void* buffer, std::size_t size, int flags);
ssize_t __real_send(int fd, const void* data, std::size_t length, int flags);
int __real_shutdown(int fd, int how);
int __real_close(int fd);
int __real_connect(int fd, const sockaddr* address, socklen_t length);
ssize_t __real_recvfrom(int fd, void* buffer, std::size_t size, int flags, sockaddr* from, socklen_t* length);
ssize_t __real_recvmsg(int fd, msghdr* message, int flags);
ssize_t __real_sendto(int fd, const void* data, std::size_t size, int flags, const sockaddr* to, socklen_t length);
int __real_fcntl(int fd, int command, ...);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_system(const char* command);
int __real_gethostname(char* name, std::size_t size);
int __real_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found);
int __real_gethostbyname_r(const char* name, hostent* entry, char* storage, std::size_t size, hostent** found,
                           int* error);
int __real_gethostbyaddr_r(const void* address, socklen_t length, int family, hostent* entry, char* storage,
                           std::size_t size, hostent** found, int* error);

int __wrap_socket(int domain, int type, int protocol) {
    return MustFail(Call::Socket, -1) ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    if (TarnTest::MustFailIfKnown(TarnTest::CallOfOption(level, option), fd)) {
        return -1;
    }
    return __real_setsockopt(fd, level, option, value, length);
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t length) {
    return MustFail(Call::Bind, fd) ? -1 : __real_bind(fd, address, length);
}

int __wrap_listen(int fd, int backlog) {
    return MustFail(Call::Listen, fd) ? -1 : __real_listen(fd, backlog);
}

int __wrap_accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    return MustFail(Call::Accept, fd) ? -1 : __real_accept4(fd, address, length, flags);
}

int __wrap_poll(pollfd* set, nfds_t count, int timeout) {
    return MustFail(Call::Poll, count > 0 ? set[0].fd : -1) ? -1 : __real_poll(set, count, timeout);
}

ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags) {
    return MustFail(Call::Receive, fd) ? -1 : __real_recv(fd, buffer, size, flags);
}

ssize_t __wrap_send(int fd, const void* data, std::size_t length, int flags) {
    return MustFail(Call::Send, fd) ? -1 : __real_send(fd, data, length, flags);
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t length) {
    return MustFail(Call::Connect, fd) ? -1 : __real_connect(fd, address, length);
}

ssize_t __wrap_recvfrom(int fd, void* buffer, std::size_t size, int flags, sockaddr* from, socklen_t* length) {
    return MustFail(Call::ReceiveFrom, fd) ? -1 : __real_recvfrom(fd, buffer, size, flags, from, length);
}

ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags) {
    return MustFail(Call::ReceiveMessage, fd) ? -1 : __real_recvmsg(fd, message, flags);
}

ssize_t __wrap_sendto(int fd, const void* data, std::size_t size, int flags, const sockaddr* to, socklen_t length) {
    return MustFail(Call::SendTo, fd) ? -1 : __real_sendto(fd, data, size, flags, to, length);
}

// What comes after the command, or the request, is passed on as the C library itself reads it.
int __wrap_fcntl(int fd, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    return TarnTest::MustFailIfKnown(TarnTest::CallOfCommand(command), fd) ? -1 : __real_fcntl(fd, command, argument);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    return MustFail(Call::Control, fd) ? -1 : __real_ioctl(fd, request, argument);
}

int __wrap_system(const char* command) {
    if (!shell.active) {
        return __real_system(command);
    }
    shell.command = command;
    return shell.status;
}

int __wrap_gethostname(char* name, std::size_t size) {
    return MustFail(Call::GetHostName, -1) ? -1 : __real_gethostname(name, size);
}

int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    return MustFail(Call::GetAddressInfo, -1) ? errno : __real_getaddrinfo(host, service, hints, found);
}

int __wrap_gethostbyname_r(const char* name, hostent* entry, char* storage, std::size_t size, hostent** found,
                           int* error) {
    if (!TarnTest::forward_lookup.active) {
        return __real_gethostbyname_r(name, entry, storage, size, found, error);
    }
    ++TarnTest::forward_lookup.asked;
    *found = nullptr;
    if (TarnTest::forward_lookup.count == 0) {
        *error = HOST_NOT_FOUND;
        return 0;
    }
    if (!TarnTest::WriteEntry(*entry, storage, size)) {
        *error = NETDB_INTERNAL;
        return ERANGE;
    }
    *found = entry;
    return 0;
}

int __wrap_shutdown(int fd, int how) {
    return MustFail(Call::Shutdown, fd) ? -1 : __real_shutdown(fd, how);
}

int __wrap_close(int fd) {
    return MustFail(Call::Close, fd) ? -1 : __real_close(fd);
}

int __wrap_gethostbyaddr_r(const void* address, socklen_t length, int family, hostent* entry, char* storage,
                           std::size_t size, hostent** found, int* error) {
    const std::string* const name = TarnTest::lookup.name;
    if (name == nullptr) {
        return __real_gethostbyaddr_r(address, length, family, entry, storage, size, found, error);
    }
    ++TarnTest::lookup.asked;
    *found = nullptr;
    if (size < TarnTest::lookup.room) {
        *error = NETDB_INTERNAL;
        return ERANGE;
    }
    if (name->empty()) {
        *error = HOST_NOT_FOUND;
        return 0;
    }
    std::memcpy(storage, name->c_str(), name->size() + 1);
    *entry = hostent{};
    entry->h_name = storage;
    *found = entry;
    return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

void* operator new(std::size_t size) {
    return TarnTest::AllocateOrThrow(size);
}

void* operator new[](std::size_t size) {
    return TarnTest::AllocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return TarnTest::Allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return TarnTest::Allocate(size);
}

void operator delete(void* block) noexcept {
    TarnTest::Free(block);
}

void operator delete[](void* block) noexcept {
    TarnTest::Free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    TarnTest::Free(block);
}

void operator delete[](void* block, std::size_t) noexcept {
    TarnTest::Free(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept {
    TarnTest::Free(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept {
    TarnTest::Free(block);
}
