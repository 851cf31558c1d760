// What the operations on aliases ask of the kernel, in what order, and what they do behind an assertion that has
// failed, where the failure action returns.

#include <TarnSocketIO/IfConfig.h>
#include <gmock/gmock.h>
#include <net/if.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/AliasSteps.h"
#include "tests/support/AliasValues.h"
#include "tests/support/PretendedInterfaces.h"
#include "tests/support/ReturningRun.h"

namespace {

using IPv4::IPAddress;
using TarnSocketIO::ChangeAliasIf;
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
using TarnTest::ReturningRun;
using TarnTest::sd;
using TarnTest::set_says;
using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<PretendedInterfaces::Interface> main_and_alias = {
    {"eth0", IPAddress(192, 0, 2, 1), main_netmask, main_broadcast, IFF_UP | IFF_BROADCAST},
    {"eth0:1", IPAddress(10, 0, 0, 1), IPAddress(255, 0, 0, 0), IPAddress(10, 255, 255, 255),
     IFF_UP | IFF_BROADCAST | IFF_RUNNING},
};

std::vector<std::string> FirstRequests(std::size_t count) {
    return {all_requests.begin(), all_requests.begin() + static_cast<std::ptrdiff_t>(count)};
}

std::string SiteInChange(const std::string& expression, int line) {
    return "ChangeAliasIf::DoIoCtl: " + expression + " (IfConfig.cpp:" + std::to_string(line) + ")";
}

ChangeAliasIf ChangeAll() {
    return {"eth0", "eth0:1", alias_address, from_main, from_main};
}

void ExpectSilence(const std::function<void()>& act) {
    ExpectRun({"", "", {}}, act);
}

// --- changing an alias ---

TEST(ChangeAliasIf, ChangesAndReadsBackInAFixedOrder) {
    ExpectSilence([] {
        const PretendedInterfaces interfaces(main_and_alias);
        ChangeAliasIf change = ChangeAll();
        EXPECT_EQ(0, change.DoIoCtl(sd));
        EXPECT_EQ(all_requests, interfaces.Requests());
        EXPECT_EQ(sd, interfaces.Descriptor());
        EXPECT_EQ(main_netmask, change.m_netmask);
        EXPECT_EQ(main_broadcast, change.m_bcast);
        EXPECT_EQ(alias_address, change.m_alias_ip);
        EXPECT_EQ("eth0", change.m_main_if_name);
        EXPECT_EQ("eth0:1", change.m_alias_if_name);
    });
}

TEST(ChangeAliasIf, GivenValuesAreNotReadFromTheMainInterface) {
    ExpectSilence([] {
        const PretendedInterfaces interfaces(main_and_alias);
        ChangeAliasIf change("eth0", "eth0:1", alias_address, IPAddress(255, 240, 0, 0), IPAddress(192, 15, 255, 255));
        EXPECT_EQ(0, change.DoIoCtl(sd));
        EXPECT_THAT(
            interfaces.Requests(),
            ElementsAre("SIOCSIFADDR eth0:1 192.0.2.7", "SIOCSIFNETMASK eth0:1 255.240.0.0", "SIOCGIFNETMASK eth0:1",
                        "SIOCSIFBRDADDR eth0:1 192.15.255.255", "SIOCGIFBRDADDR eth0:1"));
        EXPECT_EQ(IPAddress(255, 240, 0, 0), change.m_netmask);
        EXPECT_EQ(IPAddress(192, 15, 255, 255), change.m_bcast);
    });
}

TEST(ChangeAliasIf, LeavesAloneWhatIsAbsent) {
    ExpectSilence([] {
        const PretendedInterfaces interfaces(main_and_alias);
        EXPECT_EQ(0, ChangeAliasIf("eth0", "eth0:1", none, none, none).DoIoCtl(sd));
        EXPECT_EQ(0, ChangeAliasIf("eth0", "eth0:1", none, none, none).DoIoCtl(-1));
        EXPECT_THAT(interfaces.Requests(), IsEmpty());
    });
    ExpectSilence([] {
        const PretendedInterfaces interfaces(main_and_alias);
        ChangeAliasIf change("eth0", "eth0:1", alias_address, none, none);
        EXPECT_EQ(0, change.DoIoCtl(sd));
        EXPECT_EQ(FirstRequests(1), interfaces.Requests());
        EXPECT_EQ(none, change.m_netmask);
        EXPECT_EQ(none, change.m_bcast);
    });
    ExpectSilence([] {
        const PretendedInterfaces interfaces(main_and_alias);
        EXPECT_EQ(0, ChangeAliasIf("eth0", "eth0:1", none, main_netmask, none).DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(), ElementsAre(all_requests[2], all_requests[3]));
    });
    ExpectSilence([] {
        const PretendedInterfaces interfaces(main_and_alias);
        EXPECT_EQ(0, ChangeAliasIf("eth0", "eth0:1", none, none, from_main).DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(), ElementsAre(all_requests[4], all_requests[5], all_requests[6]));
    });
}

// For the address it stands for nothing but itself.
TEST(ChangeAliasIf, TheMarkOfTheMainInterfaceIsAnAddressLikeAnyOther) {
    ExpectSilence([] {
        const PretendedInterfaces interfaces(main_and_alias);
        EXPECT_EQ(0, ChangeAliasIf("eth0", "eth0:1", from_main, none, none).DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(), ElementsAre("SIOCSIFADDR eth0:1 1.0.0.0"));
    });
}

TEST(ChangeAliasIfThatReturns, EndsWithTheStepThatIsRefused) {
    std::vector<AliasStep> steps = {{1, set_says, "ioctl - Could not set a alias interface ip address", 166,
                                     "\n m_alias_if_name: eth0:1\n m_alias_ip: 192.0.2.7", from_main, from_main}};
    steps.insert(steps.end(), copying_steps.begin(), copying_steps.end());
    for (const AliasStep& step : steps) {
        SCOPED_TRACE(step.says);
        for (const int error : {EPERM, EADDRNOTAVAIL}) {
            const ReturningRun run = {
                step.output, Errors(error, step.says) + step.values, {refused, SiteInChange("!err", step.line)}};
            ExpectRun(run, [&] {
                PretendedInterfaces interfaces(main_and_alias);
                interfaces.Refuse(static_cast<int>(step.number), error);
                ChangeAliasIf change = ChangeAll();
                EXPECT_EQ(error, change.DoIoCtl(sd));
                EXPECT_EQ(FirstRequests(step.number), interfaces.Requests());
                EXPECT_EQ(step.netmask, change.m_netmask);
                EXPECT_EQ(step.broadcast, change.m_bcast);
            });
        }
    }
}

const std::string netmask_read_back = "ioctl - To get the alias netmask for interface";
const std::string broadcast_read_back = "ioctl - To get the alias bcast for interface";
const std::string netmask_differs = SiteInChange("m_netmask == alias_netmask", 210);
const std::string broadcast_differs = SiteInChange("m_bcast == alias_bcast", 263);

TEST(ChangeAliasIfThatReturns, ANetmaskThatCannotBeReadBackIsComparedAllTheSame) {
    const std::string values = "\n m_netmask: 255.255.255.0\n alias_netmask: 0.0.0.0";
    const ReturningRun run = {
        get_says, Errors(EPERM, netmask_read_back) + values, {refused, SiteInChange("!err", 208), netmask_differs}};
    ExpectRun(run, [] {
        PretendedInterfaces interfaces(main_and_alias);
        interfaces.Refuse(4, EPERM);
        ChangeAliasIf change = ChangeAll();
        EXPECT_EQ(0, change.DoIoCtl(sd)) << "as the steps after it end";
        EXPECT_EQ(all_requests, interfaces.Requests());
        EXPECT_EQ(main_netmask, change.m_netmask);
        EXPECT_EQ(main_broadcast, change.m_bcast);
    });
    ExpectRun(run, [] {
        PretendedInterfaces interfaces(main_and_alias);
        interfaces.Refuse(2, EPERM);
        EXPECT_EQ(EPERM, ChangeAliasIf("eth0", "eth0:1", none, main_netmask, none).DoIoCtl(sd));
        EXPECT_THAT(interfaces.Requests(), ElementsAre(all_requests[2], all_requests[3]));
    });
}

TEST(ChangeAliasIfThatReturns, ABroadcastAddressThatCannotBeReadBackIsComparedAllTheSame) {
    const std::string values = "\n m_bcast: 192.0.2.255\n alias_bcast: 0.0.0.0";
    const ReturningRun run = {get_says,
                              Errors(ENODEV, broadcast_read_back) + values,
                              {refused, SiteInChange("!err", 261), broadcast_differs}};
    ExpectRun(run, [] {
        PretendedInterfaces interfaces(main_and_alias);
        interfaces.Refuse(7, ENODEV);
        ChangeAliasIf change = ChangeAll();
        EXPECT_EQ(ENODEV, change.DoIoCtl(sd));
        EXPECT_EQ(all_requests, interfaces.Requests());
        EXPECT_EQ(main_broadcast, change.m_bcast);
    });
}

TEST(ChangeAliasIfThatReturns, NeitherCanBeReadBack) {
    const std::string errors = Errors(EPERM, netmask_read_back) +
                               "\n m_netmask: 255.255.255.0\n alias_netmask: 0.0.0.0" +
                               Errors(EIO, broadcast_read_back) + "\n m_bcast: 192.0.2.255\n alias_bcast: 0.0.0.0";
    ExpectRun(
        {get_says + get_says,
         errors,
         {refused, SiteInChange("!err", 208), netmask_differs, refused, SiteInChange("!err", 261), broadcast_differs}},
        [] {
            PretendedInterfaces interfaces(main_and_alias);
            interfaces.Refuse(4, EPERM);
            interfaces.Refuse(7, EIO);
            EXPECT_EQ(EIO, ChangeAll().DoIoCtl(sd));
        });
}

TEST(ChangeAliasIfThatReturns, ValuesThatReadBackOtherwiseAreToldAndKept) {
    const std::string errors =
        "\n m_netmask: 255.255.255.0\n alias_netmask: 255.0.0.0"
        "\n m_bcast: 192.0.2.255\n alias_bcast: 10.0.0.255";
    ExpectRun({"", errors, {netmask_differs, broadcast_differs}}, [] {
        PretendedInterfaces interfaces(main_and_alias);
        interfaces.Falsify(4, IPAddress(255, 0, 0, 0));
        interfaces.Falsify(7, IPAddress(10, 0, 0, 255));
        ChangeAliasIf change = ChangeAll();
        EXPECT_EQ(0, change.DoIoCtl(sd));
        EXPECT_EQ(all_requests, interfaces.Requests());
        EXPECT_EQ(main_netmask, change.m_netmask);
        EXPECT_EQ(main_broadcast, change.m_bcast);
    });
}

// An interface without a name is pretended here, so that every step is reached.
TEST(ChangeAliasIfThatReturns, EveryStepAssertsItsName) {
    const std::string no_main = "!m_main_if_name.empty()";
    const std::string no_alias = "!m_alias_if_name.empty()";
    ExpectRun({"", "", {SiteInChange(no_main, 153), SiteInChange(no_main, 177), SiteInChange(no_main, 229)}}, [] {
        PretendedInterfaces interfaces({{"", none, main_netmask, main_broadcast, IFF_UP}, main_and_alias[1]});
        ChangeAliasIf change = ChangeAll();
        change.m_main_if_name.clear();
        EXPECT_EQ(0, change.DoIoCtl(sd));
        EXPECT_EQ(all_requests.size(), interfaces.Requests().size());
    });
    ExpectRun({"",
               "",
               {SiteInChange(no_alias, 154), SiteInChange(no_alias, 189), SiteInChange(no_alias, 202),
                SiteInChange(no_alias, 242), SiteInChange(no_alias, 255)}},
              [] {
                  PretendedInterfaces interfaces({main_and_alias[0], {"", none, none, none, IFF_UP}});
                  ChangeAliasIf change = ChangeAll();
                  change.m_alias_if_name.clear();
                  EXPECT_EQ(0, change.DoIoCtl(sd));
                  EXPECT_EQ(all_requests.size(), interfaces.Requests().size());
              });
}

TEST(ChangeAliasIfThatReturns, HasNoNameWhereNoneIsGiven) {
    const std::vector<std::string> sites = {"ChangeAliasIf::ChangeAliasIf: !m_main_if_name.empty() (IfConfig.h:336)",
                                            "ChangeAliasIf::ChangeAliasIf: !m_alias_if_name.empty() (IfConfig.h:337)"};
    for (const char* const name : {static_cast<const char*>(nullptr), ""}) {
        ExpectRun({"", "", sites}, [name] {
            const ChangeAliasIf change(name, name, alias_address, main_netmask, main_broadcast);
            EXPECT_EQ("", change.m_main_if_name);
            EXPECT_EQ("", change.m_alias_if_name);
            EXPECT_EQ(alias_address, change.m_alias_ip);
            EXPECT_EQ(main_netmask, change.m_netmask);
            EXPECT_EQ(main_broadcast, change.m_bcast);
        });
    }
}

}  // namespace
