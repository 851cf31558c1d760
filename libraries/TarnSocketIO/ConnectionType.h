#pragma once

namespace TarnSocketIO {

/// The kind of an endpoint or server, fixed at construction. The values are part of the interface.
enum CONNECTION_TYPE : int {
    CONNECTION_STREAM = 0,    ///< TCP
    CONNECTION_UDP = 1,       ///< datagrams, protocol UDP
    CONNECTION_DATAGRAM = 2,  ///< datagrams, protocol chosen by the kernel; a listener joins its multicast group
    CONNECTION_ICMP = 3,      ///< raw ICMP: ping; needs CAP_NET_RAW
    CONNECTION_PACKET = 4     ///< link-layer receiver of IPv4 frames; needs CAP_NET_RAW
};

}  // namespace TarnSocketIO
