// The receiving thread needs little stack: 128 KiB are enough for the largest read with the log on.

#include <TarnSocketIO/CAsyncIO.h>
#include <TarnSocketIO/CUtility.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OutputCapture.h"
#include "tests/support/TcpClient.h"
#include "tests/support/TestServer.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARN_TEST_SANITIZED
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARN_TEST_SANITIZED
#endif

using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CUtility;
using TarnTest::Eventually;
using TarnTest::OutputCapture;
using TarnTest::ResetLog;
using TarnTest::TcpClient;
using TarnTest::TestServer;
using testing::HasSubstr;

namespace {

constexpr std::size_t one_read = 131070;
constexpr std::size_t small_stack = 131072;

class ThreadAttributes {
public:
    ThreadAttributes() { pthread_attr_init(&m_attributes); }
    ~ThreadAttributes() { pthread_attr_destroy(&m_attributes); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;

    pthread_attr_t* Get() { return &m_attributes; }

private:
    pthread_attr_t m_attributes{};
};

/// Runs a function on a thread made with these attributes, to its end.
void RunOnThread(ThreadAttributes& attributes, const std::function<void()>& function) {
    const auto start = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread{};
    if (pthread_create(&thread, attributes.Get(), start, const_cast<std::function<void()>*>(&function)) != 0) {
        throw std::runtime_error("no thread with such a stack");
    }
    pthread_join(thread, nullptr);
}

/// A stack that shows afterwards how much of it was used.
class MeasuredStack {
public:
    MeasuredStack()
        : m_memory(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {
        if (m_memory == MAP_FAILED) {
            throw std::runtime_error("no memory for a stack");
        }
        std::memset(m_memory, pattern, size);
    }
    ~MeasuredStack() { munmap(m_memory, size); }
    MeasuredStack(const MeasuredStack&) = delete;
    MeasuredStack& operator=(const MeasuredStack&) = delete;

    void Use(ThreadAttributes& attributes) const { pthread_attr_setstack(attributes.Get(), m_memory, size); }

    /// Bytes from the deepest that was written up to the top; what a thread keeps of its own there counts.
    std::size_t Used() const {
        const auto* const bottom = static_cast<const unsigned char*>(m_memory);
        const auto* const deepest = std::find_if(bottom, bottom + size, [](unsigned char c) { return c != pattern; });
        return static_cast<std::size_t>(bottom + size - deepest);
    }

private:
    static constexpr std::size_t size = 1048576;
    static constexpr unsigned char pattern = 0xA5;
    void* const m_memory;
};

/// A server with one connection, whose kernel buffer holds more than one read.
class ServedClient {
public:
    ServedClient() : client(Listen(server)), connection(server.Accept()) {
        server.on_received = [this](int socket, char*, long) { server.Send(socket, "answer", 6); };
    }

    /// Waits until a whole read has arrived.
    bool HasOneRead() const {
        return Eventually([this] {
            int waiting = 0;
            return ioctl(connection, FIONREAD, &waiting) == 0 && static_cast<std::size_t>(waiting) >= one_read;
        });
    }

    std::size_t Received() const { return server.ReceivedFrom(connection).size(); }

    TestServer server;
    TcpClient client;
    const int connection;

private:
    static std::uint16_t Listen(TestServer& server) {
        server.Initialise(0, nullptr);
        const int size = 1048576;
        setsockopt(server.GetListenerSocket(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        return server.Port();
    }
};

class CAsyncIOSmallStack : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        ResetLog();
        CUtility::Initialise(GetParam());
    }
    void TearDown() override { CUtility::SetLoggingDestination(0); }

    /// The whole log, wherever it went.
    std::string Log() const {
        std::string log = m_output.Text();
        for (int i = 0; i < CUtility::LOG_ENTRIES; ++i) {
            log += CUtility::GetCyclicLogEntries(i);
        }
        return log;
    }

    const OutputCapture m_output;
};

}  // namespace

TEST_P(CAsyncIOSmallStack, IsEnoughForWholeReadsAndAnswers) {
    ServedClient served;
    const std::string data(4 * one_read, 'd');
    std::thread sender([&] { served.client.Send(data); });
    EXPECT_TRUE(served.HasOneRead());

    ThreadAttributes attributes;
    ASSERT_EQ(0, pthread_attr_setstacksize(attributes.Get(), small_stack));
    bool all_received = false;
    RunOnThread(attributes, [&] {
        all_received = Eventually([&] {
            served.server.MultiConnectionPoller();
            return served.Received() >= data.size();
        });
    });
    sender.join();

    EXPECT_TRUE(all_received);
    EXPECT_TRUE(served.server.ReceivedFrom(served.connection) == data);
    const std::size_t reads = served.server.Received().size();
    EXPECT_EQ(one_read, served.server.Received().front().size());
    EXPECT_EQ(6 * reads, served.client.Receive(6 * reads).size());
    EXPECT_THAT(Log(), HasSubstr("CAsyncIO::MultiConnectionPoller - received POLLIN or POLLPRI event"));
}

TEST_P(CAsyncIOSmallStack, IsHardlyUsedByAPass) {
#ifdef TARN_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer's own frames are on the stack: what is measured would not be the library's";
#endif
    ServedClient served;
    TestServer datagrams(CONNECTION_UDP);
    datagrams.Initialise(0, nullptr);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(datagrams.Port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(8, sendto(datagrams.GetListenerSocket(), "datagram", 8, 0, reinterpret_cast<const sockaddr*>(&address),
                        sizeof address));
    std::thread sender([&] {
        served.client.Send(std::string(one_read, 'd'));
        served.client.EndSending();
    });
    EXPECT_TRUE(served.HasOneRead());
    sender.join();

    const MeasuredStack stack;
    ThreadAttributes attributes;
    stack.Use(attributes);
    RunOnThread(attributes, [&] {
        datagrams.MultiConnectionPoller();
        served.server.MultiConnectionPoller();  // the data
        served.server.MultiConnectionPoller();  // the end
    });

    EXPECT_EQ("datagram", datagrams.Received().at(0));
    EXPECT_EQ(one_read, served.Received());
    EXPECT_EQ(1u, served.server.Terminated().size());
    RecordProperty("bytes_of_stack", std::to_string(stack.Used()));
    EXPECT_LT(stack.Used(), 64u * 1024);
}

INSTANTIATE_TEST_SUITE_P(Log, CAsyncIOSmallStack, testing::Values(1, 3),
                         [](const auto& test) { return test.param == 1 ? "ToTheConsole" : "IntoTheRing"; });
