// Groups that an endpoint joins and leaves.

#include <TarnSocketIO/CSocket.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/Datagrams.h"
#include "tests/support/NetworkTest.h"
#include "tests/support/Resources.h"
#include "tests/support/TestEndpoint.h"

using TarnSocketIO::CONNECTION_UDP;
using TarnTest::LinesOf;
using TarnTest::OutputOf;
using TarnTest::SendDatagram;
using TarnTest::TestEndpoint;
using TarnTest::WiredHosts;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

namespace {

using CSocketMulticast = TarnTest::NetworkTest;

constexpr const char* group = "239.192.1.2";  // reads differently backwards
constexpr const char* other = "239.193.3.4";
constexpr const char* third = "239.194.5.6";
constexpr const char* all_systems = "224.0.0.1";

constexpr const char* added_line = "CSocket::AddToGroup - added group to vector";
constexpr const char* joined_line = "CSocket::AddToGroup - join multicast group - succeeded";
constexpr const char* not_joined_line = "CSocket::AddToGroup - join multicast group - failed";
constexpr const char* removed_line = "CSocket::DropGroup - removing group from vector";

std::string CallLine(const TestEndpoint& endpoint, const std::string& text) {
    return "AddToGroup m_socReceiver " + std::to_string(endpoint.m_socReceiver) + " szMTPGroup " + text;
}

std::string DropLine(const std::string& text) {
    return "CSocket::DropGroup - dropping " + text;
}

/// With a receiver and no threads.
class Member : public TestEndpoint {
public:
    explicit Member(const char* start_group = nullptr, const char* local = nullptr) : TestEndpoint(CONNECTION_UDP) {
        InitialiseLocalSockets(0, start_group, local, 0);
    }
    ~Member() override { TerminateAll(); }

    bool Join(const char* text) {
        bool joined = false;
        OutputOf([&] { joined = AddToGroup(text); });
        return joined;
    }
};

}  // namespace

// ---- the group of the start

TEST_F(CSocketMulticast, TheGroupOfTheStartIsJoinedAndRemembered) {
    const WiredHosts net;
    Member member(group);
    EXPECT_THAT(member.m_Groups, ElementsAre(group));
    EXPECT_THAT(net.GroupsOf("wire0"), Contains(group));
    const std::string receiver = std::to_string(member.m_socReceiver);
    EXPECT_THAT(LinesOf([&] { ASSERT_TRUE(member.RepairReceiverSocket()); }),
                ElementsAre(DropLine(group), "initialised receiver: m_socReceiver " + receiver,
                            "CSocket::InitialiseReceiver - creating receiver socket " + receiver + ", port 0 if ",
                            "CSocket::InitialiseReceiver - join multicast group 239.192.1.2, local if ",
                            "CSocket::InitialiseReceiver - using specified interface? No",
                            "CSocket::InitialiseReceiver - join multicast group - succeeded"));
}

TEST_F(CSocketMulticast, TheGroupOfTheStartIsJoinedOnTheLocalInterface) {
    const WiredHosts net(2);
    Member member;
    const std::vector<std::string> lines = LinesOf([&] { member.InitialiseLocalSockets(0, group, "198.51.100.1", 0); });
    EXPECT_THAT(lines,
                IsSupersetOf({"CSocket::InitialiseReceiver - join multicast group 239.192.1.2, local if 198.51.100.1",
                              "CSocket::InitialiseReceiver - using specified interface? Yes",
                              "CSocket::InitialiseReceiver - join multicast group - succeeded"}));
    EXPECT_THAT(net.GroupsOf("wire0"), ElementsAre(all_systems));
    EXPECT_THAT(net.GroupsOf("wire1"), Contains(group));
}

TEST_F(CSocketMulticast, AStartGroupThatIsNoneIsNotRemembered) {
    const WiredHosts net;
    for (const char* const text : {"192.0.2.7", "no group", "255.255.255.255"}) {
        SCOPED_TRACE(text);
        Member member;
        EXPECT_THAT(LinesOf([&] { EXPECT_TRUE(member.InitialiseLocalSockets(0, text, nullptr, 0)); }),
                    Contains("CSocket::InitialiseReceiver - join multicast group - failed"));
        EXPECT_THAT(member.m_Groups, IsEmpty());
        EXPECT_THAT(net.GroupsOf("wire0"), ElementsAre(all_systems));
    }
}

TEST_F(CSocketMulticast, WithoutAGroupNoneIsJoined) {
    const WiredHosts net;
    Member member;
    EXPECT_THAT(LinesOf([&] { EXPECT_TRUE(member.RepairReceiverSocket()); }), Each(Not(HasSubstr("multicast"))));
    EXPECT_THAT(member.m_Groups, IsEmpty());
    EXPECT_THAT(net.GroupsOf("wire0"), ElementsAre(all_systems));
}

// ---- joining

TEST_F(CSocketMulticast, AGroupIsJoinedAndRememberedInOrder) {
    const WiredHosts net;
    Member member(group);
    EXPECT_THAT(LinesOf([&] { EXPECT_TRUE(member.AddToGroup(third)); }),
                ElementsAre(CallLine(member, third), added_line, joined_line));
    EXPECT_TRUE(member.Join(other));
    EXPECT_THAT(member.m_Groups, ElementsAre(group, third, other));
    EXPECT_THAT(net.GroupsOf("wire0"), IsSupersetOf({group, other, third}));

    net.InPeer([&] { SendDatagram(member.ReceiverPort(), "to the third", third); });
    ASSERT_TRUE(TarnTest::IsReadable(member.m_socReceiver));
    member.DataReceiver(0);
    EXPECT_THAT(member.Received(), ElementsAre("to the third"));
}

TEST_F(CSocketMulticast, WithoutAReceiverNothingIsJoined) {
    const WiredHosts net;
    TestEndpoint endpoint(CONNECTION_UDP);
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(endpoint.AddToGroup(group)); }),
                ElementsAre("AddToGroup m_socReceiver 0 szMTPGroup 239.192.1.2"));
    EXPECT_THAT(endpoint.m_Groups, IsEmpty());
}

TEST_F(CSocketMulticast, ANullTextIsNotJoined) {
    const WiredHosts net;
    Member member;
    const std::vector<std::string> lines = LinesOf([&] { EXPECT_FALSE(member.AddToGroup(nullptr)); });
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find(CallLine(member, ""))) << lines[0];
    EXPECT_THAT(member.m_Groups, IsEmpty());
}

TEST_F(CSocketMulticast, AGroupIsJoinedOnce) {
    const WiredHosts net;
    Member member;
    ASSERT_TRUE(member.Join(group));
    EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(member.AddToGroup(group)); }),
                ElementsAre(CallLine(member, group), not_joined_line));
    EXPECT_THAT(member.m_Groups, ElementsAre(group));
    EXPECT_THAT(net.GroupsOf("wire0"), Contains(group));
}

TEST_F(CSocketMulticast, WhatIsNoGroupIsNotJoined) {
    const WiredHosts net;
    Member member;
    for (const char* const text : {"", "192.0.2.1", "no group", "%s%n"}) {
        SCOPED_TRACE(text);
        EXPECT_THAT(LinesOf([&] { EXPECT_FALSE(member.AddToGroup(text)); }),
                    ElementsAre(CallLine(member, text), not_joined_line));
    }
    EXPECT_THAT(member.m_Groups, IsEmpty());
}

TEST_F(CSocketMulticast, TheLocalInterfaceChoosesTheWireOfAGroup) {
    const WiredHosts net(2);
    Member member(nullptr, "198.51.100.1");
    ASSERT_TRUE(member.Join(group));
    EXPECT_THAT(net.GroupsOf("wire0"), ElementsAre(all_systems));
    EXPECT_THAT(net.GroupsOf("wire1"), Contains(group));
    member.DropGroup(group, true);
    EXPECT_THAT(net.GroupsOf("wire1"), ElementsAre(all_systems));
}

// ---- leaving

TEST_F(CSocketMulticast, AGroupIsLeftAndForgotten) {
    const WiredHosts net;
    Member member(group);
    ASSERT_TRUE(member.Join(other));
    EXPECT_THAT(LinesOf([&] { member.DropGroup(group, true); }), ElementsAre(DropLine(group), removed_line));
    EXPECT_THAT(member.m_Groups, ElementsAre(other));
    EXPECT_THAT(net.GroupsOf("wire0"), AllOf(Contains(other), Not(Contains(group))));
    EXPECT_TRUE(member.Join(group)) << "not left";
    EXPECT_THAT(member.m_Groups, ElementsAre(other, group));
}

TEST_F(CSocketMulticast, AGroupIsLeftAndNotForgotten) {
    const WiredHosts net;
    Member member(group);
    EXPECT_THAT(LinesOf([&] { member.DropGroup(group, false); }), ElementsAre(DropLine(group)));
    EXPECT_THAT(member.m_Groups, ElementsAre(group));
    EXPECT_THAT(net.GroupsOf("wire0"), ElementsAre(all_systems));
    // Once more in the list, now that it can be joined again: the first entry goes.
    ASSERT_TRUE(member.Join(other));
    ASSERT_TRUE(member.Join(group));
    ASSERT_THAT(member.m_Groups, ElementsAre(group, other, group));
    member.DropGroup(group, true);
    EXPECT_THAT(member.m_Groups, ElementsAre(other, group));
}

TEST_F(CSocketMulticast, AGroupThatWasNotJoinedIsLeftWithoutTrouble) {
    const WiredHosts net;
    Member member(group);
    EXPECT_THAT(LinesOf([&] { member.DropGroup(other, true); }), ElementsAre(DropLine(other)));
    EXPECT_EQ(1u, LinesOf([&] { member.DropGroup(nullptr, true); }).size());
    EXPECT_THAT(member.m_Groups, ElementsAre(group));
    EXPECT_THAT(net.GroupsOf("wire0"), Contains(group));
}

TEST_F(CSocketMulticast, AllGroupsAreLeftInOrderAndForgotten) {
    const WiredHosts net;
    Member member(group);
    ASSERT_TRUE(member.Join(third));
    ASSERT_TRUE(member.Join(other));
    EXPECT_THAT(LinesOf([&] { member.DropAllGroups(); }),
                ElementsAre(DropLine(group), DropLine(third), DropLine(other)));
    EXPECT_THAT(member.m_Groups, IsEmpty());
    EXPECT_THAT(net.GroupsOf("wire0"), ElementsAre(all_systems));
    EXPECT_THAT(LinesOf([&] { member.DropAllGroups(); }), IsEmpty());
    EXPECT_THAT(member.m_Groups, IsEmpty());
}

TEST_F(CSocketMulticast, TheEndLeavesAllGroups) {
    const WiredHosts net;
    Member member(group);
    ASSERT_TRUE(member.Join(other));
    EXPECT_TRUE(member.TerminateAll());
    EXPECT_THAT(member.m_Groups, IsEmpty());
    EXPECT_THAT(net.GroupsOf("wire0"), ElementsAre(all_systems));
}

TEST_F(CSocketMulticast, ARepairedReceiverIsInTheGroupOfTheStartOnly) {
    const WiredHosts net;
    Member member(group);
    ASSERT_TRUE(member.Join(other));
    EXPECT_TRUE(member.RepairReceiverSocket());
    EXPECT_THAT(member.m_Groups, ElementsAre(group));
    EXPECT_THAT(net.GroupsOf("wire0"), AllOf(Contains(group), Not(Contains(other))));
    EXPECT_TRUE(member.Join(other));
}

// ---- what members send themselves

TEST_F(CSocketMulticast, WhatAMemberSendsIsNotLoopedBackToItsHost) {
    const WiredHosts net;
    for (const bool at_start : {true, false}) {
        SCOPED_TRACE(at_start);
        Member sender(at_start ? group : nullptr);
        ASSERT_TRUE(at_start || sender.Join(group));
        Member neighbour;
        neighbour.m_uiPort = sender.ReceiverPort();
        ASSERT_TRUE(neighbour.RepairReceiverSocket());
        ASSERT_TRUE(neighbour.Join(group));
        ASSERT_EQ(sender.ReceiverPort(), neighbour.ReceiverPort());
        net.InPeer([&] {
            Member peer;
            peer.m_uiPort = sender.ReceiverPort();
            ASSERT_TRUE(peer.RepairReceiverSocket());
            ASSERT_TRUE(peer.Join(group));
            ASSERT_TRUE(sender.Send(group, sender.ReceiverPort(), "from a member", 13));
            ASSERT_TRUE(TarnTest::IsReadable(peer.m_socReceiver));
            peer.DataReceiver(0);
            EXPECT_THAT(peer.Received(), ElementsAre("from a member"));
            // Looped back, it would have been there before it was on the wire: what follows would be the second.
            SendDatagram(sender.ReceiverPort(), "from the peer", group);
        });
        for (Member* const here : {&sender, &neighbour}) {
            ASSERT_TRUE(TarnTest::IsReadable(here->m_socReceiver));
            here->DataReceiver(0);
            EXPECT_THAT(here->Received(), ElementsAre("from the peer"));
        }
    }
}
