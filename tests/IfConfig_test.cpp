#include <TarnSocketIO/IfConfig.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstddef>
#include <exception>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/InterfaceRequests.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfFlagsReq;
using TarnSocketIO::IfReq;
using TarnTest::AllDescriptorsTaken;
using TarnTest::ChildProcess;
using TarnTest::CountOpenDescriptors;
using TarnTest::GetBroadcast;
using TarnTest::GetNetmask;
using TarnTest::IsOpen;
using TarnTest::OwnedDescriptor;
using TarnTest::PrivateNetwork;
using TarnTest::SetAddress;
using TarnTest::SetBroadcast;
using TarnTest::SetNetmask;
using TarnTest::SocketKind;
using testing::ElementsAre;

static_assert(!std::is_copy_constructible_v<IfConfig>);
static_assert(!std::is_copy_assignable_v<IfConfig>);
static_assert(!std::is_move_constructible_v<IfConfig>);
static_assert(!std::is_move_assignable_v<IfConfig>);
static_assert(!std::is_polymorphic_v<IfConfig>);
static_assert(sizeof(IfConfig) == sizeof(int));
static_assert(std::is_nothrow_destructible_v<IfConfig>);
static_assert(GetAllIfs::INITIAL_IFREQ_SIZE == 10);
static_assert(std::is_same_v<int, GetAllIfs::ErrorType>);
static_assert(std::is_same_v<int, SetAddress::ErrorType>);
static_assert(std::is_same_v<int, GetNetmask::ErrorType>);

// The requests are named by their numbers in the types.
static_assert(SIOCSIFADDR == 35094);
static_assert(SIOCSIFNETMASK == 35100);
static_assert(SIOCSIFBRDADDR == 35098);
static_assert(SIOCGIFNETMASK == 35099);
static_assert(SIOCGIFBRDADDR == 35097);
static_assert(SIOCGIFCONF == 35090);
static_assert(SIOCGIFFLAGS == 35091);
static_assert(SIOCSIFFLAGS == 35092);

template <class Request>
constexpr bool adds_nothing = std::is_base_of_v<IfReq, Request> && sizeof(Request) == sizeof(ifreq);
static_assert(adds_nothing<SetAddress>);
static_assert(adds_nothing<SetNetmask>);
static_assert(adds_nothing<SetBroadcast>);
static_assert(adds_nothing<GetNetmask>);
static_assert(adds_nothing<GetBroadcast>);
static_assert(std::is_same_v<IPAddress, GetNetmask::ValType>);
static_assert(std::is_same_v<IPAddress, GetBroadcast::ValType>);

// --- the socket ---

TEST(IfConfig, OpensADatagramSocketForTheCaller) {
    const OwnedDescriptor first(IfConfig::GetASocketDescriptor());
    const OwnedDescriptor second(IfConfig::GetASocketDescriptor());
    ASSERT_GE(first.Number(), 0);
    EXPECT_NE(first.Number(), second.Number());
    EXPECT_TRUE(SocketKind(first.Number()) == SocketKind(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
}

TEST(IfConfig, OpensASocketThatProgramsDoNotInherit) {
    const OwnedDescriptor socket(IfConfig::GetASocketDescriptor());
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket.Number(), F_GETFD));
}

TEST(IfConfig, HoldsASocketForItsLife) {
    int sd = -1;
    {
        const IfConfig config;
        sd = config.GetSocketDescriptor();
        EXPECT_TRUE(SocketKind(sd) == SocketKind(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
        EXPECT_EQ(sd, config.GetSocketDescriptor());
    }
    EXPECT_FALSE(IsOpen(sd));
}

TEST(IfConfig, ClosesItsSocketAlone) {
    const IfConfig first;
    const std::size_t before = CountOpenDescriptors();
    {
        const IfConfig second;
        EXPECT_NE(first.GetSocketDescriptor(), second.GetSocketDescriptor());
        EXPECT_EQ(before + 1, CountOpenDescriptors());
    }
    EXPECT_EQ(before, CountOpenDescriptors());
    EXPECT_TRUE(IsOpen(first.GetSocketDescriptor()));
}

TEST(IfConfig, ClosesASocketThatIsDescriptor0) {
    const TarnTest::StandardInputSetAside zero_is_free;
    ASSERT_FALSE(IsOpen(0));
    {
        const IfConfig config;
        ASSERT_EQ(0, config.GetSocketDescriptor());
        EXPECT_TRUE(IsOpen(0));
    }
    EXPECT_FALSE(IsOpen(0));
}

TEST(IfConfig, AThousandLeaveNoDescriptorBehind) {
    const std::size_t before = CountOpenDescriptors();
    for (int i = 0; i < 1000; ++i) {
        const IfConfig config;
        ASSERT_GE(config.GetSocketDescriptor(), 0);
    }
    EXPECT_EQ(before, CountOpenDescriptors());
}

/// @return null if nothing is thrown.
std::exception_ptr Thrown(void (*open)()) {
    try {
        open();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

std::string TextOf(const std::exception_ptr& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

void ExpectNoSocketFrom(void (*open)()) {
    const OwnedDescriptor before(IfConfig::GetASocketDescriptor());
    ChildProcess child([open] {
        // Looked at when there are descriptors again: a sanitizer needs one to look at an exception.
        std::exception_ptr thrown;
        {
            const AllDescriptorsTaken none_left;
            thrown = Thrown(open);
        }
        ASSERT_NE(nullptr, thrown);
        EXPECT_EQ("could open socket for IfConfig", TextOf(thrown));
        EXPECT_EQ(nullptr, Thrown(open)) << "though there are descriptors again";
    });
    EXPECT_EQ(0, child.ExitStatus());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("", child.Output());
    EXPECT_EQ("close - IfConfig::GetASocketDescriptor(): Too many open files\n", child.Errors());
}

TEST(IfConfig, ThrowsAndSaysWhyWithoutADescriptorLeft) {
    ExpectNoSocketFrom([] { const IfConfig config; });
    ExpectNoSocketFrom([] { const OwnedDescriptor socket(IfConfig::GetASocketDescriptor()); });
}

// --- operations ---

struct Operation {
    int result = 0;
    std::vector<int> descriptors;

    int DoIoCtl(int sd) {
        descriptors.push_back(sd);
        return result;
    }
    int DoIoCtl(int sd, std::string& first, int& second) {
        first = "first";
        second = 2;
        return DoIoCtl(sd);
    }
};

TEST(IfConfig, RunsAnOperationOnItsSocket) {
    const IfConfig config;
    Operation operation;
    EXPECT_EQ(0, config.DoIoCtl(operation));
    operation.result = 19;
    EXPECT_EQ(19, config.DoIoCtl(operation));
    EXPECT_THAT(operation.descriptors, ElementsAre(config.GetSocketDescriptor(), config.GetSocketDescriptor()));
}

TEST(IfConfig, GivesResultsToTheOperation) {
    const IfConfig config;
    Operation operation;
    std::string first;
    int second = 0;
    EXPECT_EQ(0, config.DoIoCtl(operation, first, second));
    EXPECT_EQ("first", first);
    EXPECT_EQ(2, second);
}

TEST(IfFlagsReq, ReadsTheFlagsThatTheKernelHas) {
    const IfConfig config;
    ifreq expected{};
    expected.ifr_name[0] = 'l';
    expected.ifr_name[1] = 'o';
    ASSERT_EQ(0, ioctl(config.GetSocketDescriptor(), SIOCGIFFLAGS, &expected));
    IfFlagsReq flags("lo");
    EXPECT_EQ(0, flags.DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS));
    EXPECT_STREQ("lo", flags.GetIfName());
    EXPECT_EQ(expected.ifr_flags, flags.GetFlags());
    EXPECT_TRUE(flags.IsLoopback());
    EXPECT_FALSE(flags.IsBroadcast());
}

// --- single addresses ---

template <class Request>
class SetIoCltIf : public testing::Test {};
using SettingRequests = testing::Types<SetAddress, SetNetmask, SetBroadcast>;
TYPED_TEST_SUITE(SetIoCltIf, SettingRequests, );

TYPED_TEST(SetIoCltIf, HasTheNameAndTheValueThatItIsMadeWith) {
    const TypeParam request("abcdefghijklmnop", IPAddress(192, 0, 2, 7));
    EXPECT_STREQ("abcdefghijklmno", request.GetIfName());
    EXPECT_EQ(IPAddress(192, 0, 2, 7), request.GetAddress());
    EXPECT_EQ(AF_INET, request.GetFlags());
}

TYPED_TEST(SetIoCltIf, SetReplacesTheValue) {
    TypeParam request("eth0", IPAddress(192, 0, 2, 7));
    request.Set(IPAddress(198, 51, 100, 200));
    EXPECT_EQ(IPAddress(198, 51, 100, 200), request.GetBcastAddress());
    request.Set(IPAddress());
    EXPECT_EQ(IPAddress(), request.GetAddress());
    EXPECT_STREQ("eth0", request.GetIfName());
}

template <class Request>
class GetIoCltIf : public testing::Test {};
using ReadingRequests = testing::Types<GetNetmask, GetBroadcast>;
TYPED_TEST_SUITE(GetIoCltIf, ReadingRequests, );

TYPED_TEST(GetIoCltIf, HasNoValueBeforeTheRequest) {
    const TypeParam request("abcdefghijklmnop");
    EXPECT_STREQ("abcdefghijklmno", request.GetIfName());
    EXPECT_EQ(0, request.GetFlags());
    EXPECT_THROW(request.Get(), std::logic_error);
}

TYPED_TEST(GetIoCltIf, GetReadsTheAddressInTheRecord) {
    TypeParam request("eth0");
    request.SetAddress(IPAddress(255, 255, 240, 0));
    EXPECT_EQ(IPAddress(255, 255, 240, 0), request.Get());
}

class IfConfigNetwork : public TarnTest::NetworkTest {};

TEST_F(IfConfigNetwork, EachAddressIsSetAndReadByItsOwnRequest) {
    PrivateNetwork network;
    network.AddInterface("wire0", "");
    const IfConfig config;
    SetAddress address("wire0", IPAddress(10, 20, 30, 40));
    EXPECT_EQ(0, config.DoIoCtl(address));
    SetNetmask netmask("wire0", IPAddress(255, 255, 240, 0));
    EXPECT_EQ(0, config.DoIoCtl(netmask));
    SetBroadcast broadcast("wire0", IPAddress(10, 20, 31, 1));
    EXPECT_EQ(0, config.DoIoCtl(broadcast));
    EXPECT_THAT(network.Run("ip -4 -oneline address show dev wire0"),
                testing::HasSubstr("inet 10.20.30.40/20 brd 10.20.31.1 "));

    IPAddress value;
    GetNetmask get_netmask("wire0");
    EXPECT_EQ(0, config.DoIoCtl(get_netmask, value));
    EXPECT_EQ(IPAddress(255, 255, 240, 0), value);
    GetBroadcast get_broadcast("wire0");
    EXPECT_EQ(0, config.DoIoCtl(get_broadcast, value));
    EXPECT_EQ(IPAddress(10, 20, 31, 1), value);
}

}  // namespace
