#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>

#include <string>
#include <vector>

namespace TarnTest {

/// Answers every request about network interfaces and the ARP table in the kernel's place, for as long as the object
/// lives, and remembers them. One at a time, used by one thread. What the program's real interfaces are does not matter
/// then, and they are not touched. Requests of a forked process are remembered with the others, but what they have
/// changed is not.
///
/// It answers as the kernel does: a name that it does not know is refused with ENODEV, unless it is an alias that gets
/// its address; with its flag IFF_UP an alias goes. A neighbour that it does not know is refused with ENXIO.
///
/// The program that links PretendedInterfaces.cpp has its `ioctl` in the place of the C library's. What is none of
/// these requests is passed on, and so is everything while there is no object.
class PretendedInterfaces {
public:
    struct Interface {
        std::string name;
        IPv4::IPAddress address;
        IPv4::IPAddress netmask;
        IPv4::IPAddress broadcast;
        short flags;
    };

    explicit PretendedInterfaces(const std::vector<Interface>& interfaces);
    ~PretendedInterfaces();
    PretendedInterfaces(const PretendedInterfaces&) = delete;
    PretendedInterfaces& operator=(const PretendedInterfaces&) = delete;

    /// Has requests fail, by their number: 1 is the first one. Nothing happens then.
    /// @param error  errno; 0 too.
    void Refuse(int number, int error);

    /// Has a request be answered with this address, whatever is set.
    void Falsify(int number, IPv4::IPAddress answer);

    /// What requests that succeed return, 0 otherwise.
    void SetResult(int result);

    /// The length in bytes that the list of interfaces is said to have.
    void SetLengthOfList(int length);

    /// A host in the ARP table, whatever device a query names. @param hardware_type  such as ARPHRD_ETHER.
    void AddNeighbour(IPv4::IPAddress address, unsigned short hardware_type, const TarnSocketIO::MACAddress& mac);

    /// The requests so far, oldest first: `SIOCSIFADDR eth0:1 192.0.2.7`, `SIOCGIFNETMASK eth0`,
    /// `SIOCSIFFLAGS eth0:1 0x1042`, `SIOCGIFCONF 10 records`, `SIOCGARP 192.0.2.1 on "eth0", flags 8`. Failed ones are
    /// among them.
    std::vector<std::string> Requests() const;

    /// The descriptor that all of them were made on; -1 if there was none, or more than one.
    int Descriptor() const;

    /// What has become of an interface. @throws std::out_of_range if there is none of this name.
    Interface Find(const std::string& name) const;
};

}  // namespace TarnTest
