#pragma once

#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/ioctl_structs.h>

#include <iostream>
#include <string>
#include <vector>

/// Network interfaces and their addresses, through the ioctl(2) requests of netdevice(7).
///
///     const TarnSocketIO::IfConfig config;
///     TarnSocketIO::AddAliasIf add("eth0", "eth0:1", IPv4::IPAddress(192, 0, 2, 7), true);
///     config.DoIoCtl(add);
///
/// Each operation is an object: make it with what it needs, run it once, and read its results from it.
///
/// **A request that the kernel refuses ends the process.** The library takes it for a broken precondition: it says
/// which request it was on standard output and standard error, and fails an assertion with the errno. A program that
/// wants to go on defines a failure action of its own that returns (AssertFailStdErrAbort); then the operations return
/// the errno. Steps that were made before one that failed stay.
///
/// To change anything needs CAP_NET_ADMIN, to read does not.
///
/// Threads: an object is used by one thread at a time. Nothing guards an interface against others who change it.
namespace TarnSocketIO {

/// The socket that requests go through. Owns its descriptor.
class IfConfig {
public:
    typedef int ErrorType;  // NOLINT(modernize-use-using): as in IfReq

    /// Opens a socket. What GetASocketDescriptor throws, it throws.
    IfConfig();

    /// Closes the socket. That it could not be closed is told on standard output and standard error.
    ~IfConfig();
    IfConfig(const IfConfig&) = delete;
    IfConfig& operator=(const IfConfig&) = delete;

    /// Opens a datagram socket, which programs that are started do not inherit.
    ///
    /// @return its descriptor, the caller's to close.
    /// @throws std::runtime_error "could open socket for IfConfig" if there is none (EMFILE, ENFILE, ...), with the
    ///         reason on standard error.
    static int GetASocketDescriptor();

    /// @return the descriptor, which stays this object's; valid while it lives.
    int GetSocketDescriptor() const { return m_sd; }

    /// Runs an operation on the socket: operation.DoIoCtl(descriptor, results...).
    ///
    /// @return what it returns: 0, or an errno where the failure action returns.
    template <class Operation, class... Results>
    ErrorType DoIoCtl(Operation& operation, Results&... results) const {
        return operation.DoIoCtl(m_sd, results...);
    }

private:
    const int m_sd;
};

/// Lists the interfaces that have an IPv4 address, with SIOCGIFCONF.
///
/// May be run again: each time it overwrites its records, and the names that it has given out before.
class GetAllIfs {
public:
    typedef int ErrorType;  // NOLINT(modernize-use-using): as in IfReq

    static constexpr unsigned int INITIAL_IFREQ_SIZE = 10;

    /// @param records  how many addresses there is room for: INITIAL_IFREQ_SIZE or more. They are not added to, and of
    ///                 what the kernel has more of, nothing is reported.
    explicit GetAllIfs(unsigned int records = INITIAL_IFREQ_SIZE);

    /// Asks the kernel for its interfaces: one record for each address, in the kernel's order. An alias is listed under
    /// its own name, an interface without an address is not listed, and one with several addresses without labels is
    /// listed as often.
    ///
    /// @param sd       a socket; a negative one is a failed assertion, and so are too few records.
    /// @param results  gets the names in place of what it holds. They are this object's, valid until it is run again or
    ///                 ends. Not touched if the request fails.
    ErrorType DoIoCtl(int sd, std::vector<const char*>& results);

private:
    std::vector<IfReq> m_IfReqs;
};

/// Sets one address of one interface with one request, such as SIOCSIFADDR.
///
///     SetIoCltIf<SIOCSIFNETMASK, IPv4::IPAddress, &IfReq::SetAddress, &IfReq::GetAddress> set("eth0:1", netmask);
///     config.DoIoCtl(set);
///
/// @tparam IoCtlReq         the request.
/// @tparam IfReqMFPtr       writes the value into the record: SetAddress for addresses and netmasks, SetBcastAddress.
/// @tparam IfReqGetMFPtr    its counterpart, a part of the type only.
template <int IoCtlReq, typename ValType_, void (IfReq::*IfReqMFPtr)(ValType_),
          ValType_ (IfReq::*IfReqGetMFPtr)() const>
class SetIoCltIf : public IfReq {
public:
    typedef int ErrorType;  // NOLINT(modernize-use-using): as in IfReq

    /// @param if_name  cut to 15 characters.
    SetIoCltIf(const char* if_name, ValType_ value) : IfReq(if_name) { Set(value); }

    /// Replaces the value that is to be set.
    void Set(ValType_ value) { (this->*IfReqMFPtr)(value); }

    /// Makes the request. A refused one is told on std::cout once more, "SetIoCltIf::DoIoCtl error ".
    ErrorType DoIoCtl(int sd) {
        SOCKETIO_ASSERT_IN("libraries/TarnSocketIO/IfConfig.h", 392, sd >= 0);
        const ErrorType err = IfReq::DoIoCtl(sd, IoCtlReq);
        if (err != 0) {
            std::cout << "SetIoCltIf::DoIoCtl error " << std::flush;
        }
        return err;
    }
};

/// Reads one address of one interface with one request, such as SIOCGIFNETMASK.
///
/// @tparam IoCtlReq    the request.
/// @tparam IfReqMFPtr  reads the value out of the record: GetAddress, GetBcastAddress or GetDestinationAddress.
template <int IoCtlReq, typename GetType, GetType (IfReq::*IfReqMFPtr)() const>
class GetIoCltIf : public IfReq {
public:
    typedef int ErrorType;    // NOLINT(modernize-use-using): as in IfReq
    typedef GetType ValType;  // NOLINT(modernize-use-using): likewise

    /// @param if_name  cut to 15 characters.
    explicit GetIoCltIf(const char* if_name) : IfReq(if_name) {}

    /// @return the value that is in the record.
    /// @throws std::logic_error if the record holds no IPv4 address, as before a request.
    GetType Get() const { return (this->*IfReqMFPtr)(); }

    /// Makes the request.
    /// @param out  gets the value; not touched if the request fails. Throws as Get, if the kernel has another family.
    ErrorType DoIoCtl(int sd, ValType& out) {
        SOCKETIO_ASSERT_IN("libraries/TarnSocketIO/IfConfig.h", 377, sd >= 0);
        const ErrorType err = IfReq::DoIoCtl(sd, IoCtlReq);
        if (err == 0) {
            out = Get();
        }
        return err;
    }
};

/// Changes address, netmask and broadcast address of an alias, in this order, as far as they are given. Netmask and
/// broadcast address are read back: one that is not what was set is a failed assertion.
///
/// Of each value 0.0.0.0 means that nothing is asked for it. Of the last two 1.0.0.0 means that of the main interface.
///
/// What the kernel does with it: a new address gets the netmask and the broadcast address of its class, also where the
/// alias had others. And where the alias has the first address of its subnet, the kernel drops the other addresses of
/// that subnet with the old one, unless net.ipv4.conf.all.promote_secondaries is set.
class ChangeAliasIf {
public:
    typedef int ErrorType;  // NOLINT(modernize-use-using): as in IfReq

    /// @param main_if_name   the physical interface, such as `eth0`.
    /// @param alias_if_name  such as `eth0:1`. Without a label it is the interface itself that is changed. An empty or
    ///                       null name is a failed assertion; of either name the kernel sees 15 characters.
    ChangeAliasIf(const char* main_if_name, const char* alias_if_name, IPv4::IPAddress alias_ip,
                  IPv4::IPAddress netmask, IPv4::IPAddress bcast);
    ~ChangeAliasIf() = default;
    ChangeAliasIf(const ChangeAliasIf&) = default;
    ChangeAliasIf& operator=(const ChangeAliasIf&) = default;

    /// Applies the settings.
    ///
    /// @return 0, also if there was nothing to do, or if what was read back is not what was set (and the failure action
    ///         has returned). EINVAL, and nothing is asked of the kernel, if the label stands where the kernel does not
    ///         see it: the interface itself would be changed.
    ErrorType DoIoCtl(int sd);

    std::string m_main_if_name;
    std::string m_alias_if_name;
    IPv4::IPAddress m_alias_ip;
    IPv4::IPAddress m_netmask;  ///< holds the main interface's after DoIoCtl, where that was asked for
    IPv4::IPAddress m_bcast;    ///< likewise

private:
    bool ApplyAddress(int sd, const char* function, ErrorType& err);
    bool ApplyNetmask(int sd, const char* function, ErrorType& err);
    bool ApplyBroadcast(int sd, const char* function, ErrorType& err);
};

/// Gives an interface a further address under a name of its own. An alias that is there already gets this address in
/// place of its old one, as ChangeAliasIf does it.
class AddAliasIf {
public:
    typedef int ErrorType;  // NOLINT(modernize-use-using): as in IfReq

    /// @param main_if_name        the physical interface, such as `eth0`.
    /// @param alias_if_name       such as `eth0:1`; 15 characters count. Without a label it is the interface itself
    ///                            that gets the address.
    /// @param copy_main_settings  also gives it the netmask and the broadcast address of the main interface; otherwise
    ///                            they are what the kernel makes of the address.
    AddAliasIf(const char* main_if_name, const char* alias_if_name, IPv4::IPAddress alias_ip, bool copy_main_settings);

    /// Makes the alias. An empty name and a negative descriptor are failed assertions.
    ///
    /// @return as ChangeAliasIf::DoIoCtl.
    ErrorType DoIoCtl(int sd);

    std::string m_main_if_name;
    std::string m_alias_if_name;
    IPv4::IPAddress m_alias_ip;
    IPv4::IPAddress m_netmask;  ///< what DoIoCtl has copied from the main interface; 0.0.0.0 if nothing
    IPv4::IPAddress m_bcast;    ///< likewise
    bool m_copy_main_settings;
};

/// Takes an alias and its address away. With the first address of a subnet go others, as of ChangeAliasIf.
class DelAliasIf {
public:
    typedef int ErrorType;  // NOLINT(modernize-use-using): as in IfReq

    DelAliasIf(const char* main_if_name, const char* alias_if_name);

    /// What every operation fulfils: there is nothing to check.
    void invariant() const {}

    /// Clears IFF_UP of the alias: the kernel drops it then. That there is no such alias is a refused request.
    ///
    /// @return EINVAL, and nothing is asked of the kernel, if the name is not that of an alias of the main interface: a
    ///         physical interface is never switched off.
    ErrorType DoIoCtl(int sd);

    std::string m_main_if_name;
    std::string m_alias_if_name;
};

}  // namespace TarnSocketIO
