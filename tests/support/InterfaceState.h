#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/PrivateNetwork.h"

/// What the ip command of iproute2 tells of interfaces: another way to the kernel than the library's.
namespace TarnTest {

/// One configured IPv4 address.
struct ConfiguredAddress {
    std::string label;      ///< the interface's name, or the alias's
    std::string address;    ///< with its prefix length, such as "192.0.2.1/24"
    std::string peer;       ///< likewise; empty unless there is one at the other end of a point-to-point link
    std::string broadcast;  ///< empty for none
};

/// All of them, or those of one interface, in the kernel's order.
inline std::vector<ConfiguredAddress> ReadAddresses(const PrivateNetwork& net, const std::string& interface = "") {
    std::istringstream lines(net.Run("ip -oneline -4 address show " + (interface.empty() ? "" : "dev " + interface)));
    std::vector<ConfiguredAddress> addresses;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        ConfiguredAddress one;
        for (std::string word; one.label.empty() && words >> word;) {
            if (word == "inet") {
                words >> one.address;
            } else if (word == "peer") {
                words >> one.peer;
            } else if (word == "brd") {
                words >> one.broadcast;
            } else if (word.back() == '\\') {
                one.label = word.substr(0, word.size() - 1);
            }
        }
        addresses.push_back(one);
    }
    return addresses;
}

/// The same as text, one line each: label, address, broadcast address.
inline std::vector<std::string> AddressLines(const PrivateNetwork& net, const std::string& interface = "") {
    std::vector<std::string> lines;
    for (const ConfiguredAddress& one : ReadAddresses(net, interface)) {
        lines.push_back(one.label + " " + one.address + (one.peer.empty() ? "" : " peer " + one.peer) +
                        (one.broadcast.empty() ? "" : " brd " + one.broadcast));
    }
    return lines;
}

/// The labels alone.
inline std::vector<std::string> AddressLabels(const PrivateNetwork& net) {
    std::vector<std::string> labels;
    for (const ConfiguredAddress& one : ReadAddresses(net)) {
        labels.push_back(one.label);
    }
    return labels;
}

/// The flags of an interface, such as "BROADCAST,MULTICAST,UP,LOWER_UP". NO-CARRIER is there if it is up, but not
/// running.
inline std::vector<std::string> LinkFlags(const PrivateNetwork& net, const std::string& interface) {
    const std::string text = net.Run("ip -oneline link show dev " + interface);
    const std::size_t begin = text.find('<') + 1;
    std::istringstream names(text.substr(begin, text.find('>') - begin));
    std::vector<std::string> flags;
    for (std::string name; std::getline(names, name, ',');) {
        flags.push_back(name);
    }
    return flags;
}

/// The hardware address of an interface, such as "02:1a:00:3c:fd:5e".
inline std::string HardwareAddressOf(const PrivateNetwork& net, const std::string& interface) {
    std::istringstream words(net.Run("ip -oneline link show dev " + interface));
    std::string address;
    for (std::string word; words >> word;) {
        if (word == "link/ether") {
            words >> address;
        }
    }
    return address;
}

}  // namespace TarnTest
