// Entries of the kernel's ARP table, as the library returns and prints them.

#include <TarnSocketIO/IPv4/ARPIO.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/socket_structs.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/Neighbours.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"

using IPv4::IPAddress;
using TarnSocketIO::ARPIO;
using TarnSocketIO::ARPReq;
using TarnSocketIO::ARPTableIPv4Entry;
using TarnTest::AddPermanent;
using TarnTest::AskInVain;
using TarnTest::ChildProcess;
using TarnTest::no_mac;
using TarnTest::PrivateNetwork;
using TarnTest::Resolve;
using TarnTest::TextOf;
using TarnTest::WiredHosts;

namespace {

using KernelArpEntry = TarnTest::ArpQueryTest;

/// The entry of an address, all of it as the kernel has returned it.
ARPTableIPv4Entry Entry(IPAddress ip, const char* device) {
    const ARPIO arp;
    ARPTableIPv4Entry entry;
    entry.Init(ip, device, ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
    EXPECT_EQ(0, arp.GetEntry(entry));
    return entry;
}

}  // namespace

TEST_F(KernelArpEntry, IsFilledIn) {
    const WiredHosts net;
    const std::string mac = Resolve(net, "192.0.2.2", "wire0");
    const ARPTableIPv4Entry entry = Entry(IPAddress(192, 0, 2, 2), "wire0");
    EXPECT_EQ(IPAddress(192, 0, 2, 2), entry.GetIPv4Address());
    EXPECT_EQ(ATF_COM, entry.GetFlags());
    EXPECT_EQ(ARPHRD_ETHER, entry.GetHardwareType());
    EXPECT_STREQ("wire0", entry.GetDeviceName());
    EXPECT_EQ(mac, TextOf(entry.GetMACAddress()));
    // The mask is there, but not its family.
    EXPECT_EQ(IPAddress(255, 255, 255, 255),
              IPAddress(reinterpret_cast<const sockaddr_in&>(entry.arp_netmask).sin_addr));
    EXPECT_EQ(0, entry.arp_netmask.sa_family);
    EXPECT_THROW(entry.GetIPv4Mask(), std::logic_error);
}

TEST_F(KernelArpEntry, ThatIsPermanentHasItsFlag) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    const ARPTableIPv4Entry entry = Entry(IPAddress(192, 0, 2, 77), "wire0");
    EXPECT_EQ(ATF_COM | ATF_PERM, entry.GetFlags());
    EXPECT_EQ("02:1a:00:3c:fd:5e", TextOf(entry.GetMACAddress()));
    EXPECT_EQ(ARPHRD_ETHER, entry.GetHardwareType());
}

TEST_F(KernelArpEntry, AsReturnedIsPrintedUpToItsMask) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    std::ostringstream text;
    EXPECT_THROW(text << Entry(IPAddress(192, 0, 2, 77), "wire0"), std::logic_error);
    EXPECT_EQ("IP: 192.0.2.77, Hw Type: 1, Flags: 6, MAC: 02:1A:00:3C:FD:5E, Mask: ", text.str());
}

TEST_F(KernelArpEntry, WhoseMaskHasAFamilyIsPrinted) {
    const WiredHosts net;
    AddPermanent(net, "192.0.2.77", "02:1a:00:3c:fd:5e", "wire0");
    ARPTableIPv4Entry entry;
    entry.Init(IPAddress(192, 0, 2, 77), "wire0", ARPReq::FLAG_PUBL, ARPReq::FLAG_NONE);
    entry.arp_netmask.sa_family = AF_INET;
    const ARPIO arp;
    EXPECT_EQ(0, arp.GetEntry(entry));
    std::ostringstream text;
    text << entry;
    EXPECT_EQ("IP: 192.0.2.77, Hw Type: 1, Flags: 6, MAC: 02:1A:00:3C:FD:5E, Mask: 255.255.255.255, Device: wire0",
              text.str());
}

TEST_F(KernelArpEntry, ThatIsNotFoundIsItsErrno) {
    const WiredHosts net;
    ChildProcess child([] {
        const ARPIO arp("wire0");
        ARPTableIPv4Entry entry;
        entry.Init(IPAddress(10, 0, 0, 99), "wire0", ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
        EXPECT_EQ(ENXIO, arp.GetEntry(entry));
        EXPECT_STREQ("wire0", entry.GetDeviceName());
        // The device of the object is for queries by address alone.
        entry.Init(IPAddress(10, 0, 0, 98), "", ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
        EXPECT_EQ(ENODEV, arp.GetEntry(entry));
        EXPECT_STREQ("", entry.GetDeviceName());
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("ARPIO::GetEntry error: 10.0.0.99 ARPIO::GetEntry error: 10.0.0.98 ", child.Output());
    EXPECT_EQ("ioctl(Get ARP entry): No such device or address\nioctl(Get ARP entry): No such device\n",
              child.Errors());
}

// ---- without a hardware address

TEST_F(KernelArpEntry, OfANeighbourThatDoesNotAnswerIsAllZeroAndNotTold) {
    const WiredHosts net;
    // So that the kernel does not give up while the test looks.
    net.Run("ip ntable change name arp_cache dev wire0 mcast_probes 60");
    AskInVain(net, "192.0.2.99", "wire0");
    ChildProcess child([] {
        EXPECT_EQ(no_mac, TextOf(ARPIO("wire0").GetMACAddress(IPAddress(192, 0, 2, 99))));
        const ARPTableIPv4Entry entry = Entry(IPAddress(192, 0, 2, 99), "wire0");
        EXPECT_EQ(0, entry.GetFlags());
        EXPECT_EQ(ARPHRD_ETHER, entry.GetHardwareType());
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("", child.Output());
    EXPECT_EQ("", child.Errors());
}

TEST_F(KernelArpEntry, OfWhatIsNotAnEthernetIsAllZeroAndNotTold) {
    const PrivateNetwork net;
    if (access("/dev/net/tun", R_OK | W_OK) != 0) {
        GTEST_SKIP() << "needs a network that is not an Ethernet";
    }
    net.Run("ip tuntap add tunnel mode tun");
    net.Run("ip address add 10.7.0.1/24 dev tunnel");
    net.Run("ip link set tunnel up");
    // All there are on such a network go by this address.
    net.Run("ip neigh add 10.7.0.9 nud permanent dev tunnel");
    ChildProcess child([] {
        EXPECT_EQ(no_mac, TextOf(ARPIO("tunnel").GetMACAddress(IPAddress(0, 0, 0, 0))));
        EXPECT_EQ(ARPHRD_NONE, Entry(IPAddress(0, 0, 0, 0), "tunnel").GetHardwareType());
    });
    EXPECT_EQ(0, child.ExitStatus()) << child.Failures();
    EXPECT_EQ("", child.Output());
    EXPECT_EQ("", child.Errors());
}
