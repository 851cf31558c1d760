// Servers used by several threads at once: notifications, overlapping passes, signals, many clients.

#include <TarnSocketIO/CAsyncIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <future>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/BackgroundCall.h"
#include "tests/support/Duration.h"
#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Resources.h"
#include "tests/support/ServerLog.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestServer.h"

namespace {

using std::chrono::milliseconds;
using TarnTest::accept_failed_line;
using TarnTest::attempts;
using TarnTest::BackgroundCall;
using TarnTest::Connection;
using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::cut_short;
using TarnTest::DurationOf;
using TarnTest::Eventually;
using TarnTest::IsReadable;
using TarnTest::ListeningServer;
using TarnTest::LogCapture;
using TarnTest::ServeUntil;
using TarnTest::TcpClient;
using TarnTest::TestServer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Clock = std::chrono::steady_clock;

void IgnoreSignal(int) {}

/// Lets SIGUSR1 interrupt system calls, for as long as the object lives.
class InterruptingSignal {
public:
    InterruptingSignal() {
        struct sigaction action = {};
        action.sa_handler = IgnoreSignal;
        sigaction(SIGUSR1, &action, &m_before);
    }
    ~InterruptingSignal() { sigaction(SIGUSR1, &m_before, nullptr); }
    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

private:
    struct sigaction m_before = {};
};

// ---- notifications hold no lock

/// What other threads must be able to do while a notification runs.
void ExpectServerIsUsable(TestServer& server, int connected) {
    const TcpClient another(server.Port());
    BackgroundCall calls([&] {
        return server.Send(connected, "x", 1) && server.GetListenerSocket() != -1 && !server.Initialise(0, nullptr) &&
               server.MultiConnectionAcceptor();
    });
    EXPECT_TRUE(Eventually([&] { return calls.HasEnded(); })) << "the notification keeps another thread waiting";
}

TEST(CAsyncIO, OtherThreadsAreNotHeldUpByOnConnected) {
    ListeningServer server;
    const Connection first(server);
    server.on_connected = [&](int) {
        server.on_connected = nullptr;
        ExpectServerIsUsable(server, first.socket);
    };
    const Connection second(server);
    EXPECT_THAT(server.Connected(), SizeIs(3));
}

TEST(CAsyncIO, OtherThreadsAreNotHeldUpByOnReceivedData) {
    ListeningServer server;
    Connection first(server);
    server.on_received = [&](int socket, char*, long) { ExpectServerIsUsable(server, socket); };
    first.client.Send("x");
    ASSERT_TRUE(IsReadable(first.socket));
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), SizeIs(1));
    EXPECT_THAT(server.Connected(), SizeIs(2));
}

TEST(CAsyncIO, OtherThreadsAreNotHeldUpByOnTerminated) {
    ListeningServer server;
    Connection first(server);
    const Connection second(server);
    server.on_terminated = [&](int socket) {
        close(socket);
        ExpectServerIsUsable(server, second.socket);
    };
    first.client.EndSending();
    ASSERT_TRUE(IsReadable(first.socket));
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Terminated(), SizeIs(1));
    EXPECT_THAT(server.Connected(), SizeIs(3));
}

TEST(CAsyncIO, OtherThreadsAreNotHeldUpByAWaitingPassOrAcceptor) {
    ListeningServer server;
    Connection connection(server);
    server.StartLoops();
    const auto start = Clock::now();
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(server.Send(connection.socket, "x", 1));
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20)) << "each Send waits for a pass to end";
    EXPECT_EQ(100u, connection.client.Receive(100).size());
}

// ---- passes do not overlap

TEST(CAsyncIO, PassReturnsAtOnceWhileAnotherIsInANotification) {
    ListeningServer server;
    Connection busy(server);
    Connection other(server);
    std::promise<void> is_inside;
    std::promise<void> may_leave;
    server.on_received = [&](int socket, char*, long) {
        if (socket == busy.socket) {
            is_inside.set_value();
            may_leave.get_future().wait();
        }
    };
    busy.client.Send("busy");
    ASSERT_TRUE(IsReadable(busy.socket));
    BackgroundCall pass([&] { return server.MultiConnectionPoller(); });
    is_inside.get_future().wait();
    other.client.Send("other");
    ASSERT_TRUE(IsReadable(other.socket));

    const LogCapture log;
    EXPECT_FALSE(server.MultiConnectionPoller());
    EXPECT_EQ("", server.ReceivedFrom(other.socket)) << "served by a second pass";
    EXPECT_FALSE(pass.HasEnded());
    EXPECT_THAT(log.Messages(), IsEmpty());
    may_leave.set_value();
    EXPECT_FALSE(pass.Result());
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(other.socket) == "other"; }));
}

TEST(CAsyncIO, PassReturnsAtOnceWhileAnotherWaits) {
    ListeningServer server;
    const Connection idle(server);
    Clock::duration fastest = Clock::duration::max();
    for (int i = 0; i < attempts && fastest >= cut_short; ++i) {
        BackgroundCall pass([&] { return server.MultiConnectionPoller(); });
        ASSERT_TRUE(Eventually([&] { return pass.Waits() || pass.HasEnded(); }));
        const auto start = Clock::now();
        EXPECT_FALSE(server.MultiConnectionPoller());
        fastest = std::min(fastest, Clock::now() - start);
    }
    EXPECT_LT(fastest, cut_short);
}

TEST(CAsyncIO, PassFromWithinANotificationReturnsAtOnce) {
    ListeningServer server;
    Connection connection(server);
    server.on_received = [&](int, char*, long) { EXPECT_FALSE(server.MultiConnectionPoller()); };
    connection.client.Send("data");
    ASSERT_TRUE(IsReadable(connection.socket));
    server.MultiConnectionPoller();
    EXPECT_THAT(server.Received(), ElementsAre("data"));

    server.on_received = nullptr;
    connection.client.Send("more");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.Received().size() == 2; })) << "no pass runs any more";
}

// ---- signals

TEST(CAsyncIO, SignalEndsAWaitingPassWithoutHarm) {
    const InterruptingSignal signal;
    ListeningServer server;
    Connection connection(server);
    const LogCapture log;
    Clock::duration fastest = Clock::duration::max();
    for (int i = 0; i < attempts && fastest >= cut_short; ++i) {
        const auto start = Clock::now();
        BackgroundCall pass([&] { return server.MultiConnectionPoller(); });
        ASSERT_TRUE(Eventually([&] { return pass.Waits() || pass.HasEnded(); }));
        while (!pass.HasEnded()) {
            pass.Interrupt();
            std::this_thread::sleep_for(milliseconds(1));
        }
        fastest = std::min(fastest, Clock::now() - start);
        EXPECT_FALSE(pass.Result());
    }
    EXPECT_LT(fastest, cut_short);
    EXPECT_THAT(log.Messages(), IsEmpty());
    EXPECT_THAT(server.Notifications(), SizeIs(1)) << "more than its OnConnected";
    connection.client.Send("unharmed");
    EXPECT_TRUE(ServeUntil(server, [&] { return server.ReceivedFrom(connection.socket) == "unharmed"; }));
}

TEST(CAsyncIO, SignalEndsAWaitingAcceptorAndTheNextCallWorks) {
    const InterruptingSignal signal;
    ListeningServer server;
    const LogCapture log;
    BackgroundCall acceptor([&] { return server.MultiConnectionAcceptor(); });
    ASSERT_TRUE(Eventually([&] {
        if (acceptor.Waits()) {
            acceptor.Interrupt();
        }
        return acceptor.HasEnded();
    }));
    EXPECT_FALSE(acceptor.Result());
    EXPECT_THAT(log.Messages(), ElementsAre(accept_failed_line));
    EXPECT_THAT(server.Connected(), IsEmpty());
    EXPECT_NE(-1, Connection(server).socket);
}

TEST(CAsyncIO, NothingReceivedIsLostToSignals) {
    const InterruptingSignal signal;
    ListeningServer server;
    Connection connection(server);
    std::string sent;
    for (int i = 0; i < 50000; ++i) {
        sent += std::to_string(i) + ' ';
    }
    BackgroundCall passes([&] {
        return ServeUntil(server, [&] { return server.ReceivedFrom(connection.socket).size() >= sent.size(); });
    });
    const auto sending = std::async(std::launch::async, [&] { connection.client.Send(sent); });
    while (!passes.HasEnded()) {
        passes.Interrupt();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    EXPECT_TRUE(passes.Result());
    EXPECT_TRUE(sent == server.ReceivedFrom(connection.socket)) << "not the bytes that were sent";
    EXPECT_THAT(server.Terminated(), IsEmpty());
}

TEST(CAsyncIO, StepOfTheAcceptorLastsItsTimeWhateverSignalsCome) {
    const InterruptingSignal signal;
    TestServer uninitialised;
    BackgroundCall steps([&] {
        bool long_enough = true;
        for (int i = 0; i < 20; ++i) {
            long_enough =
                long_enough && DurationOf([&] { uninitialised.MultiConnectionAcceptor(); }) >= milliseconds(3);
        }
        return long_enough;
    });
    while (!steps.HasEnded()) {
        steps.Interrupt();
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    EXPECT_TRUE(steps.Result());
}

// ---- many clients

TEST(CAsyncIO, FiftyClientsAtOnceAreAllAnsweredInTheEnd) {
    ListeningServer server;
    server.on_received = [&](int socket, char* data, long length) { server.Send(socket, data, length); };
    std::vector<TcpClient> clients;
    for (std::size_t i = 0; i < 50; ++i) {
        clients.emplace_back(server.Port());
        clients.back().Send("client " + std::to_string(10 + i));
    }
    server.StartLoops();
    for (std::size_t i = 0; i < 50; ++i) {
        EXPECT_EQ("client " + std::to_string(10 + i), clients[i].Receive(9));
        clients[i].Close();
    }
    EXPECT_TRUE(Eventually([&] { return server.Terminated().size() == 50; }));
    EXPECT_THAT(server.Connected(), SizeIs(50));
}

TEST(CAsyncIO, NoMoreThan20ConnectionsAreOpenAtAnyTime) {
    ListeningServer server;
    std::atomic<int> open(0);
    std::atomic<int> most(0);
    server.on_connected = [&](int) {
        const int now = ++open;
        most = std::max(most.load(), now);
    };
    server.on_terminated = [&](int socket) {
        --open;  // before the record is given back
        close(socket);
    };
    std::vector<TcpClient> clients;
    for (int i = 0; i < 60; ++i) {
        clients.emplace_back(server.Port());
    }
    server.StartLoops();
    for (std::size_t i = 0; i < clients.size(); ++i) {
        ASSERT_TRUE(Eventually([&] { return server.Connected().size() > i; }));
        clients[i].Close();
    }
    EXPECT_TRUE(Eventually([&] { return server.Terminated().size() == 60; }));
    EXPECT_LE(most, 20);
}

/// Clients that come, talk and go, in every way and all at once, while others send to whatever is connected.
class Storm {
public:
    Storm() : m_end(Clock::now() + std::chrono::milliseconds(1500)), m_clients(0), m_mixed(0) {
        m_server.on_connected = [this](int socket) {
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_tags[socket] = '\0';
            }
            m_server.Send(socket, "!", 1);
        };
        m_server.on_received = [this](int socket, char* data, long length) { CheckTag(socket, data, length); };
        m_server.on_terminated = [this](int socket) {
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_tags.erase(socket);
            }
            close(socket);
        };
        m_server.Initialise(0, nullptr);
        m_server.StartLoops();
    }

    void Run() {
        std::vector<std::thread> threads;
        for (unsigned int i = 0; i < 4; ++i) {
            threads.emplace_back([this, i] { ComeAndGo(i); });
        }
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back([this] { SendToAnyone(); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    TestServer& Server() { return m_server; }
    int Clients() const { return m_clients; }
    int Mixed() const { return m_mixed; }

private:
    void CheckTag(int socket, const char* data, long length) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        char& tag = m_tags[socket];
        tag = tag == '\0' ? data[0] : tag;
        if (!std::all_of(data, data + length, [tag](char byte) { return byte == tag; })) {
            ++m_mixed;
        }
    }

    void ComeAndGo(unsigned int seed) {
        std::mt19937 random(seed);
        try {
            for (int i = 0; i < 600 && Clock::now() < m_end; ++i) {
                const int number = m_clients++;
                TcpClient client(m_server.Port());
                const std::string data(random() % 5000, static_cast<char>('A' + number % 26));
                client.Send(data);
                // The kernel forgets a client that breaks off before its connection is complete.
                EXPECT_EQ(1u, client.Receive(1).size()) << "a connection was closed before its client left";
                client.Send(data);
                if (random() % 2 == 0) {
                    client.Reset();
                }
            }
        } catch (const std::system_error& error) {
            ADD_FAILURE() << error.what();
        }
    }

    void SendToAnyone() {
        while (Clock::now() < m_end) {
            int socket = -1;
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                if (!m_tags.empty()) {
                    socket = std::next(m_tags.begin(), m_clients % static_cast<int>(m_tags.size()))->first;
                }
            }
            m_server.Send(socket, "0123456789", 10);
            std::this_thread::yield();
        }
    }

    const Clock::time_point m_end;
    std::atomic<int> m_clients;
    std::atomic<int> m_mixed;
    std::mutex m_mutex;
    std::map<int, char> m_tags;
    TestServer m_server;  // last: its loops end before what they use
};

TEST(CAsyncIO, StormOfClientsIsSurvivedInGoodOrder) {
    const std::size_t descriptors = CountOpenDescriptors();
    const std::size_t threads = CountThreads();
    {
        Storm storm;
        storm.Run();
        TestServer& server = storm.Server();
        EXPECT_GT(storm.Clients(), 0);
        EXPECT_TRUE(Eventually([&] {
            return server.Connected().size() == static_cast<std::size_t>(storm.Clients()) &&
                   server.Terminated().size() == server.Connected().size();
        })) << storm.Clients()
            << " clients, " << server.Connected().size() << " connected, " << server.Terminated().size()
            << " terminated";
        EXPECT_EQ(0, storm.Mixed()) << "data of one client under the connection of another";
        EXPECT_EQ(descriptors + 1, CountOpenDescriptors()) << "more than the listener";
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors());
    EXPECT_TRUE(Eventually([&] { return CountThreads() <= threads; }));
}

TEST(CAsyncIO, ServersStoppedInFullSwingEndCleanly) {
    const std::size_t descriptors = CountOpenDescriptors();
    for (int i = 0; i < 20; ++i) {
        std::vector<TcpClient> clients;
        ListeningServer server;
        server.StartLoops();
        for (int client = 0; client < 10; ++client) {
            clients.emplace_back(server.Port());
            clients.back().Send("data");
        }
        if (i % 2 == 0) {
            clients.clear();
        }
        server.EndLoops();
    }
    EXPECT_EQ(descriptors, CountOpenDescriptors());
}

}  // namespace
