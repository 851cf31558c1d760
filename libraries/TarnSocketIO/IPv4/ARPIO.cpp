#include <TarnSocketIO/IPv4/ARPIO.h>

#include <sys/ioctl.h>

#include <cerrno>
#include <iostream>
#include <stdexcept>

#include <TarnSocketIO/detail/Descriptor.h>
#include <TarnSocketIO/detail/LibcAssert.h>
#include <TarnSocketIO/detail/PrintLine.h>
#include <TarnSocketIO/detail/SocketCalls.h>

namespace TarnSocketIO {

namespace {

constexpr const char* source_file = "libraries/TarnSocketIO/IPv4/ARPIO.cpp";

}  // namespace

ARPIO::ARPIO() : m_SD(-1) {
    InitSocket();
}

ARPIO::ARPIO(const char* dev) : ARPIO() {
    m_ARPReq.SetDeviceName(dev);
}

ARPIO::~ARPIO() {
    // Kept: 0 is left alone, even where it is this object's own.
    if (m_SD > 0 && !detail::CloseRepeatedly(m_SD)) {
        detail::PrintText("~ARPIO() failed");
    }
}

void ARPIO::InitSocket() {
    TARN_LIBC_ASSERT_IN(source_file, 47, m_SD < 0);
    m_SD = detail::OpenSocket(SOCK_DGRAM, 0);
    if (m_SD < 0) {
        throw std::runtime_error("could open socket for ARPIO");
    }
}

MACAddress ARPIO::GetMACAddress(IPv4::IPAddress ip, const char* dev) const {
    ARPTableIPv4Entry entry(ip, dev, ARPReq::FLAG_PUBL, ARPReq::FLAG_NONE);
    return Query(entry);
}

MACAddress ARPIO::GetMACAddress(IPv4::IPAddress ip) const {
    ARPTableIPv4Entry entry;
    static_cast<ARPReq&>(entry) = m_ARPReq;
    entry.SetFlags(ARPReq::FLAG_PUBL, ARPReq::FLAG_NONE, ARPReq::FLAG_NONE);
    entry.SetIPv4ProtocolAddress(ip);
    return Query(entry);
}

MACAddress ARPIO::Query(ARPTableIPv4Entry& entry) const {
    return GetEntry(entry) == 0 ? entry.GetMACAddress() : MACAddress();
}

int ARPIO::GetEntry(ARPTableIPv4Entry& entry) const {
    if (detail::Control(m_SD, SIOCGARP, static_cast<arpreq*>(&entry))) {
        return 0;
    }
    const int error = errno;
    // Flushed before the address is asked for: without an IPv4 one the process ends there.
    std::cout << "ARPIO::GetEntry error: " << std::flush;
    // Set only where it is not: what other threads may be writing with must not change under them.
    if ((std::cout.flags() & std::ios_base::basefield) != std::ios_base::dec) {
        std::cout << std::dec;
    }
    std::cout << entry.GetIPv4Address() << " " << std::flush;
    detail::PrintError("ioctl(Get ARP entry)", error);
    return error;
}

}  // namespace TarnSocketIO
