// The addresses of this host that an endpoint finds when it is made.

#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/ConnectionType.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <nss.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestEndpoint.h"

namespace {

using TarnSocketIO::CONNECTION_UDP;
using TarnTest::InChild;
using TarnTest::LogCapture;
using TarnTest::Shared;
using TarnTest::TestEndpoint;
using testing::ElementsAre;

std::vector<std::string> AddressesOf(const TestEndpoint& endpoint) {
    std::vector<std::string> addresses;
    for (std::int32_t i = 0; i < endpoint.m_nLocalIPs; ++i) {
        addresses.emplace_back(endpoint.m_pLocalIPs[i].c_str());
    }
    return addresses;
}

/// What the resolver says of a name.
std::vector<std::string> LookUp(const char* name) {
    std::vector<std::string> addresses;
    const hostent* const entry = gethostbyname(name);
    for (char** address = entry != nullptr ? entry->h_addr_list : nullptr; address != nullptr && *address != nullptr;
         ++address) {
        addresses.emplace_back(inet_ntoa(*reinterpret_cast<const in_addr*>(*address)));
    }
    return addresses;
}

/// A file that is seen in the place of another one by this process, which has mounts of its own.
bool PutInPlaceOf(const char* path, const std::string& text) {
    std::string name = "/tmp/tarn_test_XXXXXX";
    const int fd = mkstemp(name.data());
    if (fd == -1) {
        return false;
    }
    close(fd);
    std::ofstream(name) << text;
    const bool is_in_place = mount(name.c_str(), path, nullptr, MS_BIND, nullptr) == 0;
    unlink(name.c_str());
    return is_in_place;
}

/// Gives this process a host of its own, of which the hosts file is all that the resolver knows.
///
/// @return false if it may not.
bool BecomeHost(const std::string& name, const std::string& hosts) {
    return unshare(CLONE_NEWUTS | CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           sethostname(name.c_str(), name.size()) == 0 && PutInPlaceOf("/etc/hosts", hosts) &&
           __nss_configure_lookup("hosts", "files") == 0;
}

TEST(CSocketLocalIPs, AreThoseOfTheHostsName) {
    std::array<char, 256> name = {};
    ASSERT_EQ(0, gethostname(name.data(), name.size() - 1));
    const std::vector<std::string> expected = LookUp(name.data());
    const TestEndpoint endpoint(CONNECTION_UDP);
    EXPECT_EQ(expected, AddressesOf(endpoint));
    EXPECT_EQ(expected.empty(), endpoint.m_pLocalIPs == nullptr);
}

TEST(CSocketLocalIPs, AreLoggedInOrder) {
    const LogCapture log;
    const TestEndpoint endpoint(CONNECTION_UDP);
    std::array<char, 256> name = {};
    ASSERT_EQ(0, gethostname(name.data(), name.size() - 1));
    std::vector<std::string> expected = {"CSocket::GetLocalIPs - getting local ip addresses",
                                         std::string("CSocket::GetLocalIPs - ") + name.data()};
    for (const std::string& address : LookUp(name.data())) {
        expected.push_back("CSocket::GetLocalIPs - local ip " + address);
    }
    EXPECT_EQ(expected, log.Messages());
}

TEST(CSocketLocalIPs, AreLookedUpAgainOnRequest) {
    TestEndpoint endpoint(CONNECTION_UDP);
    const std::vector<std::string> before = AddressesOf(endpoint);
    endpoint.GetLocalIPs();
    EXPECT_EQ(before, AddressesOf(endpoint));
}

/// Runs `test` as a host with this name and these addresses; skips where that is not possible.
template <class Test>
void AsHost(const std::string& name, const std::string& hosts, Test test) {
    const Shared<bool> is_host;
    InChild([&] {
        *is_host = BecomeHost(name, hosts);
        if (*is_host) {
            test();
        }
    });
    if (!*is_host) {
        GTEST_SKIP() << "this process cannot have a host name and a hosts file of its own";
    }
}

TEST(CSocketLocalIPs, OfANameThatHasNoneAreNone) {
    AsHost("tarn-test-nowhere", "127.0.0.1 localhost\n", [] {
        const LogCapture log;
        const TestEndpoint endpoint(CONNECTION_UDP);
        EXPECT_EQ(0, endpoint.m_nLocalIPs);
        EXPECT_EQ(nullptr, endpoint.m_pLocalIPs);
        EXPECT_THAT(log.Messages(), ElementsAre("CSocket::GetLocalIPs - getting local ip addresses",
                                                "CSocket::GetLocalIPs - tarn-test-nowhere"));
    });
}

TEST(CSocketLocalIPs, AreFoundHoweverManyThereAre) {
    std::string hosts = "127.0.0.1 localhost\n";
    std::vector<std::string> expected;
    for (int i = 1; i <= 25; ++i) {
        const std::string address = "192.0.2." + std::to_string(i);
        hosts += address + " tarn-test-many\n";
        expected.push_back(address);
    }
    AsHost("tarn-test-many", hosts, [&] {
        // The resolver's own setting, which must not come from this machine's file.
        setenv("RESOLV_MULTI", "on", 1);
        ASSERT_EQ(expected, LookUp("tarn-test-many"));
        const TestEndpoint endpoint(CONNECTION_UDP);
        EXPECT_EQ(expected, AddressesOf(endpoint));
    });
}

TEST(CSocketLocalIPs, StayAsTheyWereWhenTheHostChanges) {
    AsHost("tarn-test-before", "192.0.2.1 tarn-test-before\n192.0.2.2 tarn-test-after\n", [] {
        TestEndpoint endpoint(CONNECTION_UDP);
        const std::string after = "tarn-test-after";
        ASSERT_EQ(0, sethostname(after.c_str(), after.size()));
        EXPECT_THAT(AddressesOf(endpoint), ElementsAre("192.0.2.1"));
        endpoint.GetLocalIPs();
        EXPECT_THAT(AddressesOf(endpoint), ElementsAre("192.0.2.2"));
    });
}

}  // namespace
