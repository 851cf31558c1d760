// What is asked of the kernel to add an alias and to take it away, and what is done behind an assertion that has
// failed, where the failure action returns.

#include <TarnSocketIO/IfConfig.h>
#include <gmock/gmock.h>
#include <net/if.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/AliasSteps.h"
#include "tests/support/AliasValues.h"
#include "tests/support/PretendedInterfaces.h"
#include "tests/support/ReturningRun.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::AddAliasIf;
using TarnSocketIO::DelAliasIf;
using TarnTest::alias_address;
using TarnTest::AliasStep;
using TarnTest::all_requests;
using TarnTest::copying_steps;
using TarnTest::Errors;
using TarnTest::ExpectRun;
using TarnTest::from_main;
using TarnTest::get_says;
using TarnTest::main_broadcast;
using TarnTest::main_netmask;
using TarnTest::none;
using TarnTest::PretendedInterfaces;
using TarnTest::refused;
using TarnTest::sd;
using TarnTest::set_says;
using testing::ElementsAre;
using testing::IsEmpty;

const PretendedInterfaces::Interface main_interface = {"eth0", IPAddress(192, 0, 2, 1), main_netmask, main_broadcast,
                                                       IFF_UP | IFF_BROADCAST};
const PretendedInterfaces::Interface alias = {"eth0:1", alias_address, main_netmask, main_broadcast,
                                              IFF_UP | IFF_BROADCAST | IFF_RUNNING};

const std::string cannot_add = "AddAliasIf::DoIoCtl: !err (IfConfig.cpp:119)";

std::string CannotAddValues(const std::string& name) {
    return "\n m_alias_if_name: " + name + "\n m_alias_ip: 192.0.2.7";
}

constexpr const char* cannot_add_says = "ioctl - Could not set an alias interface";

// --- adding an alias ---

TEST(AddAliasIf, StartsWithWhatItIsGivenAndNoResults) {
    for (const bool copies : {true, false}) {
        const AddAliasIf add("eth0", "eth0:1", alias_address, copies);
        EXPECT_EQ("eth0", add.m_main_if_name);
        EXPECT_EQ("eth0:1", add.m_alias_if_name);
        EXPECT_EQ(alias_address, add.m_alias_ip);
        EXPECT_EQ(none, add.m_netmask);
        EXPECT_EQ(none, add.m_bcast);
        EXPECT_EQ(copies, add.m_copy_main_settings);
    }
}

TEST(AddAliasIf, CopiesTheSettingsOfTheMainInterface) {
    ExpectRun({"", "", {}}, [] {
        const PretendedInterfaces interfaces({main_interface});
        AddAliasIf add("eth0", "eth0:1", alias_address, true);
        EXPECT_EQ(0, add.DoIoCtl(sd));
        EXPECT_EQ(all_requests, interfaces.Requests());
        EXPECT_EQ(sd, interfaces.Descriptor());
        EXPECT_EQ(main_netmask, add.m_netmask);
        EXPECT_EQ(main_broadcast, add.m_bcast);
        EXPECT_EQ(alias_address, interfaces.Find("eth0:1").address);
        EXPECT_EQ(main_netmask, interfaces.Find("eth0:1").netmask);
        EXPECT_EQ(main_broadcast, interfaces.Find("eth0:1").broadcast);
    });
}

TEST(AddAliasIf, WithoutACopyThereIsTheAddressAlone) {
    ExpectRun({"", "", {}}, [] {
        const PretendedInterfaces interfaces({main_interface});
        AddAliasIf add("eth0", "eth0:1", alias_address, false);
        add.m_netmask = main_netmask;  // as from an earlier run
        add.m_bcast = main_broadcast;
        EXPECT_EQ(0, add.DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(), ElementsAre(all_requests[0]));
        EXPECT_EQ(none, add.m_netmask);
        EXPECT_EQ(none, add.m_bcast);
        EXPECT_EQ(IPAddress(255, 0, 0, 0), interfaces.Find("eth0:1").netmask) << "what the kernel makes of it";
    });
}

TEST(AddAliasIfThatReturns, ARefusedAliasIsToldAndNothingIsCopied) {
    for (const bool copies : {true, false}) {
        ExpectRun({set_says, Errors(EPERM, cannot_add_says) + CannotAddValues("eth0:1"), {refused, cannot_add}},
                  [copies] {
                      PretendedInterfaces interfaces({main_interface});
                      interfaces.Refuse(1, EPERM);
                      AddAliasIf add("eth0", "eth0:1", alias_address, copies);
                      EXPECT_EQ(EPERM, add.DoIoCtl(sd));
                      EXPECT_THAT(interfaces.Requests(), ElementsAre(all_requests[0]));
                      EXPECT_EQ(none, add.m_netmask);
                      EXPECT_EQ(none, add.m_bcast);
                  });
    }
}

TEST(AddAliasIfThatReturns, AFailedCopyLeavesTheAliasAndWhatHasBeenCopied) {
    for (const AliasStep& step : copying_steps) {
        SCOPED_TRACE(step.says);
        const std::string site = "ChangeAliasIf::DoIoCtl: !err (IfConfig.cpp:" + std::to_string(step.line) + ")";
        ExpectRun({step.output, Errors(EACCES, step.says) + step.values, {refused, site}}, [&] {
            PretendedInterfaces interfaces({main_interface});
            interfaces.Refuse(static_cast<int>(step.number), EACCES);
            AddAliasIf add("eth0", "eth0:1", alias_address, true);
            EXPECT_EQ(EACCES, add.DoIoCtl(sd));
            EXPECT_EQ(step.number, interfaces.Requests().size());
            EXPECT_EQ(step.netmask, add.m_netmask);
            EXPECT_EQ(step.broadcast, add.m_bcast);
            EXPECT_EQ(alias_address, interfaces.Find("eth0:1").address);
        });
    }
}

TEST(AddAliasIfThatReturns, ANegativeDescriptorIsAFailedAssertionOfEachPart) {
    ExpectRun({set_says,
               Errors(EBADF, cannot_add_says) + CannotAddValues("eth0:1"),
               {"AddAliasIf::DoIoCtl: sd >= 0 (IfConfig.cpp:110)", "SetIoCltIf::DoIoCtl: sd >= 0 (IfConfig.h:392)",
                "IfReq::DoIoCtl: sd >= 0 (ioctl_structs.cpp:62)", refused, cannot_add}},
              [] {
                  AddAliasIf add("eth0", "eth0:1", alias_address, true);
                  EXPECT_EQ(EBADF, add.DoIoCtl(-1));
              });
}

TEST(AddAliasIfThatReturns, NamesThatAreMissingAreFailedAssertions) {
    const std::string no_main = "AddAliasIf::DoIoCtl: !m_main_if_name.empty() (IfConfig.cpp:111)";
    const std::string no_alias = "AddAliasIf::DoIoCtl: !m_alias_if_name.empty() (IfConfig.cpp:112)";
    for (const char* const name : {static_cast<const char*>(nullptr), ""}) {
        ExpectRun(
            {set_says, Errors(ENODEV, cannot_add_says) + CannotAddValues(""), {no_main, no_alias, refused, cannot_add}},
            [name] {
                const PretendedInterfaces interfaces({main_interface});
                AddAliasIf add(name, name, alias_address, true);
                EXPECT_EQ(ENODEV, add.DoIoCtl(sd));
                EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCSIFADDR  192.0.2.7"));
            });
    }
    ExpectRun({"",
               "",
               {no_main, "ChangeAliasIf::ChangeAliasIf: !m_main_if_name.empty() (IfConfig.h:336)",
                "ChangeAliasIf::DoIoCtl: !m_main_if_name.empty() (IfConfig.cpp:153)"}},
              [] {
                  const PretendedInterfaces interfaces({main_interface});
                  AddAliasIf add("", "eth0:1", alias_address, false);
                  EXPECT_EQ(0, add.DoIoCtl(sd));
                  EXPECT_THAT(interfaces.Requests(), ElementsAre(all_requests[0]));
              });
}

// --- taking an alias away ---

TEST(DelAliasIf, ClearsTheFlagThatTheAliasIsUpAndNoOther) {
    ExpectRun({"", "", {}}, [] {
        const PretendedInterfaces interfaces({main_interface, alias});
        DelAliasIf del("eth0", "eth0:1");
        EXPECT_EQ(0, del.DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCGIFFLAGS eth0:1", "SIOCSIFFLAGS eth0:1 0x42"));
        EXPECT_EQ(sd, interfaces.Descriptor());
        EXPECT_ANY_THROW(interfaces.Find("eth0:1"));
        EXPECT_EQ(main_interface.flags, interfaces.Find("eth0").flags);
    });
}

TEST(DelAliasIf, ANameThatIsNotOfAnAliasIsRefusedWithoutARequest) {
    const struct {
        const char* main;
        const char* alias;
    } cases[] = {
        {"eth0", "eth0"},
        {"eth0", ""},
        {"eth0", nullptr},
        {"eth0", "eth01"},
        {"eth0", "eth1:1"},
        {"eth0", "1:eth0:1"},
        {"eth0", ":1"},
        {"eth", "eth0:1"},
        {"eth0:", "eth0:1"},
        {"", "eth0:1"},
        {"", ":1"},
        {"", ""},
        {nullptr, "eth0:1"},
        {nullptr, ":1"},
        {nullptr, nullptr},
        // The record would have fifteen characters of these, which is the main interface's name.
        {"abcdefghijklmno", "abcdefghijklmno:1"},
        {"abcdefghijklmno", "abcdefghijklmno:"},
        {"eth0", "eth0:0123456789a"},
        {"eth0", "eth0:0123456789abcdefghijklmnopqrstuvwxyz"},
    };
    ExpectRun({"", "", {}}, [&] {
        PretendedInterfaces::Interface long_named = main_interface;
        long_named.name = "abcdefghijklmno";
        const PretendedInterfaces interfaces({main_interface, long_named, alias});
        for (const auto& [main, name] : cases) {
            SCOPED_TRACE(name != nullptr ? name : "null");
            DelAliasIf del(main, name);
            EXPECT_EQ(EINVAL, del.DoIoCtl(sd));
            EXPECT_EQ(EINVAL, del.DoIoCtl(-1));
        }
        EXPECT_THAT(interfaces.Requests(), IsEmpty());
        EXPECT_EQ(main_interface.flags, interfaces.Find("eth0").flags);
        EXPECT_EQ(alias.flags, interfaces.Find("eth0:1").flags);
    });
}

TEST(AddAliasIf, AsksForNothingWhereTheKernelWouldNotSeeTheLabel) {
    for (const char* const name : {"abcdefghijklmno:1", "abcdefghijklmnopq:1", "abcdefghijklmno:"}) {
        ExpectRun({"", "", {}}, [name] {
            PretendedInterfaces::Interface long_named = main_interface;
            long_named.name = "abcdefghijklmno";
            const PretendedInterfaces interfaces({long_named});
            AddAliasIf add(long_named.name.c_str(), name, alias_address, true);
            EXPECT_EQ(EINVAL, add.DoIoCtl(sd));
            TarnSocketIO::ChangeAliasIf change(long_named.name.c_str(), name, alias_address, from_main, from_main);
            EXPECT_EQ(EINVAL, change.DoIoCtl(sd));
            EXPECT_THAT(interfaces.Requests(), IsEmpty());
        });
    }
}

TEST(AddAliasIf, ALongLabelIsCut) {
    ExpectRun({"", "", {}}, [] {
        const PretendedInterfaces interfaces({main_interface});
        AddAliasIf add("eth0", "eth0:0123456789abc", alias_address, false);
        EXPECT_EQ(0, add.DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCSIFADDR eth0:0123456789 192.0.2.7"));
    });
}

TEST(DelAliasIf, ANameThatEndsBeforeItsLabelIsRefusedToo) {
    ExpectRun({"", "", {}}, [] {
        const PretendedInterfaces interfaces({main_interface, alias});
        DelAliasIf del("eth0", "eth0:1");
        // For the kernel a name ends here.
        del.m_main_if_name = std::string("eth0\0x", 6);
        del.m_alias_if_name = del.m_main_if_name + ":1";
        EXPECT_EQ(EINVAL, del.DoIoCtl(sd));
        EXPECT_EQ(main_interface.flags, interfaces.Find("eth0").flags) << "the physical interface is switched off";
    });
}

TEST(DelAliasIf, ANameOfFifteenCharactersIsAnAlias) {
    ExpectRun({"", "", {}}, [] {
        PretendedInterfaces::Interface longest = alias;
        longest.name = "eth0:0123456789";
        const PretendedInterfaces interfaces({main_interface, longest});
        DelAliasIf del("eth0", "eth0:0123456789");
        EXPECT_EQ(0, del.DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(),
                    ElementsAre("SIOCGIFFLAGS eth0:0123456789", "SIOCSIFFLAGS eth0:0123456789 0x42"));
    });
}

TEST(DelAliasIfThatReturns, TheFirstRefusedRequestIsTheLast) {
    ExpectRun({get_says, Errors(ENODEV), {refused}}, [] {
        const PretendedInterfaces interfaces({main_interface});
        DelAliasIf del("eth0", "eth0:1");
        EXPECT_EQ(ENODEV, del.DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCGIFFLAGS eth0:1"));
    });
    ExpectRun({get_says, Errors(EPERM), {refused}}, [] {
        PretendedInterfaces interfaces({main_interface, alias});
        interfaces.Refuse(2, EPERM);
        DelAliasIf del("eth0", "eth0:1");
        EXPECT_EQ(EPERM, del.DoIoCtl(sd));
        EXPECT_EQ(alias.flags, interfaces.Find("eth0:1").flags);
    });
}

TEST(DelAliasIf, HasNothingToCheck) {
    const DelAliasIf del(nullptr, nullptr);
    del.invariant();
    EXPECT_EQ("", del.m_main_if_name);
    EXPECT_EQ("", del.m_alias_if_name);
}

}  // namespace
