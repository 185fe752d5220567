// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint/behaviours.hpp"
#include "board/endpoint/endpoint.hpp"

#include <gtest/gtest.h>

namespace
{

using board::Bytes;
using board::Endpoint;

constexpr std::uint8_t eid = 0x1D;

// Version, destination, source, flags with tag; type, instance, command.
const Bytes discoveryNotify{0x01, 0x00, 0x08, 0xCB, 0x00, 0x81, 0x0D};

Bytes onlyReply(Endpoint& endpoint, const Bytes& packet)
{
    const auto replies = endpoint.receive(packet);
    EXPECT_EQ(replies.size(), 1U);
    return replies.empty() ? Bytes() : replies.front().packet;
}

TEST(Endpoint, AnswersDiscoveryNotifyWithSuccessAndOtherCommandsWithAnError)
{
    Endpoint endpoint(eid);
    EXPECT_EQ(onlyReply(endpoint, discoveryNotify),
              (Bytes{0x01, 0x08, 0x1D, 0xC3, 0x00, 0x01, 0x0D, 0x00}));
    auto other = discoveryNotify;
    other[6] = 0x02;
    EXPECT_EQ(onlyReply(endpoint, other),
              (Bytes{0x01, 0x08, 0x1D, 0xC3, 0x00, 0x01, 0x02, 0x05}));
    endpoint.setEid(0x9D);
    EXPECT_EQ(endpoint.eid(), 0x9D);
    EXPECT_EQ(onlyReply(endpoint, discoveryNotify).at(2), 0x9D);
}

TEST(Endpoint, TakesPacketsForItsOwnEidAndTheNullEidOnly)
{
    Endpoint endpoint(eid);
    auto packet = discoveryNotify;
    packet[1] = eid;
    EXPECT_EQ(endpoint.receive(packet).size(), 1U);
    packet[1] = eid + 1;
    EXPECT_TRUE(endpoint.receive(packet).empty());
}

TEST(Endpoint, AnswersControlRequestsOnlyHoweverItBehaves)
{
    auto otherType = discoveryNotify;
    otherType[4] = 0x7E;
    auto response = discoveryNotify;
    response[5] = 0x01;
    auto notTagOwner = discoveryNotify;
    notTagOwner[3] = 0xC3;
    for (const auto* behaviour :
         {"answering", "wrong-type", "garbage", "vanishing", "flooding 3"})
    {
        Endpoint endpoint(eid);
        endpoint.setBehaviour(board::behaviourOf(behaviour));
        EXPECT_FALSE(endpoint.receive(discoveryNotify).empty()) << behaviour;
        for (const auto& packet : {otherType, response, notTagOwner})
        {
            EXPECT_TRUE(endpoint.receive(packet).empty()) << behaviour;
        }
    }
}

TEST(Endpoint, DropsMalformedPackets)
{
    Endpoint endpoint(eid);
    EXPECT_TRUE(endpoint.receive(Bytes{}).empty());
    EXPECT_TRUE(endpoint.receive(Bytes{0x01, 0x00, 0x08}).empty());
    auto otherVersion = discoveryNotify;
    otherVersion[0] = 0x02;
    EXPECT_TRUE(endpoint.receive(otherVersion).empty());
}

TEST(Endpoint, TakesARequestInTwoPackets)
{
    Endpoint endpoint(eid);
    EXPECT_TRUE(
        endpoint.receive(Bytes{0x01, 0x00, 0x08, 0x8B, 0x00, 0x81}).empty());
    EXPECT_EQ(onlyReply(endpoint, Bytes{0x01, 0x00, 0x08, 0x5B, 0x0D}),
              (Bytes{0x01, 0x08, 0x1D, 0xC3, 0x00, 0x01, 0x0D, 0x00}));
}

} // namespace
