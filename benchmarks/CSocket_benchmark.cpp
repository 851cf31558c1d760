// What an endpoint costs beside the system calls that it makes: receiving, sending, waiting; and the checksum of pings.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include <TarnSocketIO/CSocket.h>

#include <benchmarks/support/CallLoop.h>
#include <benchmarks/support/EchoLoad.h>
#include <benchmarks/support/PairedRatio.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using TarnBenchmark::CompareResults;
using TarnBenchmark::Figure;
using TarnBenchmark::OwnSocket;
using TarnBenchmark::PairedRatio;
using TarnBenchmark::Plan;
using TarnBenchmark::PortOf;
using TarnBenchmark::SecondsOf;
using TarnBenchmark::Slice;
using TarnBenchmark::TargetTable;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocket;

TargetTable table;

constexpr std::size_t largest_datagram = 1400;
constexpr int burst = 100;  // datagrams that a receive buffer surely has room for

const std::array<char, largest_datagram> payload{};

sockaddr_in Loopback(in_port_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A datagram socket on a port that the kernel chose; none if there is none to be had.
OwnSocket BoundSocket() {
    OwnSocket socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = Loopback(0);
    const int size = 0x1FFFE;
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return OwnSocket();
    }
    return socket;
}

bool SendBurst(int from, const sockaddr_in& to, std::size_t size) {
    for (int i = 0; i < burst; ++i) {
        if (sendto(from, payload.data(), size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) == -1) {
            return false;
        }
    }
    return true;
}

/// What the baseline calls for each datagram, as the library calls its notification.
class Consumer {
public:
    virtual ~Consumer() = default;
    virtual void Take(char* data, long length) = 0;
};

class Counter : public Consumer {
public:
    void Take(char* /*data*/, long /*length*/) override { ++count; }
    int count = 0;
};

/// Drains the receive buffer with the two system calls of a pass.
void DrainByHand(int socket, char* buffer, std::size_t size, Consumer& consumer) {
    for (;;) {
        pollfd record{socket, POLLIN | POLLPRI, 0};
        if (poll(&record, 1, 0) <= 0) {
            return;
        }
        const ssize_t length = recv(socket, buffer, size, MSG_NOSIGNAL);
        if (length < 0) {
            return;
        }
        consumer.Take(buffer, static_cast<long>(length));
    }
}

/// An endpoint whose passes the benchmark makes itself.
class DrainedEndpoint : public CSocket {
public:
    DrainedEndpoint() : CSocket(CONNECTION_UDP, false, false) {
        InitialiseLocalSockets(0, nullptr, nullptr, 0);
        m_iReceivesPerPass = 0;
    }
    ~DrainedEndpoint() override { TerminateAll(); }

    in_port_t Port() const { return PortOf(m_socReceiver); }

    /// One pass, which waits for datagrams until a burst of them has come. @return how many it got.
    int Drain() {
        m_count = 0;
        m_iPollTimeout = 1000;
        DataReceiver(0);
        return m_count;
    }

private:
    void OnReceivedData(char* /*data*/, long /*length*/) override {
        if (++m_count == burst) {
            m_iPollTimeout = 0;
        }
    }

    int m_count = 0;
};

void Receive(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const OwnSocket sender = BoundSocket();
    DrainedEndpoint endpoint;
    const OwnSocket plain = BoundSocket();
    const sockaddr_in to_endpoint = Loopback(endpoint.Port());
    const sockaddr_in to_plain = Loopback(PortOf(plain.Get()));
    static std::array<char, 131071> buffer;
    PairedRatio pairs;
    for (auto _ : state) {
        bool ok = true;
        const double seconds = pairs.MeasurePair(
            [&] {
                ok = SendBurst(sender.Get(), to_endpoint, size) && ok;
                int count = 0;
                const double taken = SecondsOf([&] { count = endpoint.Drain(); });
                ok = ok && count == burst;
                return taken;
            },
            [&] {
                ok = SendBurst(sender.Get(), to_plain, size) && ok;
                Counter counter;
                const double taken =
                    SecondsOf([&] { DrainByHand(plain.Get(), buffer.data(), buffer.size() - 1, counter); });
                ok = ok && counter.count == burst;
                return taken;
            });
        if (!ok) {
            table.Fail(state, "datagrams were lost");
            return;
        }
        state.SetIterationTime(seconds / burst);
    }
    table.AddRatio(state, "draining " + std::to_string(size) + "-byte datagrams / poll and recv", pairs,
                   Figure(pairs.LibrarySeconds() / burst * 1e9, 0, "ns"),
                   Figure(pairs.BaselineSeconds() / burst * 1e9, 0, "ns"), 0.95);
}

void Send(benchmark::State& state) {
    constexpr std::size_t size = 64;
    const OwnSocket sink = BoundSocket();
    const in_port_t port = PortOf(sink.Get());
    CSocket endpoint(CONNECTION_UDP, true, false);
    if (!endpoint.StartClient()) {
        table.Fail(state, "no sender socket");
        return;
    }
    const OwnSocket plain = BoundSocket();
    const sockaddr_in to = Loopback(port);
    std::mutex mutex;
    std::array<char, largest_datagram> buffer;
    const auto drain = [&] {
        while (recv(sink.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
        }
    };
    PairedRatio pairs;
    for (auto _ : state) {
        const double seconds = pairs.MeasurePair(
            [&] {
                drain();
                return Slice(burst, [&](int) {
                    benchmark::DoNotOptimize(endpoint.Send("127.0.0.1", port, payload.data(), size));
                });
            },
            [&] {
                drain();
                return Slice(burst, [&](int) {
                    const std::lock_guard<std::mutex> lock(mutex);
                    benchmark::DoNotOptimize(sendto(plain.Get(), payload.data(), size, MSG_DONTWAIT,
                                                    reinterpret_cast<const sockaddr*>(&to), sizeof to));
                });
            });
        state.SetIterationTime(seconds / burst);
    }
    table.AddRatio(state, "Send to a numeric address / mutex and sendto", pairs,
                   Figure(pairs.LibrarySeconds() / burst * 1e9, 0, "ns"),
                   Figure(pairs.BaselineSeconds() / burst * 1e9, 0, "ns"), 0.95);
}

/// The textbook's way: one word of 16 bits after the other, with the carry added at once.
int PlainChecksum(const unsigned char* bytes, int length) {
    std::uint32_t sum = 0;
    for (; length > 1; bytes += 2, length -= 2) {
        std::uint16_t word;
        std::memcpy(&word, bytes, sizeof word);
        sum += word;
        sum = (sum >> 16) + (sum & 0xFFFF);
    }
    if (length == 1) {
        std::uint16_t word = 0;
        std::memcpy(&word, bytes, 1);
        sum += word;
        sum = (sum >> 16) + (sum & 0xFFFF);
    }
    return static_cast<std::uint16_t>(~sum);
}

/// @param length  of the message.
/// @param offset  from an address that is aligned for every type.
void Checksum(benchmark::State& state, double at_least) {
    const auto length = static_cast<int>(state.range(0));
    const auto offset = static_cast<std::size_t>(state.range(1));
    constexpr int messages = 64;
    constexpr std::size_t room = 2048;
    alignas(16) static std::array<unsigned char, messages * room> bytes;
    std::mt19937 random(1071);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same messages in every run
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    const auto message = [&](int call) { return &bytes[static_cast<std::size_t>(call % messages) * room + offset]; };
    const std::string what =
        "checksum of " + std::to_string(length) + " bytes" + (offset != 0 ? ", unaligned" : "") + " / 16-bit loop";
    CompareResults(
        table, state, {what.c_str(), at_least}, 4 * messages, [](int left, int right) { return left == right; },
        [&](int i) {
            return CSocket::CalculateICMPChecksum(reinterpret_cast<const unsigned short*>(message(i)), length);
        },
        [&](int i) { return PlainChecksum(message(i), length); });
}

/// An endpoint with one receiver thread, which tells its handle.
class IdleEndpoint : public CSocket {
public:
    IdleEndpoint() : CSocket(CONNECTION_UDP, false, false) { InitialiseLocalSockets(0, nullptr, nullptr, 1); }
    ~IdleEndpoint() override { TerminateAll(); }

    /// Wakes the receiver, so that it tells. @return false if it does not within a second.
    bool AwaitThread(clockid_t& clock) {
        for (int step = 0; step < 1000 && !m_known; ++step) {
            Send("127.0.0.1", PortOf(m_socReceiver), "?", 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return m_known && pthread_getcpuclockid(m_thread, &clock) == 0;
    }

private:
    void OnReceivedData(char* /*data*/, long /*length*/) override {
        if (!m_known) {
            m_thread = pthread_self();
            m_known = true;
        }
    }

    pthread_t m_thread{};
    std::atomic<bool> m_known{false};
};

/// A thread that sleeps 3 ms and polls once, over and over.
class IdleThread {
public:
    IdleThread() : m_socket(BoundSocket()), m_thread([this] { Run(); }) {}
    ~IdleThread() {
        m_stop = true;
        m_thread.join();
    }

    bool Clock(clockid_t& clock) { return pthread_getcpuclockid(m_thread.native_handle(), &clock) == 0; }

private:
    void Run() const {
        while (!m_stop) {
            const timespec step{0, 3'000'000};
            nanosleep(&step, nullptr);
            pollfd record{m_socket.Get(), POLLIN | POLLPRI, 0};
            poll(&record, 1, 0);
        }
    }

    OwnSocket m_socket;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

double SecondsOn(clockid_t clock) {
    timespec used{};
    clock_gettime(clock, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

void Idle(benchmark::State& state) {
    constexpr std::chrono::milliseconds window(150);
    IdleEndpoint endpoint;
    IdleThread plain;
    clockid_t of_endpoint;
    clockid_t of_plain;
    if (!endpoint.AwaitThread(of_endpoint) || !plain.Clock(of_plain)) {
        table.Fail(state, "the receiver thread does not run");
        return;
    }
    PairedRatio pairs;
    for (auto _ : state) {
        // Both idle at the same time, so that the machine is equally busy for both.
        const double endpoint_before = SecondsOn(of_endpoint);
        const double plain_before = SecondsOn(of_plain);
        std::this_thread::sleep_for(window);
        const double endpoint_used = SecondsOn(of_endpoint) - endpoint_before;
        const double plain_used = SecondsOn(of_plain) - plain_before;
        state.SetIterationTime(pairs.MeasurePair([&] { return endpoint_used; }, [&] { return plain_used; }));
    }
    const double windows_per_second = 1000.0 / static_cast<double>(window.count());
    table.AddRatio(state, "idle endpoint's processor time / sleep and poll", pairs,
                   Figure(pairs.LibrarySeconds() * windows_per_second * 1e3, 2, "ms/s"),
                   Figure(pairs.BaselineSeconds() * windows_per_second * 1e3, 2, "ms/s"), 1 / 1.3);
}

void Register(const Plan& plan) {
    benchmark::RegisterBenchmark("CSocket/receive", Receive)
        ->Arg(64)
        ->Arg(largest_datagram)
        ->Iterations(plan.Pairs(2000))
        ->UseManualTime();
    benchmark::RegisterBenchmark("CSocket/send", Send)->Iterations(plan.Pairs(2000))->UseManualTime();
    const auto checksum = [&](double at_least, long length) {
        benchmark::RegisterBenchmark("CSocket/checksum", Checksum, at_least)
            ->Args({length, 0})
            ->Args({length, 1})
            ->Iterations(plan.Pairs(1000))
            ->UseManualTime();
    };
    checksum(8, 1500);
    checksum(2.5, 64);
    benchmark::RegisterBenchmark("CSocket/idle", Idle)->Iterations(plan.Pairs(60))->UseManualTime();
}

}  // namespace

int main(int argc, char** argv) {
    return table.Run(argc, argv, Register);
}
