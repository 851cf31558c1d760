#pragma once

#include <TarnSocketIO/CSocket.h>
#include <pthread.h>

#include <cstdint>
#include <string>

namespace TarnTest {

/// Shows the members of an endpoint that is not of a class of the test's own: one that the server constructor starts
/// is whole when its threads begin only if nothing is derived from it.
class EndpointMembers : private TarnSocketIO::CSocket {
public:
    using Endpoint = TarnSocketIO::CSocket;
    EndpointMembers() = delete;

    static std::int32_t Sender(const Endpoint& e) { return e.*&EndpointMembers::m_socSender; }
    static std::int32_t Receiver(const Endpoint& e) { return e.*&EndpointMembers::m_socReceiver; }
    static std::uint32_t Port(const Endpoint& e) { return e.*&EndpointMembers::m_uiPort; }
    static std::int32_t ReceiverThreads(const Endpoint& e) { return e.*&EndpointMembers::m_nReceiverThreads; }
    static const TarnSocketIO::CDataReceiver* ReceiverThread(const Endpoint& e, int slot) {
        return (e.*&EndpointMembers::m_pReceivers)[slot];
    }
    static bool IsServerStarted(const Endpoint& e) { return e.*&EndpointMembers::m_bServerStarted; }
    static bool IsAcceptorRunning(const Endpoint& e) { return e.*&EndpointMembers::m_bAcceptorRunning; }
    static bool AreReceiversRunning(const Endpoint& e) { return e.*&EndpointMembers::m_bReceiversRunning; }
    static bool IsMultiConnectionServer(const Endpoint& e) { return e.*&EndpointMembers::m_bMultiConnectionServer; }
    static bool IsTerminated(const Endpoint& e) { return e.*&EndpointMembers::m_bTerminated; }
    static bool IsSendOnly(const Endpoint& e) { return e.*&EndpointMembers::m_bSendOnly; }
    static bool HasTimestamps(const Endpoint& e) { return e.*&EndpointMembers::m_bTimestamp; }
    static std::string Group(const Endpoint& e) { return e.*&EndpointMembers::m_szGroup; }
    static std::string LocalInterface(const Endpoint& e) { return e.*&EndpointMembers::m_szLocalIf; }
    static std::int32_t LocalIPs(const Endpoint& e) { return e.*&EndpointMembers::m_nLocalIPs; }
    static const TarnSocketIO::CIPString* LocalIPList(const Endpoint& e) { return e.*&EndpointMembers::m_pLocalIPs; }
    static std::uint16_t PingSequence(const Endpoint& e) { return e.*&EndpointMembers::m_usPingSequence; }
    static std::int32_t PingId(const Endpoint& e) { return e.*&EndpointMembers::m_iPingId; }
    static bool IsMutexFree(Endpoint& e, bool of_sender) {
        pthread_mutex_t& mutex = of_sender ? e.*&EndpointMembers::m_SenderMutex : e.*&EndpointMembers::m_ReceiverMutex;
        if (pthread_mutex_trylock(&mutex) != 0) {
            return false;
        }
        pthread_mutex_unlock(&mutex);
        return true;
    }
};

}  // namespace TarnTest
