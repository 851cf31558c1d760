#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace TarnTest {

/// A network of the test's own, gone with the object: two namespaces, joined by as many wires as the test adds.
///
///     the test                            the peer
///     lo     127.0.0.1/8                  lo     127.0.0.1/8
///     test0  192.0.2.1/24  ---- wire ---- test0  192.0.2.2/24
///
/// The thread that makes the object is in the test's side from then on, and back where it came from when the object is
/// gone; threads that it starts meanwhile are in there, too, while those it started before are not. One at a time, made
/// and destroyed by the same thread. Whatever fails throws std::runtime_error with the command and what it said.
///
/// Needs CAP_SYS_ADMIN, for which `unshare --user --map-root-user --net` is enough, and the ip command of iproute2.
class PrivateNetwork {
public:
    /// What keeps this machine from making one, to skip a test with; empty if nothing does.
    static std::string WhatIsMissing();

    PrivateNetwork();
    ~PrivateNetwork();
    PrivateNetwork(const PrivateNetwork&) = delete;
    PrivateNetwork& operator=(const PrivateNetwork&) = delete;

    /// Adds a wire with an Ethernet interface of this name at both ends, both up and ready to carry when this returns.
    ///
    /// @param cidr       address of the test's end, such as `192.0.2.1/24`; empty for none.
    /// @param peer_cidr  address of the peer's end; empty for none.
    void AddInterface(const std::string& name, const std::string& cidr, const std::string& peer_cidr = "");

    /// Adds a further address with a label such as `test0:1` to the interface that the label begins with.
    void AddAlias(const std::string& label, const std::string& cidr);

    /// Adds a route, as Run does its work: inside InPeer, to the peer.
    ///
    /// @param destination  such as `239.192.0.0/14`, or `default`.
    void AddRoute(const std::string& destination, const std::string& interface);

    /// Runs a shell command in the test's namespace, or inside InPeer in the peer's.
    ///
    /// @return what it has written.
    std::string Run(const std::string& command) const;

    /// Runs a function in the peer's namespace, on a thread of its own, to its end. What it throws is thrown here.
    void InPeer(const std::function<void()>& function) const;

    /// The IPv4 addresses of an interface, those of its aliases included, or of an alias alone.
    std::vector<std::string> AddressesOf(const std::string& name) const;

    /// Whether IFF_UP is set.
    bool IsUp(const std::string& name) const;

    /// The multicast groups that an interface which is up receives, as dotted quads.
    std::vector<std::string> GroupsOf(const std::string& name) const;

private:
    class Namespace;

    std::unique_ptr<const Namespace> m_original;
    std::unique_ptr<const Namespace> m_peer;
};

}  // namespace TarnTest
