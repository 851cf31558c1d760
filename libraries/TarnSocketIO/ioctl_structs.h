#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <net/if.h>

#include <iosfwd>

namespace TarnSocketIO {

/// The kernel's request record of one network interface: a name, and behind it either an address or the flags, at the
/// same place. See netdevice(7).
///
/// It adds nothing to `ifreq`, so that an array of it is an array that the kernel can fill.
///
/// Threads: a plain value; used by one thread at a time.
class IfReq : public ifreq {
public:
    typedef int ErrorType;  // NOLINT(modernize-use-using): reports of failed assertions show it as it is declared here

    /// A record of that name, as Init(name), and zero otherwise.
    explicit IfReq(const char* name);

    /// Makes the name empty, and fills address and flags with zeros. Behind its first character the name stays.
    void Init();

    /// Init(), then SetIfName(name).
    void Init(const char* name);

    /// @param name  such as `eth0` or `eth0:1`; cut to its first 15 characters. Null is an empty name. Between its end
    ///              and the last byte, which is zero, the old name's characters stay.
    void SetIfName(const char* name);

    /// @return the name, valid while the record lives.
    const char* GetIfName() const { return ifr_name; }

    /// Writes an address of family AF_INET with port 0, which the netmask requests use too. Asserts that the family has
    /// come out as AF_INET.
    void SetAddress(IPv4::IPAddress a);

    /// The same: the kernel keeps all addresses of a record at one place.
    void SetBcastAddress(IPv4::IPAddress a);

    /// The address in the record, be it an interface's, its netmask, its broadcast address or its peer's.
    /// @throws std::logic_error if the record holds no IPv4 address ("IPAddress(const struct sockaddr& addr) addr is
    ///         not IPv4\n").
    IPv4::IPAddress GetAddress() const;

    /// As GetAddress.
    IPv4::IPAddress GetBcastAddress() const;

    /// As GetAddress.
    IPv4::IPAddress GetDestinationAddress() const;

    /// The flags of netdevice(7). They mean something after SIOCGIFFLAGS only: a record that holds an address reads as
    /// flags of its family.
    short GetFlags() const { return ifr_flags; }

    bool IsUp() const { return Has(IFF_UP); }
    bool IsBroadcast() const { return Has(IFF_BROADCAST); }
    bool IsMultcast() const { return Has(IFF_MULTICAST); }
    bool IsLoopback() const { return Has(IFF_LOOPBACK); }
    bool IsRunning() const { return Has(IFF_RUNNING); }

    /// What every record fulfils: there is nothing to check.
    void Invariant() const {}

    /// Makes a request of netdevice(7) with this record, by ioctl(2).
    ///
    /// **A request that the kernel refuses ends the process**, unless the program has a failure action of its own that
    /// returns (AssertFailStdErrAbort): "IfReq::DoIoCtl error " on std::cout, "ioctl : ..." on standard error, and then
    /// a failed assertion with the errno.
    ///
    /// @param sd       a socket of any kind, such as IfConfig's; a negative one is a failed assertion.
    /// @param request  such as SIOCGIFADDR.
    /// @return 0; or the errno, where the failure action has returned.
    ErrorType DoIoCtl(int sd, int request);

private:
    bool Has(int flag) const { return (ifr_flags & flag) != 0; }
};

/// A request record that reads and writes the flags, and nothing else.
///
///     const TarnSocketIO::IfConfig config;
///     TarnSocketIO::IfFlagsReq flags("eth0");
///     flags.DoIoCtl(config.GetSocketDescriptor(), SIOCGIFFLAGS);
///
/// To change them: read them, change `ifr_flags`, and write them with SIOCSIFFLAGS (CAP_NET_ADMIN).
class IfFlagsReq : public IfReq {
public:
    using IfReq::IfReq;

    /// What every record fulfils: there is nothing to check.
    void Invariant() const {}

    /// As IfReq::DoIoCtl.
    /// @param request  SIOCGIFFLAGS or SIOCSIFFLAGS; any other is a failed assertion.
    ErrorType DoIoCtl(int sd, int request);
};

/// The kernel's record of an array of requests, which SIOCGIFCONF fills: see netdevice(7).
class IfConf : public ifconf {
public:
    /// As Set(ifs, arr_size).
    IfConf(ifreq* ifs, unsigned int arr_size);

    /// Names the array. Null, or one without records, is a failed assertion.
    ///
    /// @param ifs       the caller's, to be there for as long as requests are made.
    /// @param arr_size  its records. Of more than fit in `ifc_len`, which counts bytes in an int, the rest is not used.
    void Set(ifreq* ifs, unsigned int arr_size);

    /// What every record fulfils: there is nothing to check.
    void invariant() const {}
};

}  // namespace TarnSocketIO

/// Writes a record that SIOCGIFCONF has returned, without a line end:
///
///     eth0		< DOWN BCAST=1 MCAST=0 RUNNING=0 LOOPBACK=0 >
///     		ADDRESS: 192.0.2.1
///     		BROADCAST: 192.0.2.1
///     		DESTINATION: 192.0.2.1
///
/// All of it is read from the one address in the record: the flags are those that its family looks like, and the three
/// addresses are the same. The stream stays decimal.
///
/// @throws std::logic_error if there is no IPv4 address in it; what stands before it has been written then.
std::ostream& operator<<(std::ostream& os, const ifreq& r);
