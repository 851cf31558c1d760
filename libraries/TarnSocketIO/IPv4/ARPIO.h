#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>
#include <TarnSocketIO/socket_structs.h>

namespace TarnSocketIO {

/// Asks the kernel's ARP table for hardware addresses, with SIOCGARP: see arp(7).
///
///     const TarnSocketIO::ARPIO arp;
///     const TarnSocketIO::MACAddress mac = arp.GetMACAddress(IPv4::IPAddress(192, 0, 2, 1), "eth0");
///
/// The table holds hosts that this one has talked to lately. Nothing is sent to find another one; ping it first. To
/// look up many addresses at a time, ARPFileReader is quicker.
///
/// Threads: queries from any thread; the object is made and destroyed while nobody uses it. It needs no privilege.
class ARPIO {
public:
    /// Opens the socket that queries go through. GetMACAddress(ip) names no device then, and finds nothing on today's
    /// kernels, which refuse such a query (ENODEV).
    /// @throws std::runtime_error "could open socket for ARPIO" if there is none (EMFILE, ENFILE, ...).
    ARPIO();

    /// As above; queries name this device.
    /// @param dev  such as `eth0`; its first 15 characters count.
    explicit ARPIO(const char* dev);

    /// Closes the socket. That it could not be closed is told on standard output.
    ~ARPIO();
    ARPIO(const ARPIO&) = delete;
    ARPIO& operator=(const ARPIO&) = delete;

    /// What the constructors call. A socket that is open already is a failed assert() of the C library: the process
    /// aborts. Throws as they do.
    void InitSocket();

    /// The hardware address of an IPv4 address on a device, whatever device the object was made with.
    ///
    /// @return 00:00:00:00:00:00 if the table has no entry, one that was never resolved, or one that is not Ethernet. A
    ///         host that has stopped answering keeps its last address; the flags of GetEntry tell it apart. That there
    ///         is no entry is told as GetEntry does.
    MACAddress GetMACAddress(IPv4::IPAddress ip, const char* dev) const;

    /// The same on the device that the object was made with.
    MACAddress GetMACAddress(IPv4::IPAddress ip) const;

    /// Runs a query.
    ///
    /// @param entry  holds address and device; gets hardware address and flags, such as ARPReq::FLAG_COM if it is
    ///               resolved. Its netmask comes without a family, so that GetIPv4Mask throws.
    /// @return 0, or the errno (ENXIO: there is no such entry).
    ///
    /// A failed query is told: "ARPIO::GetEntry error: " and the address on std::cout, which is decimal afterwards, and
    /// "ioctl(Get ARP entry): ..." on standard error. An entry without an IPv4 address fails, and then aborts the
    /// process as ARPReq::GetIPv4Address does.
    int GetEntry(ARPTableIPv4Entry& entry) const;

private:
    MACAddress Query(ARPTableIPv4Entry& entry) const;

    int m_SD;
    ARPReq m_ARPReq;  ///< what queries without a device begin as
};

}  // namespace TarnSocketIO
