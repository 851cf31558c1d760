#include <TarnSocketIO/IPv4/IPAddress.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace {

using IPv4::IPAddress;
using Octets = std::array<unsigned char, 4>;

static_assert(sizeof(IPAddress) == 4);
static_assert(std::is_trivially_copyable_v<IPAddress>);
static_assert(std::is_trivially_destructible_v<IPAddress>);
static_assert(std::is_standard_layout_v<IPAddress>);
static_assert(!std::is_polymorphic_v<IPAddress>);
static_assert(std::is_convertible_v<const char*, IPAddress>);
static_assert(std::is_convertible_v<std::string, IPAddress>);
static_assert(std::is_convertible_v<in_addr, IPAddress>);
static_assert(std::is_convertible_v<sockaddr, IPAddress>);
static_assert(std::is_convertible_v<sockaddr_in, IPAddress>);
static_assert(std::is_convertible_v<const IPAddress, in_addr>);
static_assert(std::is_convertible_v<const IPAddress, sockaddr_in>);
static_assert(std::is_same_v<decltype(std::declval<const IPAddress&>().NetworkNumericForm()), unsigned int>);
static_assert(std::is_same_v<decltype(std::declval<IPAddress&>().NetworkNumericForm()), unsigned int&>);
static_assert(std::is_same_v<decltype(std::declval<const IPAddress&>().HostNumericForm()), unsigned int>);
static_assert(std::is_same_v<decltype(std::declval<IPAddress&>().OctetForm()), unsigned char*>);
static_assert(std::is_same_v<decltype(std::declval<IPAddress&>() = 1U), IPAddress&>);
static_assert(std::is_same_v<decltype(std::declval<IPAddress&>() = "0"), IPAddress&>);
static_assert(std::is_same_v<decltype(std::declval<IPAddress&>() = std::string("0")), IPAddress&>);

/// A word whose bytes lie in memory as given.
unsigned int WordOf(const Octets& bytes) {
    unsigned int word = 0;
    static_assert(sizeof word == sizeof bytes);
    std::memcpy(&word, bytes.data(), sizeof word);
    return word;
}

/// The object's own bytes, by none of its operations.
Octets OctetsOf(const IPAddress& ip) {
    Octets bytes{};
    std::memcpy(bytes.data(), &ip, sizeof ip);
    return bytes;
}

Octets Reversed(const Octets& bytes) {
    return {bytes[3], bytes[2], bytes[1], bytes[0]};
}

/// Each octet on its own, the extremes, and bytes that show where they went.
const std::vector<Octets>& SomeOctets() {
    static const std::vector<Octets> octets = {
        {0, 0, 0, 0},   {255, 255, 255, 255}, {1, 0, 0, 0},   {0, 1, 0, 0},   {0, 0, 1, 0},    {0, 0, 0, 1},
        {128, 0, 0, 0}, {0, 128, 0, 0},       {0, 0, 128, 0}, {0, 0, 0, 128}, {1, 2, 3, 4},    {127, 0, 0, 1},
        {10, 20, 0, 3}, {192, 168, 1, 254},   {224, 0, 0, 1}, {1, 2, 2, 1},   {0, 255, 0, 255}};
    return octets;
}

/// A record as the kernel gives it, with a port and dirt in its padding that must not matter.
sockaddr_in RecordOf(const Octets& octets) {
    sockaddr_in record{};
    std::memset(&record, 0xEE, sizeof record);
    record.sin_family = AF_INET;
    record.sin_port = htons(5000);
    std::memcpy(&record.sin_addr, octets.data(), octets.size());
    return record;
}

const sockaddr& AsGeneric(const sockaddr_in& record) {
    return reinterpret_cast<const sockaddr&>(record);
}

// Construction

TEST(IPAddress, IsZeroWhenItIsNew) {
    alignas(IPAddress) std::array<unsigned char, sizeof(IPAddress)> storage{};
    storage.fill(0xEE);
    IPAddress* const ip = new (storage.data()) IPAddress;
    EXPECT_EQ((Octets{0, 0, 0, 0}), OctetsOf(*ip));
    std::destroy_at(ip);
}

TEST(IPAddress, IsMadeFromAWordInEitherOrder) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        EXPECT_EQ(octets, OctetsOf(IPAddress(WordOf(octets), BigEndian)));
        EXPECT_EQ(Reversed(octets), OctetsOf(IPAddress(WordOf(octets), LittleEndian)));
    }
}

TEST(IPAddress, LoopbackIsTheSameFromAWordInEitherOrder) {
    const IPAddress loopback("127.0.0.1");
    EXPECT_EQ(loopback, IPAddress(WordOf({0x7F, 0, 0, 1}), BigEndian));
    EXPECT_EQ(loopback, IPAddress(WordOf({1, 0, 0, 0x7F}), LittleEndian));
    EXPECT_EQ(WordOf({1, 0, 0, 0x7F}), loopback.HostNumericForm());
}

TEST(IPAddress, IsMadeFromFourBytesInEitherOrder) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        EXPECT_EQ(octets, OctetsOf(IPAddress(octets.data(), BigEndian)));
        EXPECT_EQ(Reversed(octets), OctetsOf(IPAddress(octets.data(), LittleEndian)));
    }
}

TEST(IPAddress, IsMadeFromBytesAtAnyPlaceInMemory) {
    const std::vector<unsigned char> bytes = {1, 2, 3, 4, 5, 6, 7};
    for (std::size_t place = 0; place + 4 <= bytes.size(); ++place) {
        SCOPED_TRACE(place);
        const unsigned char* const b = bytes.data() + place;
        EXPECT_EQ((Octets{b[0], b[1], b[2], b[3]}), OctetsOf(IPAddress(b, BigEndian)));
        EXPECT_EQ((Octets{b[3], b[2], b[1], b[0]}), OctetsOf(IPAddress(b, LittleEndian)));
    }
}

TEST(IPAddress, IsMadeFromFourOctetsInDottedOrder) {
    for (const Octets& o : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(o));
        EXPECT_EQ(o, OctetsOf(IPAddress(o[0], o[1], o[2], o[3])));
    }
}

TEST(IPAddress, IsMadeFromText) {
    const char* const text = "10.20.30.40";
    EXPECT_EQ((Octets{10, 20, 30, 40}), OctetsOf(IPAddress(text)));
    EXPECT_EQ((Octets{10, 20, 30, 40}), OctetsOf(IPAddress(std::string(text))));
    const IPAddress implicitly = "1.2.3.4";
    EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(implicitly));
}

TEST(IPAddress, IsMadeFromKernelRecords) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        const sockaddr_in record = RecordOf(octets);
        EXPECT_EQ(octets, OctetsOf(IPAddress(record.sin_addr)));
        EXPECT_EQ(octets, OctetsOf(IPAddress(record)));
        EXPECT_EQ(octets, OctetsOf(IPAddress(AsGeneric(record))));
    }
}

TEST(IPAddress, IsTheWordThatTheCLibraryParses) {
    for (const char* const text :
         {"0.0.0.0", "1.2.3.4", "127.0.0.1", "192.168.0.1", "224.0.0.251", "255.255.255.255"}) {
        SCOPED_TRACE(text);
        in_addr expected{};
        ASSERT_EQ(1, inet_pton(AF_INET, text, &expected));
        EXPECT_EQ(expected.s_addr, IPAddress(text).NetworkNumericForm());
        EXPECT_EQ(expected.s_addr, in_addr(IPAddress(text)).s_addr);
        EXPECT_EQ(IPAddress(text), IPAddress(expected));
    }
}

// A family other than AF_INET in a generic socket address

constexpr sa_family_t wrong_families[] = {AF_UNSPEC, AF_UNIX, 3,      AF_INET6, AF_PACKET,
                                          0x0200,    0x0102,  0x0202, 0xFFFD,   0xFFFF};

sockaddr_in RecordOfFamily(sa_family_t family) {
    sockaddr_in record = RecordOf({1, 2, 3, 4});
    record.sin_family = family;
    return record;
}

TEST(IPAddress, RefusesAGenericSocketAddressOfAnotherFamily) {
    for (const sa_family_t family : wrong_families) {
        SCOPED_TRACE(family);
        const sockaddr_in record = RecordOfFamily(family);
        try {
            const IPAddress ip(AsGeneric(record));
            ADD_FAILURE() << "accepted as " << ip;
        } catch (const std::exception& e) {
            EXPECT_EQ(typeid(std::logic_error), typeid(e));
            EXPECT_STREQ("IPAddress(const struct sockaddr& addr) addr is not IPv4\n", e.what());
        }
    }
}

TEST(IPAddress, StaysAsItWasWhenAGenericSocketAddressIsRefused) {
    IPAddress ip(1, 2, 3, 4);
    for (const sa_family_t family : wrong_families) {
        SCOPED_TRACE(family);
        const sockaddr_in record = RecordOfFamily(family);
        EXPECT_THROW(ip = AsGeneric(record), std::logic_error);
        EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(ip));
    }
}

TEST(IPAddress, LeavesZeroWhereAGenericSocketAddressIsRefused) {
    alignas(IPAddress) std::array<unsigned char, sizeof(IPAddress)> storage{};
    for (const sa_family_t family : wrong_families) {
        SCOPED_TRACE(family);
        storage.fill(0xEE);
        const sockaddr_in record = RecordOfFamily(family);
        EXPECT_THROW(new (storage.data()) IPAddress(AsGeneric(record)), std::logic_error);
        EXPECT_EQ((Octets{0, 0, 0, 0}), storage);
    }
}

// Assignment

TEST(IPAddress, TakesAWordUnchanged) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        IPAddress ip(9, 9, 9, 9);
        EXPECT_EQ(&ip, &(ip = WordOf(octets)));
        EXPECT_EQ(octets, OctetsOf(ip));
    }
}

TEST(IPAddress, TakesText) {
    IPAddress ip(9, 9, 9, 9);
    const char* const text = "10.20.30.40";
    EXPECT_EQ(&ip, &(ip = text));
    EXPECT_EQ((Octets{10, 20, 30, 40}), OctetsOf(ip));
    EXPECT_EQ(&ip, &(ip = std::string("50.60.70.80")));
    EXPECT_EQ((Octets{50, 60, 70, 80}), OctetsOf(ip));
}

TEST(IPAddress, RefusesANullTextAndStaysAsItWas) {
    IPAddress ip(1, 2, 3, 4);
    const char* const nothing = nullptr;
    try {
        ip = nothing;
        ADD_FAILURE() << "accepted as " << ip;
    } catch (const std::exception& e) {
        EXPECT_EQ(typeid(std::logic_error), typeid(e)) << e.what();
    }
    EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(ip));
}

TEST(IPAddress, StaysAsItWasWhenTextIsRefused) {
    for (const char* const text : {"", "00", "1.2.3", "1.2.3.4.5", "9.9.9.256", "9.9.9.9x", "9.9.9.-1", "9.9.9.9 "}) {
        SCOPED_TRACE(text);
        IPAddress ip(1, 2, 3, 4);
        EXPECT_THROW(ip = text, std::runtime_error);
        EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(ip));
        EXPECT_THROW(ip = std::string(text), std::runtime_error);
        EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(ip));
    }
}

TEST(IPAddress, CopyIsAnAddressOfItsOwn) {
    const IPAddress original(1, 2, 3, 4);
    IPAddress copy = original;
    EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(copy));
    copy.SwapByteOrder();
    EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(original));
    copy = original;
    EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(copy));
}

// Set

TEST(IPAddress, SetsFourBytesInEitherOrder) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        IPAddress ip(9, 9, 9, 9);
        ip.Set(octets.data(), BigEndian);
        EXPECT_EQ(octets, OctetsOf(ip));
        ip.Set(octets.data(), LittleEndian);
        EXPECT_EQ(Reversed(octets), OctetsOf(ip));
    }
}

TEST(IPAddress, SetsItsOwnOctets) {
    IPAddress ip(1, 2, 3, 4);
    ip.Set(ip.OctetForm(), BigEndian);
    EXPECT_EQ((Octets{1, 2, 3, 4}), OctetsOf(ip));
    ip.Set(ip.OctetForm(), LittleEndian);
    EXPECT_EQ((Octets{4, 3, 2, 1}), OctetsOf(ip));
}

TEST(IPAddress, SetsFourOctetsInDottedOrder) {
    for (const Octets& o : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(o));
        IPAddress ip(9, 9, 9, 9);
        ip.Set(o[0], o[1], o[2], o[3]);
        EXPECT_EQ(o, OctetsOf(ip));
    }
}

TEST(IPAddress, SetsTheAddressOfAKernelRecord) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        IPAddress ip(9, 9, 9, 9);
        ip.Set(RecordOf(octets));
        EXPECT_EQ(octets, OctetsOf(ip));
    }
}

// Access and conversion

TEST(IPAddress, GivesItsWordInBothOrders) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        const IPAddress ip(octets.data(), BigEndian);
        EXPECT_EQ(WordOf(octets), ip.NetworkNumericForm());
        EXPECT_EQ(WordOf(Reversed(octets)), ip.HostNumericForm());
        EXPECT_EQ(octets, OctetsOf(ip));
    }
}

TEST(IPAddress, WordMayBeChangedInPlace) {
    IPAddress ip(1, 2, 3, 4);
    ip.NetworkNumericForm() = WordOf({5, 6, 7, 8});
    EXPECT_EQ((Octets{5, 6, 7, 8}), OctetsOf(ip));
    EXPECT_EQ(WordOf({5, 6, 7, 8}), ip.NetworkNumericForm());
}

TEST(IPAddress, OctetsAreReadFirstOneFirst) {
    const IPAddress fixed(1, 2, 3, 4);
    IPAddress ip = fixed;
    for (unsigned int i = 0; i < 4; ++i) {
        EXPECT_EQ(i + 1, ip.OctetForm()[i]);
        EXPECT_EQ(i + 1, fixed.OctetForm()[i]);
    }
}

TEST(IPAddress, OctetsMayBeChangedInPlace) {
    for (std::size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        IPAddress ip(1, 2, 3, 4);
        ip.OctetForm()[i] = 200;
        Octets expected = {1, 2, 3, 4};
        expected.at(i) = 200;
        EXPECT_EQ(expected, OctetsOf(ip));
        EXPECT_EQ(WordOf(expected), ip.NetworkNumericForm());
    }
}

TEST(IPAddress, SwapsItsBytesInPlace) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        IPAddress ip(octets.data(), BigEndian);
        ip.SwapByteOrder();
        EXPECT_EQ(Reversed(octets), OctetsOf(ip));
        ip.SwapByteOrder();
        EXPECT_EQ(octets, OctetsOf(ip));
    }
}

TEST(IPAddress, IsGivenToTheKernelAsItsRecords) {
    for (const Octets& octets : SomeOctets()) {
        SCOPED_TRACE(testing::PrintToString(octets));
        const IPAddress ip(octets.data(), BigEndian);
        const in_addr word = ip;
        EXPECT_EQ(WordOf(octets), word.s_addr);

        sockaddr_in expected{};
        std::memset(&expected, 0, sizeof expected);
        expected.sin_family = 2;
        std::memcpy(&expected.sin_addr, octets.data(), octets.size());
        const sockaddr_in record = ip;
        EXPECT_EQ(0, std::memcmp(&expected, &record, sizeof record))
            << "family " << record.sin_family << ", port " << record.sin_port;
        EXPECT_EQ(ip, IPAddress(record));
    }
}

TEST(IPAddress, InvariantHolds) {
    EXPECT_TRUE(IPAddress::class_invariant());
}

// Order and equality

/// Ascending; neighbours differ in each octet in turn, also across the sign bit of an octet and of the word.
const std::vector<IPAddress>& Ascending() {
    static const std::vector<IPAddress> addresses = {
        {0, 0, 0, 0},     {0, 0, 0, 1},       {0, 0, 0, 127},       {0, 0, 0, 128},      {0, 0, 0, 255},
        {0, 0, 1, 0},     {0, 0, 127, 255},   {0, 0, 128, 0},       {0, 0, 255, 255},    {0, 1, 0, 0},
        {0, 127, 0, 255}, {0, 128, 0, 0},     {0, 255, 255, 255},   {1, 0, 0, 0},        {1, 0, 0, 1},
        {10, 0, 0, 1},    {10, 0, 0, 2},      {10, 1, 0, 0},        {127, 0, 0, 1},      {127, 255, 255, 255},
        {128, 0, 0, 0},   {128, 0, 0, 1},     {192, 168, 0, 1},     {192, 168, 1, 0},    {254, 255, 255, 255},
        {255, 0, 0, 0},   {255, 255, 255, 0}, {255, 255, 255, 254}, {255, 255, 255, 255}};
    return addresses;
}

TEST(IPAddress, IsOrderedByItsOctetsFirstOneFirst) {
    const auto& addresses = Ascending();
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        for (std::size_t j = 0; j < addresses.size(); ++j) {
            SCOPED_TRACE(testing::PrintToString(addresses[i]) + " and " + testing::PrintToString(addresses[j]));
            EXPECT_EQ(i < j, addresses[i] < addresses[j]);
        }
    }
}

TEST(IPAddress, IsEqualOnlyToTheSameOctets) {
    const auto& addresses = Ascending();
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        for (std::size_t j = 0; j < addresses.size(); ++j) {
            SCOPED_TRACE(testing::PrintToString(addresses[i]) + " and " + testing::PrintToString(addresses[j]));
            EXPECT_EQ(i == j, addresses[i] == addresses[j]);
            EXPECT_EQ(i != j, addresses[i] != addresses[j]);
        }
    }
}

TEST(IPAddress, IsComparedWithTextAndRecords) {
    EXPECT_TRUE(IPAddress(10, 0, 0, 1) == "10.0.0.1");
    EXPECT_TRUE(IPAddress(10, 0, 0, 1) != std::string("10.0.0.2"));
    EXPECT_TRUE(IPAddress(10, 0, 0, 1) < "10.0.0.2");
    EXPECT_FALSE(IPAddress(10, 0, 0, 2) < RecordOf({10, 0, 0, 1}));
    EXPECT_TRUE(IPAddress(10, 0, 0, 2) == RecordOf({10, 0, 0, 2}).sin_addr);
}

TEST(IPAddress, OrdersAMapKeyedByAddress) {
    const auto& addresses = Ascending();
    std::map<IPAddress, std::size_t> places;
    for (std::size_t i = addresses.size(); i-- > 0;) {
        places[addresses[i]] = i;
    }
    ASSERT_EQ(addresses.size(), places.size());
    std::size_t expected = 0;
    for (const auto& [ip, place] : places) {
        EXPECT_EQ(expected, place) << ip;
        ++expected;
    }
}

}  // namespace
