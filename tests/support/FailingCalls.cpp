#include "tests/support/FailingCalls.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
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
    if (size >= allocation.smallest && size <= allocation.largest) {
        allocation.block = static_cast<const char*>(block);
        allocation.size = size;
    }
    return block;
}

// Not inlined: a compiler that sees `free` on what `operator new` gave takes the pair for a mistake.
[[gnu::noinline]] void Free(void* block) {
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
int __real_gethostbyaddr_r(const void* address, socklen_t length, int family, hostent* entry, char* storage,
                           std::size_t size, hostent** found, int* error);

int __wrap_socket(int domain, int type, int protocol) {
    return MustFail(Call::Socket, -1) ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    if (level == SOL_SOCKET && option == SO_LINGER && MustFail(Call::SetLinger, fd)) {
        return -1;
    }
    if (level == IPPROTO_IP && option == IP_ADD_MEMBERSHIP && MustFail(Call::JoinGroup, fd)) {
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
