// What records and the list of interfaces do behind an assertion that has failed, where the failure action returns.

#include <TarnSocketIO/IfConfig.h>
#include <TarnSocketIO/ioctl_structs.h>
#include <gmock/gmock.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/InterfaceRequests.h"
#include "tests/support/PretendedInterfaces.h"
#include "tests/support/ReturningRun.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::GetAllIfs;
using TarnSocketIO::IfConf;
using TarnSocketIO::IfConfig;
using TarnSocketIO::IfFlagsReq;
using TarnSocketIO::IfReq;
using TarnTest::ExpectRun;
using TarnTest::GetBroadcast;
using TarnTest::GetNetmask;
using TarnTest::PretendedInterfaces;
using TarnTest::SetAddress;
using TarnTest::SetBroadcast;
using TarnTest::SetNetmask;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int sd = 70;
const IPAddress some_address(192, 0, 2, 7);
const IPAddress some_netmask(255, 255, 240, 0);

const std::string refused = "IfReq::DoIoCtl: !errno (ioctl_structs.cpp:69)";
const std::string negative_record = "IfReq::DoIoCtl: sd >= 0 (ioctl_structs.cpp:62)";
const std::string negative_set = "SetIoCltIf::DoIoCtl: sd >= 0 (IfConfig.h:392)";
const std::string negative_get = "GetIoCltIf::DoIoCtl: sd >= 0 (IfConfig.h:377)";
const std::string negative_list = "GetAllIfs::DoIoCtl: sd >= 0 (IfConfig.cpp:77)";
const std::string few_records = "GetAllIfs::DoIoCtl: m_IfReqs.size() >= INITIAL_IFREQ_SIZE (IfConfig.cpp:78)";
const std::string list_refused = "GetAllIfs::DoIoCtl: !errno (IfConfig.cpp:88)";
const std::string odd_length = "GetAllIfs::DoIoCtl: ifconf_tmp.ifc_len % sizeof(ifreq) == 0 (IfConfig.cpp:93)";
const std::string empty_array = "IfConf::Set: ifs != 0 && arr_size > 0 (ioctl_structs.h:42)";
const std::string no_flags =
    "IfFlagsReq::DoIoCtl: (request == SIOCGIFFLAGS) || (request == SIOCSIFFLAGS) "
    "(ioctl_structs.cpp:84)";

const std::string record_says = "IfReq::DoIoCtl error ";
const std::string both_say = "IfReq::DoIoCtl error SetIoCltIf::DoIoCtl error ";

/// What a request says on standard error that is refused.
std::string Errors(int error) {
    return std::string("ioctl : ") + std::strerror(error) + "\n\n (*__errno_location ()): " + std::to_string(error);
}

std::string NumbersOf(std::size_t length) {
    return "\n ifconf_tmp.ifc_len: " + std::to_string(length) + "\n sizeof(ifreq): " + std::to_string(sizeof(ifreq));
}

const std::vector<PretendedInterfaces::Interface> two_interfaces = {
    {"lo", IPAddress(127, 0, 0, 1), IPAddress(255, 0, 0, 0), IPAddress(), IFF_UP | IFF_LOOPBACK},
    {"eth0", IPAddress(192, 0, 2, 1), IPAddress(255, 255, 255, 0), IPAddress(192, 0, 2, 255), IFF_UP},
};

// --- records ---

TEST(IfReqThatReturns, ARefusedRequestGivesItsError) {
    for (const int error : {EPERM, ENODEV, EADDRNOTAVAIL, EINTR}) {
        ExpectRun({record_says, Errors(error), {refused}}, [error] {
            PretendedInterfaces interfaces(two_interfaces);
            interfaces.Refuse(1, error);
            IfReq request("eth0");
            request.SetAddress(some_address);
            errno = 0;
            EXPECT_EQ(error, request.DoIoCtl(sd, SIOCSIFADDR));
            EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCSIFADDR eth0 192.0.2.7"));
            EXPECT_EQ(sd, interfaces.Descriptor());
            EXPECT_EQ(some_address, request.GetAddress());
        });
    }
}

TEST(IfReqThatReturns, ARequestOnANegativeDescriptorIsMade) {
    ExpectRun({record_says, Errors(EBADF), {negative_record, refused}},
              [] { EXPECT_EQ(EBADF, IfReq("lo").DoIoCtl(-1, SIOCGIFFLAGS)); });
}

TEST(IfReqThatReturns, TheKernelsOwnRefusalIsTheSame) {
    ExpectRun({record_says, Errors(ENODEV), {refused}}, [] {
        IfReq request("nobody:s0");
        EXPECT_EQ(ENODEV, request.DoIoCtl(IfConfig().GetSocketDescriptor(), SIOCGIFFLAGS));
        EXPECT_STREQ("nobody:s0", request.GetIfName());
    });
}

TEST(IfReqThatReturns, ARequestThatFailsWithoutAnErrorHasNoFailedAssertion) {
    ExpectRun({record_says, "ioctl : Success\n", {}}, [] {
        PretendedInterfaces interfaces(two_interfaces);
        interfaces.Refuse(1, 0);
        EXPECT_EQ(0, IfReq("eth0").DoIoCtl(sd, SIOCGIFADDR));
        EXPECT_EQ(1U, interfaces.Requests().size());
    });
}

TEST(IfFlagsReqThatReturns, ARequestThatIsNotAboutFlagsIsMade) {
    ExpectRun({"", "\n request: 35099\n 0x8913: 35091\n 0x8914: 35092", {no_flags}}, [] {
        const PretendedInterfaces interfaces(two_interfaces);
        IfFlagsReq request("eth0");
        EXPECT_EQ(0, request.DoIoCtl(sd, SIOCGIFNETMASK));
        EXPECT_EQ(IPAddress(255, 255, 255, 0), request.GetAddress());
        EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCGIFNETMASK eth0"));
    });
    ExpectRun({record_says, "\n request: 35093\n 0x8913: 35091\n 0x8914: 35092" + Errors(ENODEV), {no_flags, refused}},
              [] {
                  const PretendedInterfaces interfaces(two_interfaces);
                  EXPECT_EQ(ENODEV, IfFlagsReq("eth1").DoIoCtl(sd, SIOCGIFADDR));
              });
}

TEST(IfFlagsReqThatReturns, ARefusedRequestGivesItsError) {
    ExpectRun({record_says, Errors(EPERM), {refused}}, [] {
        PretendedInterfaces interfaces(two_interfaces);
        interfaces.Refuse(1, EPERM);
        IfFlagsReq flags("eth0");
        flags.ifr_flags = IFF_RUNNING;
        EXPECT_EQ(EPERM, flags.DoIoCtl(sd, SIOCSIFFLAGS));
        EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCSIFFLAGS eth0 0x40"));
        EXPECT_EQ(IFF_UP, interfaces.Find("eth0").flags);
    });
}

TEST(IfConfThatReturns, HasWhatItWasGiven) {
    ExpectRun({"", "\n arr_size: 0\n arr_size: 4", {empty_array, empty_array}}, [] {
        std::array<ifreq, 4> records{};
        IfConf list(records.data(), 0);
        EXPECT_EQ(records.data(), list.ifc_req);
        EXPECT_EQ(0, list.ifc_len);
        list.Set(nullptr, 4);
        EXPECT_EQ(nullptr, list.ifc_req);
        EXPECT_EQ(static_cast<int>(sizeof records), list.ifc_len);
    });
}

// --- single addresses ---

template <class Request>
class SetIoCltIfThatReturns : public testing::Test {};
using SettingRequests = testing::Types<SetAddress, SetNetmask, SetBroadcast>;
TYPED_TEST_SUITE(SetIoCltIfThatReturns, SettingRequests, );

TYPED_TEST(SetIoCltIfThatReturns, ARefusedRequestIsToldTwice) {
    for (const int error : {EPERM, EINVAL}) {
        ExpectRun({both_say, Errors(error), {refused}}, [error] {
            PretendedInterfaces interfaces(two_interfaces);
            interfaces.Refuse(1, error);
            TypeParam request("eth0", some_address);
            EXPECT_EQ(error, request.DoIoCtl(sd));
            EXPECT_EQ(1U, interfaces.Requests().size());
            EXPECT_EQ(some_address, request.GetAddress());
        });
    }
}

TYPED_TEST(SetIoCltIfThatReturns, ARequestOnANegativeDescriptorIsMade) {
    ExpectRun({both_say, Errors(EBADF), {negative_set, negative_record, refused}}, [] {
        const PretendedInterfaces interfaces(two_interfaces);
        EXPECT_EQ(EBADF, TypeParam("eth0", some_address).DoIoCtl(-1));
        EXPECT_EQ(1U, interfaces.Requests().size());
    });
}

TYPED_TEST(SetIoCltIfThatReturns, ARequestThatSucceedsSaysNothing) {
    ExpectRun({"", "", {}}, [] {
        PretendedInterfaces interfaces(two_interfaces);
        interfaces.SetResult(7);
        EXPECT_EQ(0, TypeParam("eth0", some_address).DoIoCtl(sd));
        EXPECT_EQ(sd, interfaces.Descriptor());
    });
}

template <class Request>
class GetIoCltIfThatReturns : public testing::Test {};
using ReadingRequests = testing::Types<GetNetmask, GetBroadcast>;
TYPED_TEST_SUITE(GetIoCltIfThatReturns, ReadingRequests, );

TYPED_TEST(GetIoCltIfThatReturns, ARefusedRequestLeavesTheValueAlone) {
    for (const int error : {ENODEV, EADDRNOTAVAIL}) {
        ExpectRun({record_says, Errors(error), {refused}}, [error] {
            PretendedInterfaces interfaces(two_interfaces);
            interfaces.Refuse(1, error);
            IPAddress out = some_netmask;
            EXPECT_EQ(error, TypeParam("eth0").DoIoCtl(sd, out));
            EXPECT_EQ(some_netmask, out);
            EXPECT_EQ(1U, interfaces.Requests().size());
        });
    }
}

TYPED_TEST(GetIoCltIfThatReturns, ARequestOnANegativeDescriptorIsMade) {
    ExpectRun({record_says, Errors(EBADF), {negative_get, negative_record, refused}}, [] {
        IPAddress out = some_netmask;
        EXPECT_EQ(EBADF, TypeParam("lo").DoIoCtl(-1, out));
        EXPECT_EQ(some_netmask, out);
    });
}

TYPED_TEST(GetIoCltIfThatReturns, ARequestThatSucceedsGivesItsValue) {
    ExpectRun({"", "", {}}, [] {
        PretendedInterfaces interfaces(two_interfaces);
        interfaces.Falsify(1, some_netmask);
        interfaces.SetResult(7);
        IPAddress out;
        EXPECT_EQ(0, TypeParam("eth0").DoIoCtl(sd, out));
        EXPECT_EQ(some_netmask, out);
        EXPECT_EQ(sd, interfaces.Descriptor());
    });
}

TEST(InterfaceRequests, AreThoseThatTheirTypesName) {
    ExpectRun({"", "", {}}, [] {
        const PretendedInterfaces interfaces(two_interfaces);
        IPAddress netmask;
        IPAddress broadcast;
        EXPECT_EQ(0, SetAddress("eth0:1", some_address).DoIoCtl(sd));
        EXPECT_EQ(0, SetNetmask("eth0:1", some_netmask).DoIoCtl(sd));
        EXPECT_EQ(0, SetBroadcast("eth0:1", IPAddress(192, 0, 15, 255)).DoIoCtl(sd));
        EXPECT_EQ(0, GetNetmask("eth0:1").DoIoCtl(sd, netmask));
        EXPECT_EQ(0, GetBroadcast("eth0:1").DoIoCtl(sd, broadcast));
        EXPECT_THAT(
            interfaces.Requests(),
            ElementsAre("SIOCSIFADDR eth0:1 192.0.2.7", "SIOCSIFNETMASK eth0:1 255.255.240.0",
                        "SIOCSIFBRDADDR eth0:1 192.0.15.255", "SIOCGIFNETMASK eth0:1", "SIOCGIFBRDADDR eth0:1"));
        EXPECT_EQ(some_netmask, netmask);
        EXPECT_EQ(IPAddress(192, 0, 15, 255), broadcast);
    });
}

// --- the list of interfaces ---

TEST(GetAllIfsThatReturns, ARefusedRequestLeavesTheResultsAlone) {
    const std::string says = "GetAllIfs::DoIoCtl SIOCGIFCONF error ";
    for (const int error : {ENOMEM, EFAULT}) {
        const std::string errors = std::string("ioctl(Get SIOCGIFCONF): ") + std::strerror(error) +
                                   "\n\n (*__errno_location ()): " + std::to_string(error);
        ExpectRun({says, errors, {list_refused}}, [error] {
            PretendedInterfaces interfaces(two_interfaces);
            interfaces.Refuse(1, error);
            std::vector<const char*> results{"eth7", "eth8"};
            EXPECT_EQ(error, GetAllIfs().DoIoCtl(sd, results));
            EXPECT_THAT(results, ElementsAre(testing::StrEq("eth7"), testing::StrEq("eth8")));
            EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCGIFCONF 10 records"));
        });
    }
    const std::string bad_descriptor = "ioctl(Get SIOCGIFCONF): Bad file descriptor\n\n (*__errno_location ()): 9";
    ExpectRun({says, bad_descriptor, {negative_list, list_refused}}, [] {
        std::vector<const char*> results{"eth7"};
        EXPECT_EQ(EBADF, GetAllIfs().DoIoCtl(-1, results));
        EXPECT_THAT(results, ElementsAre(testing::StrEq("eth7")));
    });
}

TEST(GetAllIfsThatReturns, ARequestThatFailsWithoutAnErrorHasNoFailedAssertion) {
    ExpectRun({"GetAllIfs::DoIoCtl SIOCGIFCONF error ", "ioctl(Get SIOCGIFCONF): Success\n", {}}, [] {
        PretendedInterfaces interfaces(two_interfaces);
        interfaces.Refuse(1, 0);
        std::vector<const char*> results{"eth7"};
        EXPECT_EQ(0, GetAllIfs().DoIoCtl(sd, results));
        EXPECT_THAT(results, ElementsAre(testing::StrEq("eth7")));
    });
}

TEST(GetAllIfsThatReturns, TooFewRecordsAreFilledAsFarAsTheyGo) {
    ExpectRun({"", "", {few_records}}, [] {
        const PretendedInterfaces interfaces(two_interfaces);
        GetAllIfs get_all(1);
        std::vector<const char*> results;
        EXPECT_EQ(0, get_all.DoIoCtl(sd, results));
        EXPECT_THAT(results, ElementsAre(testing::StrEq("lo")));
        EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCGIFCONF 1 records"));
    });
    ExpectRun({"", "\n arr_size: 0", {few_records, empty_array}}, [] {
        const PretendedInterfaces interfaces(two_interfaces);
        GetAllIfs get_all(0);
        std::vector<const char*> results{"eth7"};
        EXPECT_EQ(0, get_all.DoIoCtl(sd, results));
        EXPECT_THAT(results, IsEmpty());
    });
}

TEST(GetAllIfsThatReturns, APartOfARecordIsNone) {
    for (const std::size_t part : {std::size_t{1}, std::size_t{5}, sizeof(ifreq) - 1}) {
        ExpectRun({"", NumbersOf(sizeof(ifreq) + part), {odd_length}}, [part] {
            PretendedInterfaces interfaces(two_interfaces);
            interfaces.SetLengthOfList(static_cast<int>(sizeof(ifreq) + part));
            GetAllIfs get_all;
            std::vector<const char*> results;
            EXPECT_EQ(0, get_all.DoIoCtl(sd, results));
            EXPECT_THAT(results, ElementsAre(testing::StrEq("lo")));
        });
    }
}

TEST(GetAllIfsThatReturns, NoNameIsFromBehindItsRecords) {
    ExpectRun({"", "", {}}, [] {
        PretendedInterfaces interfaces(two_interfaces);
        interfaces.SetLengthOfList(static_cast<int>(100 * sizeof(ifreq)));
        GetAllIfs get_all;
        std::vector<const char*> results;
        EXPECT_EQ(0, get_all.DoIoCtl(sd, results));
        EXPECT_EQ(10U, results.size());
    });
}

TEST(GetAllIfsThatReturns, AskedAgainItTellsWhatHasBecomeOfThem) {
    ExpectRun({"", "", {}}, [] {
        PretendedInterfaces interfaces(two_interfaces);
        interfaces.SetResult(7);
        GetAllIfs get_all(12);
        std::vector<const char*> results;
        EXPECT_EQ(0, get_all.DoIoCtl(sd, results));
        EXPECT_THAT(results, ElementsAre(testing::StrEq("lo"), testing::StrEq("eth0")));
        interfaces.SetLengthOfList(0);
        EXPECT_EQ(0, get_all.DoIoCtl(sd, results));
        EXPECT_THAT(results, IsEmpty());
        EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCGIFCONF 12 records", "SIOCGIFCONF 12 records"));
        EXPECT_EQ(sd, interfaces.Descriptor());
    });
}

}  // namespace
