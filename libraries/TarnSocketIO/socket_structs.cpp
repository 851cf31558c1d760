#include <TarnSocketIO/socket_structs.h>

#include <netinet/in.h>

#include <cstddef>
#include <cstring>
#include <ostream>
#include <string_view>

#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/LibcAssert.h>

namespace TarnSocketIO {

namespace {

constexpr const char* source_file = "libraries/TarnSocketIO/socket_structs.cpp";

}  // namespace

ARPReq::ARPReq(IPv4::IPAddress ip, const char* dev, OrFlag /*f1*/, OrFlag /*f2*/) : arpreq() {
    // Kept: these two, whatever is asked for.
    Init(ip, dev, FLAG_PUBL, FLAG_NONE);
}

void ARPReq::Init() {
    static_cast<arpreq&>(*this) = arpreq{};
}

void ARPReq::Init(IPv4::IPAddress ip, const char* dev, OrFlag f1, OrFlag f2) {
    // Made apart: the name may be this record's own.
    ARPReq fresh;
    fresh.SetIPv4ProtocolAddress(ip);
    fresh.SetDeviceName(dev);
    fresh.SetFlags(f1, f2, FLAG_NONE);
    *this = fresh;
}

void ARPReq::SetIPv4ProtocolAddress(IPv4::IPAddress ip) {
    const in_addr_t address = ip.NetworkNumericForm();
    arp_pa.sa_family = AF_INET;
    std::memcpy(reinterpret_cast<char*>(&arp_pa) + offsetof(sockaddr_in, sin_addr), &address, sizeof address);
}

void ARPReq::SetDeviceName(const char* dev) {
    arp_ha.sa_family = 0;
    const char* const name = detail::TextOrNone(dev);
    // Kept: the last byte is not written.
    constexpr std::size_t size = sizeof arp_dev - 1;
    const std::size_t length = ::strnlen(name, size);
    std::memmove(arp_dev, name, length);
    std::memset(arp_dev + length, 0, size - length);
}

IPv4::IPAddress ARPReq::GetIPv4Address() const {
    TARN_LIBC_ASSERT_IN(source_file, 365, arp_pa.sa_family == 2);
    return arp_pa;
}

MACAddress ARPReq::GetMACAddress() const {
    if (arp_ha.sa_family != ARPHRD_ETHER) {
        return {};
    }
    return {reinterpret_cast<const Octet*>(arp_ha.sa_data), BigEndian};
}

std::ostream& operator<<(std::ostream& os, const ARPTableIPv4Entry& e) {
    os << "IP: " << std::dec << e.GetIPv4Address();
    os << ", Hw Type: " << std::dec << static_cast<unsigned int>(e.GetHardwareType());
    os << ", Flags: " << static_cast<unsigned int>(e.GetFlags());
    os << ", MAC: " << std::hex << e.GetMACAddress();
    os << ", Mask: " << std::dec << e.GetIPv4Mask();
    // The last byte of the name is written by nobody here: the kernel terminates it, somebody else may not.
    const char* const device = e.GetDeviceName();
    return os << ", Device: " << std::string_view(device, ::strnlen(device, sizeof e.arp_dev));
}

}  // namespace TarnSocketIO
