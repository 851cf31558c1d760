#include <TarnSocketIO/IfConfig.h>

#include <net/if.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <stdexcept>

#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/Descriptor.h>
#include <TarnSocketIO/detail/PrintLine.h>
#include <TarnSocketIO/detail/SocketCalls.h>

namespace TarnSocketIO {

using IPv4::IPAddress;

namespace {

constexpr const char* source_file = "libraries/TarnSocketIO/IfConfig.cpp";
constexpr const char* header_file = "libraries/TarnSocketIO/IfConfig.h";

using SetAddress = SetIoCltIf<SIOCSIFADDR, IPAddress, &IfReq::SetAddress, &IfReq::GetAddress>;
using SetNetmask = SetIoCltIf<SIOCSIFNETMASK, IPAddress, &IfReq::SetAddress, &IfReq::GetAddress>;
using SetBroadcast = SetIoCltIf<SIOCSIFBRDADDR, IPAddress, &IfReq::SetBcastAddress, &IfReq::GetBcastAddress>;
using GetNetmask = GetIoCltIf<SIOCGIFNETMASK, IPAddress, &IfReq::GetAddress>;
using GetBroadcast = GetIoCltIf<SIOCGIFBRDADDR, IPAddress, &IfReq::GetBcastAddress>;

/// A value that is left alone.
bool IsAbsent(IPAddress value) {
    return value == IPAddress(0U, BigEndian);
}

/// A value that stands for the main interface's.
bool IsFromMain(IPAddress value) {
    return value == IPAddress(1, 0, 0, 0);
}

/// A name up to its first NUL.
std::string AsKernelSeesIt(const std::string& name) {
    return name.substr(0, name.find('\0'));
}

/// @return whether the kernel, which sees 15 characters, would take an alias's name for that of an interface.
bool IsCutToAnInterface(const std::string& name) {
    const std::size_t label = name.find(':');
    return label != std::string::npos && label >= IFNAMSIZ - 1;
}

}  // namespace

IfConfig::IfConfig() : m_sd(GetASocketDescriptor()) {}

IfConfig::~IfConfig() {
    if (m_sd < 0 || detail::CloseOnce(m_sd) || errno == EINTR) {
        return;
    }
    detail::PrintError("close - ~IfConfig()", errno);
    detail::PrintText("~SocketIPIfIO() failed");
}

int IfConfig::GetASocketDescriptor() {
    const int sd = detail::OpenSocket(SOCK_DGRAM, 0);
    if (sd < 0) {
        // Kept: the words of the two texts are not those of what has failed.
        detail::PrintError("close - IfConfig::GetASocketDescriptor()", errno);
        throw std::runtime_error("could open socket for IfConfig");
    }
    return sd;
}

GetAllIfs::GetAllIfs(unsigned int records) : m_IfReqs(records, IfReq("")) {}

GetAllIfs::ErrorType GetAllIfs::DoIoCtl(int sd, std::vector<const char*>& results) {
    SOCKETIO_ASSERT_IN(source_file, 77, sd >= 0);
    SOCKETIO_ASSERT_IN(source_file, 78, m_IfReqs.size() >= INITIAL_IFREQ_SIZE);
    IfConf ifconf_tmp(m_IfReqs.data(), static_cast<unsigned int>(m_IfReqs.size()));
    if (!detail::Control(sd, SIOCGIFCONF, static_cast<ifconf*>(&ifconf_tmp))) {
        const int error = errno;
        detail::PrintLine("GetAllIfs::DoIoCtl SIOCGIFCONF error ");
        detail::PrintError("ioctl(Get SIOCGIFCONF)", error);
        if (errno != 0) {
            SOCKETIO_ASSERT_IN(source_file, 88, !errno)(errno);
        }
        return error;
    }
    SOCKETIO_ASSERT_AS(__PRETTY_FUNCTION__, source_file, 93,
                       static_cast<std::size_t>(ifconf_tmp.ifc_len) % sizeof(ifreq) == 0,
                       "ifconf_tmp.ifc_len % sizeof(ifreq) == 0")
    (ifconf_tmp.ifc_len)(sizeof(ifreq));
    // Without an array the kernel tells how long one would have to be.
    const std::size_t count = std::min(static_cast<std::size_t>(ifconf_tmp.ifc_len) / sizeof(ifreq), m_IfReqs.size());
    results.clear();
    SOCKETIO_ASSERT_IN(source_file, 97, results.empty());
    results.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        results.push_back(m_IfReqs[i].GetIfName());
    }
    return 0;
}

ChangeAliasIf::ChangeAliasIf(const char* main_if_name, const char* alias_if_name, IPAddress alias_ip, IPAddress netmask,
                             IPAddress bcast)
    : m_main_if_name(detail::TextOrNone(main_if_name)),
      m_alias_if_name(detail::TextOrNone(alias_if_name)),
      m_alias_ip(alias_ip),
      m_netmask(netmask),
      m_bcast(bcast) {
    SOCKETIO_ASSERT_IN(header_file, 336, !m_main_if_name.empty());
    SOCKETIO_ASSERT_IN(header_file, 337, !m_alias_if_name.empty());
}

// The parts of an operation report their assertions as the operation's own.
#define ASSERT_OF_OPERATION(line, expression) SOCKETIO_ASSERT_AS(function, source_file, line, expression, #expression)

ChangeAliasIf::ErrorType ChangeAliasIf::DoIoCtl(int sd) {
    const char* const function = __PRETTY_FUNCTION__;
    ASSERT_OF_OPERATION(153, !m_main_if_name.empty());
    ASSERT_OF_OPERATION(154, !m_alias_if_name.empty());
    if (IsCutToAnInterface(m_alias_if_name)) {
        return EINVAL;
    }
    ErrorType err = 0;
    if (ApplyAddress(sd, function, err) && ApplyNetmask(sd, function, err)) {
        ApplyBroadcast(sd, function, err);
    }
    return err;
}

bool ChangeAliasIf::ApplyAddress(int sd, const char* function, ErrorType& err) {
    if (IsAbsent(m_alias_ip)) {
        return true;
    }
    err = SetAddress(m_alias_if_name.c_str(), m_alias_ip).DoIoCtl(sd);
    if (err != 0) {
        detail::PrintError("ioctl - Could not set a alias interface ip address", err);
        ASSERT_OF_OPERATION(166, !err)(m_alias_if_name)(m_alias_ip);
    }
    return err == 0;
}

bool ChangeAliasIf::ApplyNetmask(int sd, const char* function, ErrorType& err) {
    if (IsAbsent(m_netmask)) {
        return true;
    }
    if (IsFromMain(m_netmask)) {
        ASSERT_OF_OPERATION(177, !m_main_if_name.empty());
        err = GetNetmask(m_main_if_name.c_str()).DoIoCtl(sd, m_netmask);
        if (err != 0) {
            detail::PrintError("ioctl - To get the netmask for interface", err);
            ASSERT_OF_OPERATION(183, !err)(m_main_if_name)(m_netmask);
            return false;
        }
    }
    ASSERT_OF_OPERATION(189, !m_alias_if_name.empty());
    err = SetNetmask(m_alias_if_name.c_str(), m_netmask).DoIoCtl(sd);
    if (err != 0) {
        detail::PrintError("ioctl - Set the netmask for alias interface", err);
        ASSERT_OF_OPERATION(195, !err)(m_netmask);
        return false;
    }
    IPAddress alias_netmask;
    ASSERT_OF_OPERATION(202, !m_alias_if_name.empty());
    err = GetNetmask(m_alias_if_name.c_str()).DoIoCtl(sd, alias_netmask);
    if (err != 0) {
        // Kept: what cannot be read back is compared all the same.
        detail::PrintError("ioctl - To get the alias netmask for interface", err);
        ASSERT_OF_OPERATION(208, !err);
    }
    ASSERT_OF_OPERATION(210, m_netmask == alias_netmask)(m_netmask)(alias_netmask);
    return true;
}

// The same for the broadcast address. Each step has a text and a place of its own, which reports are looked up by.
bool ChangeAliasIf::ApplyBroadcast(int sd, const char* function, ErrorType& err) {
    if (IsAbsent(m_bcast)) {
        return true;
    }
    if (IsFromMain(m_bcast)) {
        ASSERT_OF_OPERATION(229, !m_main_if_name.empty());
        err = GetBroadcast(m_main_if_name.c_str()).DoIoCtl(sd, m_bcast);
        if (err != 0) {
            detail::PrintError("ioctl - To get the bcast for interface", err);
            ASSERT_OF_OPERATION(235, !err)(m_main_if_name)(m_bcast);
            return false;
        }
    }
    ASSERT_OF_OPERATION(242, !m_alias_if_name.empty());
    err = SetBroadcast(m_alias_if_name.c_str(), m_bcast).DoIoCtl(sd);
    if (err != 0) {
        detail::PrintError("ioctl - Set the bcast for alias interface", err);
        ASSERT_OF_OPERATION(248, !err)(m_bcast);
        return false;
    }
    IPAddress alias_bcast;
    ASSERT_OF_OPERATION(255, !m_alias_if_name.empty());
    err = GetBroadcast(m_alias_if_name.c_str()).DoIoCtl(sd, alias_bcast);
    if (err != 0) {
        // Kept, as above.
        detail::PrintError("ioctl - To get the alias bcast for interface", err);
        ASSERT_OF_OPERATION(261, !err);
    }
    ASSERT_OF_OPERATION(263, m_bcast == alias_bcast)(m_bcast)(alias_bcast);
    return true;
}

#undef ASSERT_OF_OPERATION

AddAliasIf::AddAliasIf(const char* main_if_name, const char* alias_if_name, IPAddress alias_ip, bool copy_main_settings)
    : m_main_if_name(detail::TextOrNone(main_if_name)),
      m_alias_if_name(detail::TextOrNone(alias_if_name)),
      m_alias_ip(alias_ip),
      m_copy_main_settings(copy_main_settings) {}

AddAliasIf::ErrorType AddAliasIf::DoIoCtl(int sd) {
    SOCKETIO_ASSERT_IN(source_file, 110, sd >= 0);
    SOCKETIO_ASSERT_IN(source_file, 111, !m_main_if_name.empty());
    SOCKETIO_ASSERT_IN(source_file, 112, !m_alias_if_name.empty());
    if (IsCutToAnInterface(m_alias_if_name)) {
        return EINVAL;
    }
    ErrorType err = SetAddress(m_alias_if_name.c_str(), m_alias_ip).DoIoCtl(sd);
    if (err != 0) {
        detail::PrintError("ioctl - Could not set an alias interface", err);
        SOCKETIO_ASSERT_IN(source_file, 119, !err)(m_alias_if_name)(m_alias_ip);
        return err;
    }
    const IPAddress from_main(1, 0, 0, 0);
    ChangeAliasIf change_alias_if_op(m_main_if_name.c_str(), m_alias_if_name.c_str(), IPAddress(), from_main,
                                     from_main);
    if (m_copy_main_settings) {
        // clang-format off
        SOCKETIO_ASSERT_IN(source_file, 132, change_alias_if_op.m_netmask == IPAddress(1,0,0,0))(change_alias_if_op.m_netmask);
        SOCKETIO_ASSERT_IN(source_file, 133, change_alias_if_op.m_bcast == IPAddress(1,0,0,0))(change_alias_if_op.m_bcast);
        // clang-format on
    } else {
        change_alias_if_op.m_netmask = IPAddress();
        change_alias_if_op.m_bcast = IPAddress();
    }
    err = change_alias_if_op.DoIoCtl(sd);
    m_netmask = change_alias_if_op.m_netmask;
    m_bcast = change_alias_if_op.m_bcast;
    return err;
}

DelAliasIf::DelAliasIf(const char* main_if_name, const char* alias_if_name)
    : m_main_if_name(detail::TextOrNone(main_if_name)), m_alias_if_name(detail::TextOrNone(alias_if_name)) {}

DelAliasIf::ErrorType DelAliasIf::DoIoCtl(int sd) {
    const std::string main_if_name = AsKernelSeesIt(m_main_if_name);
    const std::string alias_if_name = AsKernelSeesIt(m_alias_if_name);
    // Without a label, or with one that the record would cut off, it would be the interface that is switched off.
    if (main_if_name.empty() || alias_if_name.size() >= IFNAMSIZ || alias_if_name.rfind(main_if_name + ":", 0) != 0) {
        return EINVAL;
    }
    IfFlagsReq flags(alias_if_name.c_str());
    ErrorType err = flags.DoIoCtl(sd, SIOCGIFFLAGS);
    if (err == 0) {
        flags.ifr_flags = static_cast<short>(flags.ifr_flags & ~IFF_UP);
        err = flags.DoIoCtl(sd, SIOCSIFFLAGS);
    }
    return err;
}

}  // namespace TarnSocketIO
