// Streams through endpoints: much data, and peers of all manners.

#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ConnectionServer.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/Random.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestEndpoint.h"

namespace {

using std::chrono::seconds;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CSocket;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::Random;
using TarnTest::TcpClient;
using TarnTest::TestEndpoint;
using Server = TarnTest::ConnectionServer;

constexpr const char* loopback = "127.0.0.1";

// The sanitizers and the emulator make a byte far more expensive than a processor does.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || !defined(__x86_64__)
constexpr std::size_t stream_size = 10'000'000;
#else
constexpr std::size_t stream_size = 100'000'000;
#endif

/// Bytes of which every place in a stream has its own: the length of the pattern divides no power of two, so that a
/// lost, doubled or exchanged piece is seen.
class Pattern {
public:
    static constexpr std::size_t length = 65521;

    Pattern() {
        Random random(7);
        for (char& byte : m_bytes) {
            byte = static_cast<char>(random.Below(256));
        }
        m_bytes += m_bytes;
    }

    /// A piece of the stream, no longer than the pattern.
    std::string Piece(std::size_t at, std::size_t size) const { return m_bytes.substr(at % length, size); }

    bool Holds(std::size_t at, const char* data, std::size_t size) const {
        for (std::size_t done = 0; done < size;) {
            const std::size_t part = std::min(length, size - done);
            if (m_bytes.compare((at + done) % length, part, data + done, part) != 0) {
                return false;
            }
            done += part;
        }
        return true;
    }

private:
    std::string m_bytes = std::string(length, '\0');
};

const Pattern& ThePattern() {
    static const Pattern pattern;
    return pattern;
}

/// Sends the stream, as slowly as the other side takes it.
void SendStream(TcpClient& client) {
    for (std::size_t sent = 0; sent < stream_size;) {
        const std::size_t part = std::min(Pattern::length, stream_size - sent);
        client.Send(ThePattern().Piece(sent, part));
        sent += part;
    }
}

}  // namespace

namespace OfStreams {

/// A server of one connection that compares what comes with the stream and keeps nothing. It has the name of all
/// classes that are made with the server constructor.
class ConnectionServer final : public CSocket {
public:
    // Neither inlined nor local to this file: the thread sanitizer is told of it by its name.
    [[gnu::noinline]] explicit ConnectionServer(int threads)
        : CSocket(0, CONNECTION_STREAM, nullptr, false, false, nullptr, threads) {
        InitialiseLocalSockets(0, nullptr, loopback, threads);
    }
    ~ConnectionServer() override { TerminateAll(); }

    std::uint16_t Port() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(GetListenerSocket(), reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    std::size_t Received() const { return m_received; }
    bool IsDamaged() const { return m_is_damaged; }
    bool HasEnded() const { return m_has_ended; }

protected:
    using CSocket::OnConnected;
    using CSocket::OnReceivedData;
    using CSocket::OnTerminated;
    void OnConnected(int) override {}
    void OnReceivedData(int, char* data, long length) override {
        const auto size = static_cast<std::size_t>(length);
        if (!ThePattern().Holds(m_received, data, size)) {
            m_is_damaged = true;
        }
        m_received += size;
    }
    void OnTerminated(int socket) override {
        close(socket);
        m_has_ended = true;
    }

private:
    std::atomic<std::size_t> m_received{0};
    std::atomic<bool> m_is_damaged{false};
    std::atomic<bool> m_has_ended{false};
};

}  // namespace OfStreams

namespace {

using OfStreams::ConnectionServer;

/// A plain listener for one client, to which it sends the stream.
class Source {
public:
    Source() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(0, bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        EXPECT_EQ(0, listen(m_listener, 1));
        EXPECT_EQ(0, getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length));
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { Run(); });
    }
    ~Source() {
        shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        close(m_listener);
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    std::uint16_t Port() const { return m_port; }

private:
    void Run() const {
        const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        for (std::size_t sent = 0; sent < stream_size;) {
            const std::string part = ThePattern().Piece(sent, std::min(Pattern::length, stream_size - sent));
            const ssize_t taken = send(fd, part.data(), part.size(), MSG_NOSIGNAL);
            if (taken <= 0) {
                break;
            }
            sent += static_cast<std::size_t>(taken);
        }
        close(fd);
    }

    const int m_listener;
    std::uint16_t m_port = 0;
    std::thread m_thread;
};

std::string TextOf(int client, int conversation) {
    const std::string name =
        "client " + std::to_string(client) + ", conversation " + std::to_string(conversation) + ";";
    std::string text;
    for (int i = 0; i < 1 + conversation % 7 * 20; ++i) {
        text += name;
    }
    return text;
}

}  // namespace

// ---- much data

class CSocketStream : public testing::TestWithParam<int> {};

TEST_P(CSocketStream, ComesToAServerWholeAndInOrder) {
    ConnectionServer server(GetParam());
    const auto duration = DurationOf([&] {
        TcpClient client(server.Port());
        SendStream(client);
        client.EndSending();
        EXPECT_TRUE(Eventually([&] { return server.HasEnded(); }));
    });
    EXPECT_EQ(stream_size, server.Received());
    EXPECT_FALSE(server.IsDamaged());
    EXPECT_LT(duration, seconds(60));
}

TEST_P(CSocketStream, IsServedWhileOthersComeAndGo) {
    Server server(GetParam());
    TcpClient client(server.Port());
    const std::string data = ThePattern().Piece(0, Pattern::length);
    std::string sent;
    for (int i = 0; i < 20; ++i) {
        client.Send(data);
        sent += data;
        TcpClient(server.Port()).Send("guest");
    }
    client.Close();
    ASSERT_TRUE(Eventually([&] { return server.NotificationCounts().terminated == 21; }));
    const std::vector<std::string> conversations = server.Conversations();
    EXPECT_EQ(20, std::count(conversations.begin(), conversations.end(), "guest"));
    EXPECT_EQ(1, std::count(conversations.begin(), conversations.end(), sent));
}

TEST(CSocketStreamClient, ReadsAStreamWholeAndInOrder) {
    Source source;
    TestEndpoint client(CONNECTION_STREAM);
    client.m_iPollTimeout = 30000;
    ASSERT_TRUE(client.Connect(loopback, source.Port()));
    std::vector<char> buffer(131070);
    std::size_t received = 0;
    bool is_damaged = false;
    const auto duration = DurationOf([&] {
        long length = 0;
        while (client.ReceiveData(buffer.data(), length, nullptr, true) && length > 0) {
            is_damaged = is_damaged || !ThePattern().Holds(received, buffer.data(), static_cast<std::size_t>(length));
            received += static_cast<std::size_t>(length);
        }
        EXPECT_EQ(0, length) << "the end of the stream";
    });
    EXPECT_EQ(stream_size, received);
    EXPECT_FALSE(is_damaged);
    EXPECT_LT(duration, seconds(60));
}

// ---- peers of all manners

TEST_P(CSocketStream, ServerOutlivesPeersThatVanishResetOrTalkGarbage) {
    Server server(GetParam());
    Random random(GetParam() == 1 ? 1u : 5u);
    for (int round = 0; round < 10; ++round) {
        TcpClient(server.Port()).Close();
        TcpClient(server.Port()).Reset();
        TcpClient vanishing(server.Port());
        vanishing.Send("half a sent");
        vanishing.Reset();
        TcpClient garbage(server.Port());
        garbage.Send(random.Text("", 1000, 5000) + std::string(100, '\0'));
        garbage.SendUrgent('!');
        TcpClient half_closed(server.Port());
        half_closed.Send("last words");
        half_closed.EndSending();
        EXPECT_EQ("", half_closed.ReceiveAll()) << "the server closes its side, too";
    }
    TcpClient client(server.Port());
    client.Send("still there?");
    client.EndSending();
    // A peer that is reset before the server takes its connection may be one that the server never sees.
    EXPECT_TRUE(Eventually([&] {
        const std::vector<std::string> conversations = server.Conversations();
        return std::count(conversations.begin(), conversations.end(), "still there?") == 1;
    }));
    const std::vector<std::string> conversations = server.Conversations();
    EXPECT_EQ(10, std::count(conversations.begin(), conversations.end(), "last words"));
    EXPECT_TRUE(Eventually([&] { return server.Open().empty(); }));
    EXPECT_EQ(server.NotificationCounts().connected, server.NotificationCounts().terminated);
}

TEST_P(CSocketStream, ServerMixesNothingUpWhereNumbersAreUsedAgainAtOnce) {
    constexpr int clients = 8;
    constexpr int conversations = 50;
    Server server(GetParam());
    std::atomic<int> failures{0};
    {
        std::vector<std::thread> threads;
        for (int client = 0; client < clients; ++client) {
            threads.emplace_back([&, client] {
                try {
                    for (int i = 0; i < conversations; ++i) {
                        TcpClient connection(server.Port());
                        connection.Send(TextOf(client, i));
                        connection.EndSending();
                        failures += connection.ReceiveAll().empty() ? 0 : 1;
                    }
                } catch (const std::exception&) {
                    ++failures;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(0, failures);
    EXPECT_TRUE(Eventually([&] { return server.NotificationCounts().connected == clients * conversations; }));
    EXPECT_TRUE(Eventually([&] { return server.NotificationCounts().terminated == clients * conversations; }));
    std::vector<std::string> expected;
    for (int client = 0; client < clients; ++client) {
        for (int i = 0; i < conversations; ++i) {
            expected.push_back(TextOf(client, i));
        }
    }
    std::vector<std::string> heard = server.Conversations();
    std::sort(heard.begin(), heard.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(heard == expected);
    EXPECT_TRUE(server.Open().empty());
}

TEST_P(CSocketStream, ServerAnswersEachPeerWithItsOwnWords) {
    Server server(GetParam());
    server.on_received = [&](int socket, char* data, long length) { EXPECT_TRUE(server.Send(socket, data, length)); };
    std::vector<TcpClient> clients;
    for (int i = 0; i < 10; ++i) {
        clients.emplace_back(server.Port());
    }
    for (int round = 0; round < 10; ++round) {
        for (std::size_t i = 0; i < clients.size(); ++i) {
            clients[i].Send(TextOf(static_cast<int>(i), round));
        }
        for (std::size_t i = 0; i < clients.size(); ++i) {
            const std::string text = TextOf(static_cast<int>(i), round);
            EXPECT_EQ(text, clients[i].Receive(text.size()));
        }
    }
}

TEST_P(CSocketStream, ServerEndsInTimeUnderAStorm) {
    for (int i = 0; i < 3; ++i) {
        Server server(GetParam());
        const std::uint16_t port = server.Port();
        std::atomic<bool> end{false};
        std::vector<std::thread> threads;
        for (int client = 0; client < 4; ++client) {
            threads.emplace_back([&] {
                while (!end) {
                    try {
                        TcpClient(port).Send("storm");
                    } catch (const std::exception&) {
                        // The server has ended.
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    }
                }
            });
        }
        EXPECT_TRUE(Eventually([&] { return server.NotificationCounts().connected >= 20; }));
        EXPECT_LT(DurationOf([&] { EXPECT_FALSE(server.TerminateAll()); }), seconds(9));
        end = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(ReceiverThreads, CSocketStream, testing::Values(1, 5));
