// How a record of the kernel's is shown.

#include <TarnSocketIO/ioctl_structs.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tests/support/InterfaceRecords.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::IfReq;
using TarnTest::WithAddress;
using TarnTest::WithFlags;

const std::string flags_of_an_address = "\t\t< DOWN BCAST=1 MCAST=0 RUNNING=0 LOOPBACK=0 >";

std::string TextOf(const ifreq& record) {
    std::ostringstream text;
    text << record;
    return text.str();
}

TEST(IfReqInserter, WritesNameFlagsAndThreeAddressesWithoutALineEnd) {
    EXPECT_EQ(
        "eth0:1" + flags_of_an_address + "\n\t\tADDRESS: 10.1.2.3\n\t\tBROADCAST: 10.1.2.3\n\t\tDESTINATION: 10.1.2.3",
        TextOf(WithAddress("eth0:1", IPAddress(10, 1, 2, 3))));
}

TEST(IfReqInserter, TakesARecordOfTheKernels) {
    ifreq record{};
    std::strcpy(record.ifr_name, "lo");
    record.ifr_addr.sa_family = AF_INET;
    const std::string text = TextOf(record);
    EXPECT_EQ("lo" + flags_of_an_address + "\n\t\tADDRESS: 0.0.0.0\n\t\tBROADCAST: 0.0.0.0\n\t\tDESTINATION: 0.0.0.0",
              text);
}

TEST(IfReqInserter, LeavesTheStreamDecimal) {
    std::ostringstream text;
    text << std::hex << std::showbase;
    EXPECT_EQ(&text, &(text << WithAddress("eth0", IPAddress(192, 168, 1, 254))));
    EXPECT_EQ("eth0" + flags_of_an_address +
                  "\n\t\tADDRESS: 192.168.1.254\n\t\tBROADCAST: 192.168.1.254\n\t\tDESTINATION: 192.168.1.254",
              text.str());
    EXPECT_EQ(std::ios_base::dec, text.flags() & std::ios_base::basefield);
}

TEST(IfReqInserter, ThrowsWhereFlagsAreInTheRecordAndHasWrittenThem) {
    const struct {
        int flags;
        const char* text;
    } cases[] = {
        {0, "DOWN BCAST=0 MCAST=0 RUNNING=0 LOOPBACK=0 >"},    {0x1, "UP BCAST=0 MCAST=0 RUNNING=0 LOOPBACK=0 >"},
        {0x3, "UP BCAST=1 MCAST=0 RUNNING=0 LOOPBACK=0 >"},    {0x1000, "DOWN BCAST=0 MCAST=1 RUNNING=0 LOOPBACK=0 >"},
        {0x40, "DOWN BCAST=0 MCAST=0 RUNNING=1 LOOPBACK=0 >"}, {0x8, "DOWN BCAST=0 MCAST=0 RUNNING=0 LOOPBACK=1 >"},
        {0x49, "UP BCAST=0 MCAST=0 RUNNING=1 LOOPBACK=1 >"},   {0x1043, "UP BCAST=1 MCAST=1 RUNNING=1 LOOPBACK=0 >"},
        {-1, "UP BCAST=1 MCAST=1 RUNNING=1 LOOPBACK=1 >"},
    };
    for (const auto& [flags, expected] : cases) {
        std::ostringstream text;
        EXPECT_THROW(text << WithFlags("lo", flags), std::logic_error);
        EXPECT_EQ(std::string("lo\t\t< ") + expected + "\n\t\tADDRESS: ", text.str());
    }
}

TEST(IfReqInserter, FlagsThatLookLikeTheFamilyShowAsNoAddressAtAll) {
    EXPECT_EQ("wan0" + flags_of_an_address + "\n\t\tADDRESS: 0.0.0.0\n\t\tBROADCAST: 0.0.0.0\n\t\tDESTINATION: 0.0.0.0",
              TextOf(WithFlags("wan0", 2)));
}

TEST(IfReqInserter, ANameWithoutItsEndDoesNotRunIntoTheAddress) {
    IfReq record = WithAddress("", IPAddress(65, 66, 67, 68));
    std::memset(record.ifr_name, 'x', sizeof record.ifr_name);
    const std::string text = TextOf(record);
    EXPECT_EQ(std::string(15, 'x') + "\t\t< DOWN", text.substr(0, 23));
    EXPECT_EQ('x', record.ifr_name[15]) << "the record itself has been changed";
}

}  // namespace
