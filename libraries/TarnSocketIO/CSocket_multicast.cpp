// The endpoint's membership in multicast groups.

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

#include <TarnSocketIO/CMutex.h>
#include <TarnSocketIO/CSocket.h>
#include <TarnSocketIO/CUtility.h>
#include <TarnSocketIO/detail/BoundedText.h>
#include <TarnSocketIO/detail/SocketUse.h>

namespace TarnSocketIO {

using detail::SocketUse;

namespace {

using Locker = CScopedLocker<CStaticMutex>;

}  // namespace

bool CSocket::AddToGroup(const char* szGroup) {
    std::printf("AddToGroup m_socReceiver %d szMTPGroup %s\n", m_socReceiver.load(), detail::Printable(szGroup));
    if (m_socReceiver == 0 || szGroup == nullptr) {
        return false;
    }
    const SocketUse receiver = UseReceiver();
    const bool ok = JoinAndRemember(receiver.Get(), szGroup);
    if (ok) {
        CUtility::Debug("CSocket::AddToGroup - added group to vector");
    }
    CUtility::ConditionalDebug("CSocket::AddToGroup - join multicast group", ok);
    if (ok) {
        SwitchLoopBackOff(receiver.Get());
    }
    return ok;
}

void CSocket::JoinStartGroup(int fd) {
    CUtility::Debug("CSocket::InitialiseReceiver - join multicast group %s, local if %s", m_szGroup, m_szLocalIf);
    CUtility::Debug("CSocket::InitialiseReceiver - using specified interface? %s",
                    m_szLocalIf[0] != '\0' ? "Yes" : "No");
    const bool ok = JoinAndRemember(fd, m_szGroup);
    CUtility::ConditionalDebug("CSocket::InitialiseReceiver - join multicast group", ok);
    if (ok) {
        SwitchLoopBackOff(fd);
    }
}

bool CSocket::JoinAndRemember(int fd, const char* group) {
    try {
        // All memory is there before the kernel is asked, so that a joined group is never forgotten.
        std::string text(group);
        const ip_mreq membership = MembershipOf(group);
        const Locker lock(m_ListMutex);
        m_Groups.reserve(m_Groups.size() + 1);  // the kernel's limit is 20, so growing by one does no harm
        if (SetSocketOption(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) < 0) {
            return false;
        }
        m_Groups.push_back(std::move(text));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

ip_mreq CSocket::MembershipOf(const char* group) const {
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = inet_addr(group);
    membership.imr_interface.s_addr = m_szLocalIf[0] != '\0' ? inet_addr(m_szLocalIf) : htonl(INADDR_ANY);
    return membership;
}

void CSocket::SwitchLoopBackOff(int fd) {
    SwitchMulticastLoopOff(fd);
    // On Linux it is the sending socket's setting that counts: this one's, and that of every sender to come.
    m_bLoopBackOff = true;
    const SocketUse sender = UseSender();
    SwitchMulticastLoopOff(sender.Get());
}

void CSocket::SwitchMulticastLoopOff(int fd) {
    const unsigned char off = 0;
    SetSocketOption(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off);
}

void CSocket::DropGroup(const char* szGroup, bool bRemove) {
    CUtility::Debug("CSocket::DropGroup - dropping %s", detail::Printable(szGroup));
    if (szGroup == nullptr) {
        return;
    }
    LeaveGroup(szGroup);
    if (bRemove && Forget(szGroup)) {
        CUtility::Debug("CSocket::DropGroup - removing group from vector");
    }
}

void CSocket::LeaveGroup(const char* group) {
    const ip_mreq membership = MembershipOf(group);
    const SocketUse receiver = UseReceiver();
    SetSocketOption(receiver.Get(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof membership);
}

bool CSocket::Forget(const char* group) {
    const Locker lock(m_ListMutex);
    const auto found = std::find(m_Groups.begin(), m_Groups.end(), group);
    if (found == m_Groups.end()) {
        return false;
    }
    m_Groups.erase(found);
    return true;
}

void CSocket::DropAllGroups() {
    std::vector<std::string> groups;
    {
        const Locker lock(m_ListMutex);
        groups.swap(m_Groups);
    }
    for (const std::string& group : groups) {
        DropGroup(group.c_str(), false);
    }
}

}  // namespace TarnSocketIO
