// What queries of the ARP table ask the kernel for, and what they make of its answer. Emulators do not hand these
// queries on; here they go no further than this process.

#include <TarnSocketIO/IPv4/ARPIO.h>
#include <gmock/gmock.h>
#include <net/if_arp.h>

#include <initializer_list>
#include <ios>
#include <sstream>
#include <string>

#include "tests/support/PretendedInterfaces.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::ARPIO;
using TarnSocketIO::MACAddress;
using TarnTest::PretendedInterfaces;
using testing::ElementsAre;

const IPAddress neighbour(192, 0, 2, 1);

MACAddress MakeMac() {
    MACAddress mac;
    mac = "02:1a:00:3c:fd:5e";
    return mac;
}

std::string TextOf(const MACAddress& mac) {
    std::ostringstream text;
    text << std::hex << mac;
    return text.str();
}

/// A kernel that knows one neighbour.
class ARPIORequest : public testing::Test {
protected:
    ARPIORequest() : kernel({}) { kernel.AddNeighbour(neighbour, ARPHRD_ETHER, MakeMac()); }

    PretendedInterfaces kernel;
};

TEST_F(ARPIORequest, NamesNoDeviceIfNoneIsGiven) {
    const ARPIO arp;
    EXPECT_EQ("02:1A:00:3C:FD:5E", TextOf(arp.GetMACAddress(neighbour)));
    EXPECT_THAT(kernel.Requests(), ElementsAre("SIOCGARP 192.0.2.1 on \"\", flags 8"));
}

TEST_F(ARPIORequest, NamesTheDeviceThatTheObjectWasMadeWith) {
    const ARPIO arp("eth1");
    EXPECT_EQ("02:1A:00:3C:FD:5E", TextOf(arp.GetMACAddress(neighbour)));
    EXPECT_THAT(kernel.Requests(), ElementsAre("SIOCGARP 192.0.2.1 on \"eth1\", flags 8"));
}

TEST_F(ARPIORequest, NamesTheDeviceOfTheCallWhateverTheObjectWasMadeWith) {
    const ARPIO arp("eth1");
    EXPECT_EQ("02:1A:00:3C:FD:5E", TextOf(arp.GetMACAddress(neighbour, "eth0")));
    arp.GetMACAddress(neighbour);
    EXPECT_THAT(kernel.Requests(),
                ElementsAre("SIOCGARP 192.0.2.1 on \"eth0\", flags 8", "SIOCGARP 192.0.2.1 on \"eth1\", flags 8"));
}

TEST_F(ARPIORequest, HasFifteenCharactersOfADevicesName) {
    const ARPIO arp("a_name_of_nineteen_");
    arp.GetMACAddress(neighbour);
    arp.GetMACAddress(neighbour, "another_of_twenty___");
    EXPECT_THAT(kernel.Requests(), ElementsAre("SIOCGARP 192.0.2.1 on \"a_name_of_ninet\", flags 8",
                                               "SIOCGARP 192.0.2.1 on \"another_of_twen\", flags 8"));
}

TEST_F(ARPIORequest, OfAHostThatIsNotOnAnEthernetHasNoAddress) {
    for (const unsigned short type : std::initializer_list<unsigned short>{0, 2, 6, 256, 65535}) {
        kernel.AddNeighbour(neighbour, type, MakeMac());
        EXPECT_EQ("00:00:00:00:00:00", TextOf(ARPIO("eth0").GetMACAddress(neighbour))) << type;
    }
}

}  // namespace
