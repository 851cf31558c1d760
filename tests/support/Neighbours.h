#pragma once

#include <TarnSocketIO/eth/MACAddress.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tests/support/Datagrams.h"
#include "tests/support/Eventually.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/PrivateNetwork.h"

/// The kernel's ARP table, by another way than the library's.
namespace TarnTest {

inline constexpr const char* no_mac = "00:00:00:00:00:00";

/// Such as "02:1a:00:3c:fd:5e".
inline std::string TextOf(const TarnSocketIO::MACAddress& mac) {
    std::array<char, 18> text{};
    const unsigned char* const octets = mac.OctetForm();
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", octets[0], octets[1], octets[2], octets[3],
                  octets[4], octets[5]);
    return text.data();
}

/// The hardware addresses that the ip command tells of a device's neighbours; empty for those that are not resolved.
inline std::map<std::string, std::string> ReadNeighbours(const PrivateNetwork& net, const std::string& device) {
    std::istringstream lines(net.Run("ip -4 neigh show dev " + device));
    std::map<std::string, std::string> neighbours;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string address;
        words >> address;
        std::string& mac = neighbours[address];
        for (std::string word; words >> word;) {
            if (word == "lladdr") {
                words >> mac;
            }
        }
    }
    return neighbours;
}

/// Has the kernel find out a neighbour's hardware address, as everybody who sends something to it does.
///
/// @return the address.
inline std::string Resolve(const PrivateNetwork& net, const std::string& ip, const std::string& device) {
    SendDatagram(9, "x", ip.c_str());
    std::string mac;
    if (!Eventually([&] { return !(mac = ReadNeighbours(net, device)[ip]).empty(); })) {
        throw std::runtime_error("no answer from " + ip);
    }
    return mac;
}

/// Has the kernel ask for a neighbour that does not answer.
inline void AskInVain(const PrivateNetwork& net, const std::string& ip, const std::string& device) {
    SendDatagram(9, "x", ip.c_str());
    const std::map<std::string, std::string> neighbours = ReadNeighbours(net, device);
    const auto found = neighbours.find(ip);
    if (found == neighbours.end() || !found->second.empty()) {
        throw std::runtime_error(ip + " is not being asked for");
    }
}

/// Adds an entry that stays.
inline void AddPermanent(const PrivateNetwork& net, const std::string& ip, const std::string& mac,
                         const std::string& device) {
    net.Run("ip neigh add " + ip + " lladdr " + mac + " nud permanent dev " + device);
}

/// Adds one for each of 192.0.2.100 to 192.0.2.249, which ends with the same octet.
inline void AddManyPermanent(const PrivateNetwork& net, const std::string& device) {
    net.Run("for i in $(seq 100 249); do printf 'neigh add 192.0.2.%d lladdr 02:00:00:12:34:%x nud permanent dev " +
            device + "\\n' $i $i; done | ip -batch -");
}

/// Whether a query reaches the kernel as it was made: it knows the device then.
inline bool QueriesReachTheKernel() {
    arpreq query{};
    query.arp_pa.sa_family = AF_INET;
    query.arp_pa.sa_data[2] = 127;
    std::strcpy(query.arp_dev, "lo");
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool device_is_known = ioctl(fd, SIOCGARP, &query) == 0 || errno == ENXIO;
    close(fd);
    return device_is_known;
}

/// Tests of queries, skipped where they cannot be made.
class ArpQueryTest : public NetworkTest {
protected:
    void SetUp() override {
        NetworkTest::SetUp();
        if (!IsSkipped() && !QueriesReachTheKernel()) {
            GTEST_SKIP() << "the emulator does not hand the query on";
        }
    }
};

}  // namespace TarnTest
