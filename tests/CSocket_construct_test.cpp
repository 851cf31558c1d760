// What an endpoint is like when a constructor has returned.

#include <TarnSocketIO/CAsyncIO.h>
#include <TarnSocketIO/CConnectionAcceptor.h>
#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/ConnectionType.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/EndpointMembers.h"
#include "tests/support/OutputLog.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CAsyncIO;
using TarnSocketIO::CConnectionAcceptor;
using TarnSocketIO::CIPString;
using TarnSocketIO::CONNECTION_DATAGRAM;
using TarnSocketIO::CONNECTION_ICMP;
using TarnSocketIO::CONNECTION_PACKET;
using TarnSocketIO::CONNECTION_STREAM;
using TarnSocketIO::CONNECTION_TYPE;
using TarnSocketIO::CONNECTION_UDP;
using TarnSocketIO::CSocket;
using TarnTest::CountOpenDescriptors;
using TarnTest::CountThreads;
using TarnTest::InChild;
using TarnTest::OutputLog;
using TarnTest::Shared;
using TarnTest::TestEndpoint;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

using Members = TarnTest::EndpointMembers;
using Lines = std::vector<std::string>;

constexpr const char* start_line = "CSocket::CSocket - StartServer()";

static_assert(CONNECTION_STREAM == 0 && CONNECTION_UDP == 1 && CONNECTION_DATAGRAM == 2 && CONNECTION_ICMP == 3 &&
                  CONNECTION_PACKET == 4,
              "the values are part of the interface");
static_assert(!std::is_abstract_v<CSocket>, "every notification has a default");
static_assert(!std::is_copy_constructible_v<CSocket> && !std::is_copy_assignable_v<CSocket>,
              "the sockets would have two owners");

const CONNECTION_TYPE all_types[] = {CONNECTION_STREAM, CONNECTION_UDP, CONNECTION_DATAGRAM, CONNECTION_ICMP,
                                     CONNECTION_PACKET};

/// The lines that a look for the addresses of this host writes.
Lines LinesOfLookUp(const CSocket& endpoint) {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    Lines lines = {"CSocket::GetLocalIPs - getting local ip addresses", std::string("CSocket::GetLocalIPs - ") + name};
    for (std::int32_t i = 0; i < Members::LocalIPs(endpoint); ++i) {
        lines.push_back(std::string("CSocket::GetLocalIPs - local ip ") + Members::LocalIPList(endpoint)[i].c_str());
    }
    return lines;
}

/// The same, after other lines.
Lines ThenLookUp(Lines lines, const CSocket& endpoint) {
    const Lines look_up = LinesOfLookUp(endpoint);
    lines.insert(lines.end(), look_up.begin(), look_up.end());
    return lines;
}

// ---- the shape of the class

TEST(CSocketClass, AcceptorIsTheFirstBaseAndTheServerTheSecond) {
    CSocket endpoint(CONNECTION_UDP, false, false);
    const void* const acceptor = static_cast<CConnectionAcceptor*>(&endpoint);
    const void* const server = static_cast<CAsyncIO*>(&endpoint);
    EXPECT_EQ(&endpoint, acceptor);
    EXPECT_TRUE(std::less<>()(acceptor, server));
}

class Slots : public TestEndpoint {
public:
    static std::vector<std::size_t> All() {
        return {Of<void (Slots::*)()>(&Slots::Do),
                Of<void (Slots::*)()>(&Slots::ThreadStarted),
                Of<void (Slots::*)()>(&Slots::ConnectionAcceptor),
                Of<void (Slots::*)()>(&Slots::OnConnected),
                Of<void (Slots::*)()>(&Slots::OnTerminated),
                Of<void (Slots::*)(char*, long)>(&Slots::OnReceivedData),
                Of<void (Slots::*)(char*, long, timeval&)>(&Slots::OnReceivedData),
                Of<void (Slots::*)(char*, long, const CIPString&)>(&Slots::OnReceivedData),
                Of<void (Slots::*)(const CIPString&, double)>(&Slots::OnReceivedEchoReply),
                Of<void (Slots::*)(int)>(&Slots::OnConnected),
                Of<void (Slots::*)(int)>(&Slots::OnTerminated),
                Of<void (Slots::*)(int, char*, long)>(&Slots::OnReceivedData)};
    }

private:
    /// A pointer to a virtual member begins with 1 plus the offset of its slot on every platform that the library has.
    template <class Operation>
    static std::size_t Of(Operation operation) {
        return (*static_cast<const std::size_t*>(static_cast<const void*>(&operation)) - 1) / sizeof(void*);
    }
};

TEST(CSocketClass, VirtualOperationsAreInTheInterfacesOrder) {
    EXPECT_THAT(Slots::All(), ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13))
        << "behind both entries of the destructor";
}

TEST(CSocketClass, MembersAreInTheInterfacesOrder) {
    const TestEndpoint e(CONNECTION_UDP);
    const std::vector<const void*> places = {&e.m_pLocalIPs,
                                             &e.m_nLocalIPs,
                                             &e.m_usPingSequence,
                                             &e.m_PingSenderAddress,
                                             &e.m_pReceivers,
                                             &e.m_nReceiverThreads,
                                             &e.m_bServerStarted,
                                             &e.m_bAcceptorRunning,
                                             &e.m_bReceiversRunning,
                                             &e.m_bMultiConnectionServer,
                                             &e.m_bTerminated,
                                             &e.m_uiPort,
                                             &e.m_socSender,
                                             &e.m_socReceiver,
                                             &e.m_SenderMutex,
                                             &e.m_ReceiverMutex,
                                             &e.m_bSendOnly,
                                             &e.m_bReportSource,
                                             &e.m_szGroup,
                                             &e.m_szLocalIf,
                                             &e.m_bTimestamp,
                                             &e.m_tvReceived,
                                             &e.m_Groups,
                                             &e.m_iPollTimeout,
                                             &e.m_iPingId,
                                             &e.m_iReceivesPerPass,
                                             &e.m_bMulticastSender};
    EXPECT_TRUE(std::is_sorted(places.begin(), places.end(), std::less<>()));
    EXPECT_EQ(64u, sizeof e.m_szGroup);
    EXPECT_EQ(64u, sizeof e.m_szLocalIf);
    EXPECT_EQ(5 * sizeof(void*), sizeof e.m_pReceivers);
}

// ---- the client constructor

TEST(CSocketClientConstructor, OpensNothingAndStartsNothing) {
    for (const CONNECTION_TYPE type : all_types) {
        SCOPED_TRACE(type);
        const std::size_t descriptors = CountOpenDescriptors();
        const std::size_t threads = CountThreads();
        const TestEndpoint endpoint(type);
        EXPECT_EQ(descriptors, CountOpenDescriptors());
        EXPECT_LE(CountThreads(), threads);
        EXPECT_EQ(0, endpoint.m_socSender);
        EXPECT_EQ(0, endpoint.m_socReceiver);
    }
}

TEST(CSocketClientConstructor, GivesEveryMemberItsDefault) {
    for (const CONNECTION_TYPE type : all_types) {
        SCOPED_TRACE(type);
        TestEndpoint endpoint(type);
        EXPECT_EQ(0, endpoint.m_usPingSequence);
        EXPECT_TRUE(endpoint.m_PingSenderAddress == IPv4::IPAddress());
        EXPECT_THAT(endpoint.m_pReceivers, ElementsAre(nullptr, nullptr, nullptr, nullptr, nullptr));
        EXPECT_EQ(0, endpoint.m_nReceiverThreads);
        EXPECT_FALSE(endpoint.m_bServerStarted);
        EXPECT_FALSE(endpoint.m_bAcceptorRunning);
        EXPECT_FALSE(endpoint.m_bReceiversRunning);
        EXPECT_FALSE(endpoint.m_bMultiConnectionServer) << "the server constructor alone makes a stream server";
        EXPECT_FALSE(endpoint.m_bTerminated);
        EXPECT_EQ(0u, endpoint.m_uiPort);
        EXPECT_TRUE(Members::IsMutexFree(endpoint, true));
        EXPECT_TRUE(Members::IsMutexFree(endpoint, false));
        EXPECT_FALSE(endpoint.m_bReportSource);
        EXPECT_THAT(endpoint.m_szGroup, testing::Each('\0'));
        EXPECT_THAT(endpoint.m_szLocalIf, testing::Each('\0'));
        EXPECT_THAT(endpoint.m_Groups, testing::IsEmpty());
        EXPECT_EQ(0, endpoint.m_iPollTimeout);
        EXPECT_EQ(0, endpoint.m_iPingId);
        EXPECT_EQ(1, endpoint.m_iReceivesPerPass);
        EXPECT_FALSE(endpoint.m_bMulticastSender);
    }
}

TEST(CSocketClientConstructor, KeepsItsFlags) {
    for (const bool send_only : {false, true}) {
        for (const bool timestamp : {false, true}) {
            const TestEndpoint endpoint(CONNECTION_UDP, send_only, timestamp);
            EXPECT_EQ(send_only, endpoint.m_bSendOnly);
            EXPECT_EQ(timestamp, endpoint.m_bTimestamp);
        }
    }
}

TEST(CSocketClientConstructor, LogsTheLookForAddressesAndNothingElse) {
    for (const CONNECTION_TYPE type : all_types) {
        SCOPED_TRACE(type);
        const OutputLog log;
        const CSocket endpoint(type, false, false);
        EXPECT_EQ(LinesOfLookUp(endpoint), log.Lines());
    }
}

// ---- the server constructor

TEST(CSocketServerConstructor, GivesWhatTheServerDoesNotUseItsDefault) {
    for (const CONNECTION_TYPE type : all_types) {
        SCOPED_TRACE(type);
        CSocket endpoint(0, type, nullptr, false, false, nullptr, 0);
        EXPECT_EQ(0, Members::PingSequence(endpoint));
        EXPECT_EQ(0, Members::PingId(endpoint));
        for (int slot = 0; slot < 5; ++slot) {
            EXPECT_EQ(nullptr, Members::ReceiverThread(endpoint, slot));
        }
        EXPECT_EQ(0, Members::ReceiverThreads(endpoint));
        EXPECT_EQ(type == CONNECTION_STREAM, Members::IsAcceptorRunning(endpoint));
        EXPECT_EQ(type == CONNECTION_STREAM, Members::IsMultiConnectionServer(endpoint));
        EXPECT_TRUE(Members::IsServerStarted(endpoint));
        EXPECT_FALSE(Members::IsTerminated(endpoint));
        EXPECT_FALSE(endpoint.m_bReportSource);
        EXPECT_EQ(0, endpoint.m_iPollTimeout);
        EXPECT_EQ(1, endpoint.m_iReceivesPerPass);
        EXPECT_FALSE(endpoint.m_bMulticastSender);
        EXPECT_TRUE(Members::IsMutexFree(endpoint, false));
    }
}

TEST(CSocketServerConstructor, KeepsItsFlags) {
    for (const bool send_only : {false, true}) {
        for (const bool timestamp : {false, true}) {
            const CSocket endpoint(0, CONNECTION_ICMP, nullptr, send_only, timestamp, nullptr, 1);
            EXPECT_EQ(send_only, Members::IsSendOnly(endpoint));
            EXPECT_EQ(timestamp, Members::HasTimestamps(endpoint));
        }
    }
}

TEST(CSocketServerConstructor, CopiesGroupAndInterface) {
    for (const CONNECTION_TYPE type : {CONNECTION_UDP, CONNECTION_ICMP, CONNECTION_PACKET}) {
        SCOPED_TRACE(type);
        std::string group = "239.1.2.3";
        std::string interface = "127.0.0.1";
        const CSocket endpoint(0, type, group.c_str(), true, false, interface.c_str(), 0);
        group.assign(group.size(), 'x');
        interface.assign(interface.size(), 'x');
        EXPECT_EQ("239.1.2.3", Members::Group(endpoint));
        EXPECT_EQ("127.0.0.1", Members::LocalInterface(endpoint));
    }
}

TEST(CSocketServerConstructor, WithoutGroupAndInterfaceKeepsThemEmpty) {
    const CSocket endpoint(0, CONNECTION_UDP, nullptr, true, false, nullptr, 0);
    EXPECT_EQ("", Members::Group(endpoint));
    EXPECT_EQ("", Members::LocalInterface(endpoint));
}

TEST(CSocketServerConstructor, KeepsNoMoreOfItsTextsThanTheirFieldsHold) {
    const std::string long_text(1000, 'g');
    const CSocket endpoint(0, CONNECTION_ICMP, long_text.c_str(), true, false, long_text.c_str(), 0);
    EXPECT_EQ(std::string(63, 'g'), Members::Group(endpoint));
    EXPECT_EQ(std::string(63, 'g'), Members::LocalInterface(endpoint));
    const std::string longest(63, 'l');
    const CSocket other(0, CONNECTION_ICMP, longest.c_str(), true, false, longest.c_str(), 0);
    EXPECT_EQ(longest, Members::Group(other));
}

TEST(CSocketServerConstructor, PingerAndFrameReceiverOpenNothing) {
    for (const CONNECTION_TYPE type : {CONNECTION_ICMP, CONNECTION_PACKET}) {
        SCOPED_TRACE(type);
        const std::size_t descriptors = CountOpenDescriptors();
        const OutputLog log;
        const std::size_t with_log = CountOpenDescriptors();
        const CSocket endpoint(7, type, nullptr, false, false, nullptr, 3);
        EXPECT_EQ(with_log, CountOpenDescriptors());
        EXPECT_LE(descriptors, with_log);
        EXPECT_EQ(0, Members::Sender(endpoint));
        EXPECT_EQ(0, Members::Receiver(endpoint));
        EXPECT_EQ(0, Members::ReceiverThreads(endpoint));
        EXPECT_EQ(0u, Members::Port(endpoint)) << "only InitialiseLocalSockets sets it";
        EXPECT_EQ(ThenLookUp({std::string(start_line) + " - succeeded"}, endpoint), log.Lines());
    }
}

TEST(CSocketServerConstructor, LooksForAddressesAfterTheStart) {
    const OutputLog log;
    const CSocket endpoint(0, CONNECTION_UDP, nullptr, true, false, nullptr, 2);
    const Lines expected =
        ThenLookUp({"CSocket::InitialiseLocalSockets - threads 2",
                    "CSocket::StartClient() - creating sender socket " + std::to_string(Members::Sender(endpoint)),
                    "CSocket::StartServer StartClient for connectionless replies - succeeded",
                    std::string(start_line) + " - succeeded"},
                   endpoint);
    EXPECT_EQ(expected, log.LinesOfEndpoint());
}

TEST(CSocketServerConstructor, StreamServerRunsItsAcceptorWithoutSockets) {
    const OutputLog log;
    const CSocket endpoint(0, CONNECTION_STREAM, nullptr, false, false, nullptr, 4);
    const Lines expected = ThenLookUp(
        {"CSocket::StartServer - running connection acceptor - succeeded", std::string(start_line) + " - succeeded"},
        endpoint);
    EXPECT_EQ(expected, log.LinesOfEndpoint());
    EXPECT_EQ(0, Members::Sender(endpoint));
    EXPECT_EQ(0, Members::Receiver(endpoint));
    EXPECT_EQ(0, Members::ReceiverThreads(endpoint)) << "InitialiseLocalSockets starts them";
}

/// Uses up the process's threads, and needs a process of its own for that.
///
/// @return false if there are always more.
bool UseUpThreads() {
    const rlimit none = {0, 0};
    // The limit does not count for the superuser.
    if ((geteuid() == 0 && setuid(65534) != 0) || setrlimit(RLIMIT_NPROC, &none) != 0) {
        return false;
    }
    pthread_t thread;
    const auto nothing = [](void*) -> void* { return nullptr; };
    if (pthread_create(&thread, nullptr, nothing, nullptr) == 0) {
        pthread_join(thread, nullptr);
        return false;
    }
    return true;
}

TEST(CSocketServerConstructor, FailedStartIsOnlyLogged) {
    const Shared<bool> is_limited;
    InChild([&] {
        *is_limited = UseUpThreads();
        if (!*is_limited) {
            return;
        }
        const OutputLog log;
        {
            const CSocket endpoint(0, CONNECTION_STREAM, nullptr, false, false, nullptr, 0);
            const Lines expected = ThenLookUp(
                {"CSocket::StartServer - running connection acceptor - failed", std::string(start_line) + " - failed"},
                endpoint);
            EXPECT_EQ(expected, log.LinesOfEndpoint());
            EXPECT_FALSE(Members::IsAcceptorRunning(endpoint));
        }
        EXPECT_THAT(log.Lines(), Not(Contains("CSocket::TerminateAll - stopping acceptor thread")));
    });
    if (!*is_limited) {
        GTEST_SKIP() << "the number of threads cannot be limited here";
    }
}

TEST(CSocketServerConstructor, ReceiversBehindOneThatCouldNotStartAreMadeAndNotStarted) {
    const Shared<bool> is_limited;
    InChild([&] {
        *is_limited = UseUpThreads();
        if (!*is_limited) {
            return;
        }
        const OutputLog log;
        const CSocket endpoint(0, CONNECTION_UDP, nullptr, false, false, "127.0.0.1", 2);
        EXPECT_FALSE(Members::AreReceiversRunning(endpoint));
        EXPECT_EQ(2, Members::ReceiverThreads(endpoint));
        EXPECT_NE(nullptr, Members::ReceiverThread(endpoint, 0));
        EXPECT_NE(nullptr, Members::ReceiverThread(endpoint, 1));
        const Lines lines = log.Lines();
        EXPECT_EQ(2, std::count(lines.begin(), lines.end(),
                                "CSocket::InitialiseLocalSockets - running receiver thread - failed"));
        EXPECT_THAT(lines, Contains(std::string(start_line) + " - succeeded"));
    });
    if (!*is_limited) {
        GTEST_SKIP() << "the number of threads cannot be limited here";
    }
}

}  // namespace
