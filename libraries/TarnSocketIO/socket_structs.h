#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>
#include <net/if_arp.h>

#include <iosfwd>

namespace TarnSocketIO {

/// The kernel's request record of one entry of its ARP table: see arp(7).
///
/// It adds nothing to `arpreq`, so that it is given to ioctl(2) as it is.
///
/// Threads: a plain value; used by one thread at a time.
class ARPReq : public arpreq {
public:
    /// The bits of `arp_flags`.
    enum OrFlag {
        FLAG_NONE = 0,
        FLAG_COM = 2,   ///< resolved
        FLAG_PERM = 4,  ///< stays until it is deleted
        FLAG_PUBL = 8,  ///< answered for others (proxy ARP)
        FLAG_USETRAILERS = 16,
        FLAG_NETMASK = 32,
        FLAG_DONTPUB = 64,
    };

    /// All zero.
    ARPReq() : arpreq() {}

    /// As Init, but *the two flags are ignored*: they become FLAG_PUBL.
    ARPReq(IPv4::IPAddress ip, const char* dev, OrFlag f1, OrFlag f2);

    /// Fills the record with zeros.
    void Init();

    /// Init(), and then protocol address, device and flags.
    void Init(IPv4::IPAddress ip, const char* dev, OrFlag f1, OrFlag f2);

    /// Sets family (AF_INET) and address; the port bytes stay.
    void SetIPv4ProtocolAddress(IPv4::IPAddress ip);

    /// Sets the device, and *clears the hardware type*: GetMACAddress has no address then.
    /// @param dev  such as `eth0`; its first 15 characters count. Null is no device.
    void SetDeviceName(const char* dev);

    /// Replaces the flags.
    void SetFlags(OrFlag a, OrFlag b, OrFlag c) { arp_flags = a | b | c; }

    /// A protocol address of another family than AF_INET is a failed assert() of the C library: the process aborts.
    IPv4::IPAddress GetIPv4Address() const;

    /// The hardware address if the hardware type is Ethernet, and 00:00:00:00:00:00 otherwise.
    MACAddress GetMACAddress() const;

    /// @throws std::logic_error "IPAddress(const struct sockaddr& addr) addr is not IPv4\n" if the record has none, as
    ///         after Init().
    IPv4::IPAddress GetIPv4NetMask() const { return arp_netmask; }

    /// @return such as ARPHRD_ETHER, which is 1.
    unsigned short GetHardwareType() const { return arp_ha.sa_family; }

    int GetFlags() const { return arp_flags; }

    /// @return the name, valid while the record lives.
    const char* GetDeviceName() const { return arp_dev; }
};

/// One IPv4 entry of the kernel's ARP table, as ARPIO::GetEntry fills it in.
class ARPTableIPv4Entry : public ARPReq {
public:
    using ARPReq::ARPReq;

    /// As GetIPv4NetMask.
    IPv4::IPAddress GetIPv4Mask() const { return GetIPv4NetMask(); }
};

/// Writes an entry, without a line end:
///
///     IP: 192.168.1.7, Hw Type: 1, Flags: 2, MAC: 00:11:22:33:44:55, Mask: 255.255.255.255, Device: eth0
///
/// The stream stays decimal; that of the hardware address leaves it with the fill character 0 and in upper case. What
/// GetIPv4Address asserts and GetIPv4Mask throws, happens here, when what stands before it has been written: an entry
/// from the kernel has no netmask that could be written.
std::ostream& operator<<(std::ostream& os, const ARPTableIPv4Entry& e);

}  // namespace TarnSocketIO
