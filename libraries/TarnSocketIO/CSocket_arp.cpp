// The endpoint's signal-driven I/O, and what it does to ARP tables: this host's and the neighbours'.

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if_arp.h>
#include <netinet/ether.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/SocketCalls.h>
#include <TarnSocketIO/detail/SocketUse.h>

namespace TarnSocketIO {

using detail::SocketUse;

namespace {

arpreq PermanentEntry(const std::string& device, const CIPString& ip, CMacAddress& mac) {
    arpreq request{};
    sockaddr_in protocol_address{};
    protocol_address.sin_family = AF_INET;
    protocol_address.sin_addr.s_addr = inet_addr(ip.c_str());
    std::memcpy(&request.arp_pa, &protocol_address, sizeof request.arp_pa);
    // The family of the hardware address stays 0: the kernel takes the device's.
    ether_addr hardware_address{};
    if (ether_aton_r(mac.GetString(), &hardware_address) != nullptr) {
        std::memcpy(request.arp_ha.sa_data, &hardware_address, sizeof hardware_address);
    }
    request.arp_flags = ATF_PERM;
    detail::CopyText(request.arp_dev, device);
    return request;
}

}  // namespace

bool CSocket::EnableSignalIO() {
    if (m_socReceiver < 0) {
        return false;
    }
    const SocketUse receiver = UseReceiver();
    // Kept: an endpoint without a receiver means descriptor 0.
    const int fd = m_socReceiver == 0 ? 0 : receiver.Get();
    if (detail::SetSignalOwner(fd, getpid()) == -1) {
        CUtility::Debug("CSocket::EnableSignalIO - could not own SIGIO");
        return false;
    }
    const int flags = detail::GetStatusFlags(fd);
    if (flags < 0) {
        CUtility::Debug("CSocket::EnableSignalIO - bad fcntl get call");
        return false;
    }
    if (detail::SetStatusFlags(fd, flags | O_ASYNC) < 0) {
        CUtility::Debug("CSocket::EnableSignalIO - bad fcntl set call(1)");
        return false;
    }
    if (detail::SetSignal(fd, SIGIO) == -1) {
        CUtility::Debug("CSocket::EnableSignalIO - bad fcntl set call(2)");
        return false;
    }
    detail::SetStatusFlags(fd, detail::GetStatusFlags(fd) | O_ASYNC | O_NONBLOCK);
    return true;
}

int CSocket::DisableSignalIO() {
    const SocketUse receiver = UseReceiver();
    const int fd = m_socReceiver == 0 ? 0 : receiver.Get();
    return detail::SetStatusFlags(fd, detail::GetStatusFlags(fd) & ~O_ASYNC);
}

bool CSocket::UpdateARPTable(const std::string& device, const CIPString& ip, CMacAddress& mac) {
    if (m_socReceiver <= 0) {
        return false;
    }
    if (device.empty()) {
        CUtility::Debug("CSocket::UpdateARPTable - bad device\n");
        return false;
    }
    arpreq request = PermanentEntry(device, ip, mac);
    // Kept: the bytes of the hardware address, not its text.
    CUtility::Debug("CSocket::UpdateARPTable - adding IP: %s MAC: %s", ip.c_str(), request.arp_ha.sa_data);
    const SocketUse receiver = UseReceiver();
    return detail::Control(receiver.Get(), SIOCSARP, &request);
}

int CSocket::Arping(const CIPString& source, const CIPString& target) {
    std::array<char, 128> command{};
    // The texts are made of octets: nothing in them means anything to the shell.
    std::snprintf(command.data(), command.size(), "arping -q -A -c1 -s %s %s ", source.c_str(), target.c_str());
    return std::system(command.data());  // NOLINT(cert-env33-c): the tool is found as the shell finds it
}

}  // namespace TarnSocketIO
