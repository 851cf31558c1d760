#pragma once

#include <TarnSocketIO/IPv4/IPAddress.h>
#include <netinet/in.h>

namespace TarnSocketIO {

/// A `sockaddr_in` made from a port and an address, for bind(2), connect(2) and their like.
///
/// Threads: a plain value; distinct objects are independent.
class SockAddr {
public:
    /// Fills the record with zeros.
    void Init() { m_SockAddr = sockaddr_in{}; }

    /// Sets the family AF_INET, port and address; the rest is zero.
    ///
    /// @param port  host byte order; 0 lets the kernel choose one.
    /// @return the record, valid while this object lives.
    sockaddr_in& Init(unsigned short port, const IPv4::IPAddress& ip) {
        Init();
        m_SockAddr.sin_family = AF_INET;
        m_SockAddr.sin_port = htons(port);
        m_SockAddr.sin_addr.s_addr = ip.NetworkNumericForm();
        return m_SockAddr;
    }

    /// As above, with port 0.
    sockaddr_in& Init(const IPv4::IPAddress& ip) { return Init(0, ip); }

    /// @return the record, to be read or changed; valid while this object lives. All zero before the first Init.
    operator sockaddr_in&() { return m_SockAddr; }  // NOLINT(google-explicit-constructor): part of the interface

private:
    sockaddr_in m_SockAddr{};
};

}  // namespace TarnSocketIO
