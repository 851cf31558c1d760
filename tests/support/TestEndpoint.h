#pragma once

#include <TarnSocketIO/CSocket.h>
#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace TarnTest {

/// What an endpoint was notified of.
struct EndpointEvent {
    enum class Kind {
        connected,
        terminated,
        received,          ///< the plain form
        received_stamped,  ///< with the time
        received_from,     ///< with the sender
        echo_reply
    };
    Kind kind;
    std::string data;
    std::string from;        ///< of received_from and echo_reply
    timeval time;            ///< of received_stamped
    double rtt;              ///< of echo_reply, in milliseconds
    bool is_terminated;      ///< data[length] was '\0'
    std::thread::id thread;  ///< that it was notified on
};

/// An endpoint that remembers its notifications and shows its members. It opens nothing by itself; its destructor calls
/// TerminateAll, and so must the one of a class derived from it.
class TestEndpoint : public TarnSocketIO::CSocket {
public:
    explicit TestEndpoint(TarnSocketIO::CONNECTION_TYPE type, bool send_only = false, bool timestamp = false);
    ~TestEndpoint() override;

    using CSocket::m_bAcceptorRunning;
    using CSocket::m_bMultiConnectionServer;
    using CSocket::m_bReceiversRunning;
    using CSocket::m_bSendOnly;
    using CSocket::m_bServerStarted;
    using CSocket::m_bTerminated;
    using CSocket::m_bTimestamp;
    using CSocket::m_Groups;
    using CSocket::m_iPingId;
    using CSocket::m_nLocalIPs;
    using CSocket::m_nReceiverThreads;
    using CSocket::m_PingSenderAddress;
    using CSocket::m_pLocalIPs;
    using CSocket::m_pReceivers;
    using CSocket::m_ReceiverMutex;
    using CSocket::m_SenderMutex;
    using CSocket::m_socReceiver;
    using CSocket::m_socSender;
    using CSocket::m_szGroup;
    using CSocket::m_szLocalIf;
    using CSocket::m_tvReceived;
    using CSocket::m_uiPort;
    using CSocket::m_usPingSequence;

    /// The port that the receiver is bound to, or 0.
    std::uint16_t ReceiverPort() const;

    // What has been notified so far, oldest first. A notification is remembered before its replacement below is called.
    std::vector<EndpointEvent> Events() const;
    std::size_t Count(EndpointEvent::Kind kind) const;
    /// The data of all forms of OnReceivedData.
    std::vector<std::string> Received() const;

    // What a notification does beyond being remembered; set before threads run.
    std::function<void()> on_connected;
    std::function<void()> on_terminated;
    std::function<void(char*, long)> on_received;  ///< every form
    std::function<void()> on_echo_reply;

protected:
    void OnConnected() override;
    void OnTerminated() override;
    void OnReceivedData(char* data, long length) override;
    void OnReceivedData(char* data, long length, timeval& received) override;
    void OnReceivedData(char* data, long length, const TarnSocketIO::CIPString& from) override;
    void OnReceivedEchoReply(const TarnSocketIO::CIPString& from, double rttMs) override;

    using CSocket::OnConnected;
    using CSocket::OnReceivedData;
    using CSocket::OnTerminated;

private:
    void Remember(EndpointEvent event);
    void RememberData(EndpointEvent::Kind kind, const char* data, long length, const std::string& from, timeval time);

    mutable std::mutex m_mutex;
    std::vector<EndpointEvent> m_events;
};

/// Opens an endpoint of its own in every way, and ends it: before a test takes all descriptors, of which the
/// undefined-behaviour sanitizer needs one for its first look at a type.
void UseAnEndpointOnce(TarnSocketIO::CONNECTION_TYPE type);

}  // namespace TarnTest
