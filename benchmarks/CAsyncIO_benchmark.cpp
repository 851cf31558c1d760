// Echoing over 20 loopback connections: a server made of CAsyncIO beside a loop over poll, recv and send.

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <TarnSocketIO/CAsyncIO.h>

#include <benchmarks/support/EchoLoad.h>
#include <benchmarks/support/PairedRatio.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using TarnBenchmark::EchoLoad;
using TarnBenchmark::Figure;
using TarnBenchmark::OwnSocket;
using TarnBenchmark::PairedRatio;
using TarnBenchmark::Plan;
using TarnBenchmark::PortOf;
using TarnBenchmark::PrepareEchoConnection;
using TarnBenchmark::TargetTable;
using TarnBenchmark::ThreadSeconds;

constexpr std::size_t connections = 20;
constexpr std::size_t receive_length = 131070;
constexpr int poll_timeout_ms = 500;
constexpr short read_events = POLLIN | POLLPRI | POLLERR | POLLHUP | POLLNVAL;
constexpr double target = 0.95;

TargetTable table;

/// What a server has done since it was made.
struct Work {
    std::size_t echoed_bytes = 0;
    long passes = 0;
    long messages = 0;  ///< reads that brought data, each answered by one send
};

/// The library's side: an application of CAsyncIO with a loop of its own.
class LibraryServer : private TarnSocketIO::CAsyncIO {
public:
    LibraryServer() : CAsyncIO(TarnSocketIO::CONNECTION_STREAM) {}

    ~LibraryServer() override {
        StopListener();
        for (const int connection : m_connections) {
            ::close(connection);
        }
    }

    /// @return the port that clients connect to; 0 on failure.
    in_port_t Listen() {
        Initialise(0, nullptr);
        const int listener = GetListenerSocket();
        return listener != -1 ? PortOf(listener) : in_port_t{0};
    }

    /// Takes the connections that wait already.
    bool AcceptAll() {
        for (std::size_t i = 0; i < connections; ++i) {
            if (!MultiConnectionAcceptor()) {
                return false;
            }
        }
        return m_connections.size() == connections;
    }

    void Pass() {
        MultiConnectionPoller();
        ++m_work.passes;
    }

    const Work& Done() const { return m_work; }

private:
    void OnConnected(int socket) override {
        if (PrepareEchoConnection(socket)) {
            m_connections.push_back(socket);
        }
    }

    // Nobody leaves while it is measured; the destructor closes all.
    void OnTerminated(int) override {}

    void OnReceivedData(int socket, char* data, long length) override {
        if (Send(socket, data, length)) {
            m_work.echoed_bytes += static_cast<std::size_t>(length);
            ++m_work.messages;
        }
    }

    std::vector<int> m_connections;
    Work m_work;
};

/// The baseline: the same system calls, with nothing around them.
class PlainServer {
public:
    PlainServer() : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_buffer(receive_length) {}

    in_port_t Listen() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        const linger wait{1, 1};
        const bool listens =
            ::setsockopt(m_listener.Get(), SOL_SOCKET, SO_LINGER, &wait, sizeof wait) == 0 &&
            ::bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(m_listener.Get(), 128) == 0;
        return listens ? PortOf(m_listener.Get()) : in_port_t{0};
    }

    bool AcceptAll() {
        for (pollfd& entry : m_set) {
            m_connections.emplace_back(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            entry = {m_connections.back().Get(), read_events, 0};
            if (!PrepareEchoConnection(entry.fd)) {
                return false;
            }
        }
        return true;
    }

    void Pass() {
        int ready = ::poll(m_set.data(), m_set.size(), poll_timeout_ms);
        for (std::size_t i = 0; ready > 0 && i < m_set.size(); ++i) {
            if (m_set[i].revents != 0) {
                --ready;
                Echo(m_set[i].fd);
            }
        }
        ++m_work.passes;
    }

    const Work& Done() const { return m_work; }

private:
    void Echo(int socket) {
        const ssize_t length = ::recv(socket, m_buffer.data(), m_buffer.size(), MSG_DONTWAIT);
        if (length > 0 &&
            ::send(socket, m_buffer.data(), static_cast<std::size_t>(length), MSG_DONTWAIT | MSG_NOSIGNAL) != -1) {
            m_work.echoed_bytes += static_cast<std::size_t>(length);
            ++m_work.messages;
        }
    }

    OwnSocket m_listener;
    std::vector<OwnSocket> m_connections;
    std::array<pollfd, connections> m_set{};
    std::vector<char> m_buffer;
    Work m_work;
};

/// A server with its clients connected.
template <class Server>
class Side {
public:
    explicit Side(std::size_t message_size) : m_load(connections, message_size) {}

    bool Open() {
        const in_port_t port = m_server.Listen();
        // The connections wait in the listener's backlog until they are accepted.
        return port != 0 && m_load.Connect(port) && m_server.AcceptAll();
    }

    /// Serves one slice on this thread, with the load on a thread of its own.
    ///
    /// @return the seconds it took the clients, negative if an echo did not come back.
    double Slice(int rounds) {
        auto clients = std::async(std::launch::async, [&] { return m_load.Run(rounds); });
        const std::size_t end = m_server.Done().echoed_bytes + m_load.BytesOf(rounds);
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        const double cpu_start = ThreadSeconds();
        while (m_server.Done().echoed_bytes < end && std::chrono::steady_clock::now() < give_up) {
            m_server.Pass();
        }
        m_cpu_seconds = ThreadSeconds() - cpu_start;
        return clients.get();
    }

    /// The processor time that the last slice took the server.
    double CpuSeconds() const { return m_cpu_seconds; }

    const Work& Done() const { return m_server.Done(); }

private:
    Server m_server;
    EchoLoad m_load;
    double m_cpu_seconds = 0;
};

double ReadsPerPass(const Work& work) {
    return static_cast<double>(work.messages) / static_cast<double>(work.passes);
}

void Echo(benchmark::State& state, const std::string& what, std::size_t message_size, int rounds) {
    const auto library = std::make_unique<Side<LibraryServer>>(message_size);
    const auto baseline = std::make_unique<Side<PlainServer>>(message_size);
    if (!library->Open() || !baseline->Open()) {
        table.Fail(state, "cannot connect the clients on the loopback interface");
        return;
    }

    PairedRatio pairs;
    PairedRatio cpu;
    bool complete = true;
    for (auto _ : state) {
        const auto slice = [&](auto& side) {
            const double seconds = side.Slice(rounds);
            complete = complete && seconds > 0;
            return seconds;
        };
        state.SetIterationTime(pairs.MeasurePair([&] { return slice(*library); }, [&] { return slice(*baseline); }));
        cpu.MeasurePair([&] { return library->CpuSeconds(); }, [&] { return baseline->CpuSeconds(); });
        if (!complete) {
            table.Fail(state, "a connection broke, or bytes were lost on the way");
            return;
        }
    }

    const double megabytes = static_cast<double>(connections * message_size) * rounds / 1e6;
    const double library_rate = megabytes / pairs.LibrarySeconds();
    const double baseline_rate = megabytes / pairs.BaselineSeconds();
    state.counters["library_MB/s"] = library_rate;
    state.counters["baseline_MB/s"] = baseline_rate;
    state.counters["cpu_ratio"] = cpu.Ratio();
    state.counters["library_reads/pass"] = ReadsPerPass(library->Done());
    state.counters["baseline_reads/pass"] = ReadsPerPass(baseline->Done());
    table.AddRatio(state, what, pairs, Figure(library_rate, 1, "MB/s"), Figure(baseline_rate, 1, "MB/s"), target);
}

void Register(const Plan& plan) {
    const auto add = [&](const char* name, const char* what, std::size_t message_size, int rounds) {
        benchmark::RegisterBenchmark(name, Echo, what, message_size, plan.quick ? 2 : rounds)
            ->Iterations(plan.Pairs(800))
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    };
    add("CAsyncIO/echo/64", "20 connections echo 64 bytes / plain loop", 64, 25);
    add("CAsyncIO/echo/65536", "20 connections echo 64 KiB / plain loop", 65536, 5);
}

}  // namespace

int main(int argc, char** argv) {
    return table.Run(argc, argv, Register);
}
