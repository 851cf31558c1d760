#include <TarnSocketIO/ioctl_structs.h>

#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <ostream>

#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/SockAddr.h>
#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/PrintLine.h>
#include <TarnSocketIO/detail/SocketCalls.h>

namespace TarnSocketIO {

namespace {

constexpr const char* source_file = "libraries/TarnSocketIO/ioctl_structs.cpp";
// The sites of the shortest operations are known by the header's name.
constexpr const char* header_file = "libraries/TarnSocketIO/ioctl_structs.h";

void WriteAddress(sockaddr& place, IPv4::IPAddress address) {
    const sockaddr_in record = SockAddr().Init(address);
    std::memcpy(&place, &record, sizeof record);
}

}  // namespace

IfReq::IfReq(const char* name) : ifreq() {
    Init(name);
}

void IfReq::Init() {
    ifr_name[0] = '\0';
    std::memset(&ifr_ifru, 0, sizeof ifr_ifru);
}

void IfReq::Init(const char* name) {
    // The name comes first: it may be the record's own, which Init would have emptied.
    SetIfName(name);
    std::memset(&ifr_ifru, 0, sizeof ifr_ifru);
}

void IfReq::SetIfName(const char* name) {
    const char* const text = detail::TextOrNone(name);
    const std::size_t length = ::strnlen(text, sizeof ifr_name - 1);
    // It may be the record's own name.
    std::memmove(ifr_name, text, length);
    ifr_name[length] = '\0';
    ifr_name[sizeof ifr_name - 1] = '\0';
}

void IfReq::SetAddress(IPv4::IPAddress a) {
    WriteAddress(ifr_addr, a);
    SOCKETIO_ASSERT_IN(header_file, 135, ifr_addr.sa_family == AF_INET);
}

void IfReq::SetBcastAddress(IPv4::IPAddress a) {
    WriteAddress(ifr_broadaddr, a);
    SOCKETIO_ASSERT_IN(header_file, 148, ifr_addr.sa_family == AF_INET);
}

IPv4::IPAddress IfReq::GetAddress() const {
    return ifr_addr;
}

IPv4::IPAddress IfReq::GetBcastAddress() const {
    return ifr_broadaddr;
}

IPv4::IPAddress IfReq::GetDestinationAddress() const {
    return ifr_dstaddr;
}

IfReq::ErrorType IfReq::DoIoCtl(int sd, int request) {
    SOCKETIO_ASSERT_IN(source_file, 62, sd >= 0);
    if (detail::Control(sd, static_cast<unsigned long>(request), static_cast<ifreq*>(this))) {
        return 0;
    }
    const int error = errno;
    detail::PrintLine("IfReq::DoIoCtl error ");
    detail::PrintError("ioctl ", error);
    if (errno != 0) {
        SOCKETIO_ASSERT_IN(source_file, 69, !errno)(errno);
    }
    return error;
}

IfReq::ErrorType IfFlagsReq::DoIoCtl(int sd, int request) {
    SOCKETIO_ASSERT_IN(source_file, 84, (request == SIOCGIFFLAGS) || (request == SIOCSIFFLAGS))
    (request)(SIOCGIFFLAGS)(SIOCSIFFLAGS);
    return IfReq::DoIoCtl(sd, request);
}

IfConf::IfConf(ifreq* ifs, unsigned int arr_size) : ifconf() {
    Set(ifs, arr_size);
}

void IfConf::Set(ifreq* ifs, unsigned int arr_size) {
    // NOLINTNEXTLINE(modernize-use-nullptr): reported as it stands here
    SOCKETIO_ASSERT_IN(header_file, 42, ifs != 0 && arr_size > 0)(arr_size);
    constexpr auto most = static_cast<unsigned int>(std::numeric_limits<int>::max() / sizeof(ifreq));
    ifc_req = ifs;
    ifc_len = static_cast<int>(std::min(arr_size, most) * sizeof(ifreq));
}

}  // namespace TarnSocketIO

std::ostream& operator<<(std::ostream& os, const ifreq& r) {
    TarnSocketIO::IfReq request("");
    static_cast<ifreq&>(request) = r;
    // The kernel terminates a name; somebody else may not.
    request.ifr_name[IFNAMSIZ - 1] = '\0';
    os << std::dec << request.GetIfName() << "\t\t< ";
    os << (request.IsUp() ? "UP " : "DOWN ");
    os << "BCAST=" << (request.IsBroadcast() ? "1 " : "0 ");
    os << "MCAST=" << (request.IsMultcast() ? "1 " : "0 ");
    os << "RUNNING=" << (request.IsRunning() ? "1 " : "0 ");
    os << "LOOPBACK=" << (request.IsLoopback() ? "1 " : "0 ") << ">";
    os << "\n\t\tADDRESS: " << request.GetAddress();
    os << "\n\t\tBROADCAST: " << request.GetBcastAddress();
    return os << "\n\t\tDESTINATION: " << request.GetDestinationAddress();
}
