// SPDX-License-Identifier: Apache-2.0

/**
 * Endpoints that misbehave: what the daemon makes of each.
 */

#include "board/endpoint/behaviours.hpp"
#include "tests/scenario/scenario.hpp"

#include <cctype>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::UnorderedElementsAre;

namespace
{

constexpr const char* node0 = "i3c-mctp-0";
constexpr const char* node1 = "i3c-mctp-1";

board::Words wordsOf(const std::string& text)
{
    std::istringstream stream(text);
    board::Words words;
    for (std::string word; stream >> word;)
    {
        words.push_back(word);
    }
    return words;
}

/** How the first endpoint behaves in a full discovery, and what comes of it. */
struct Manner
{
    const char* words; //!< as the board names it
    const char* published; //!< object path, or nullptr
    std::size_t requests; //!< that reached the endpoint
    std::size_t failures; //!< "Failed req_disc_notify ..." lines
    std::size_t invalid; //!< "Invalid req_disc_notify ..." lines
};

constexpr const char* eid1D = "/xyz/openbmc_project/mctp/0/29";
constexpr const char* eid42 = "/xyz/openbmc_project/mctp/0/66";

class EndpointThat :
    public ScenarioOfARunningHost,
    public testing::WithParamInterface<Manner>
{
};

class Endpoint : public ScenarioOfARunningHost
{
};

} // namespace

TEST_P(EndpointThat, IsPublishedOrNot)
{
    const auto& manner = GetParam();
    board().endpoint(0).behaves(
        board::behaviourFromWords(wordsOf(manner.words)));
    board().daemon().start();
    const auto published = manner.published != nullptr;
    logs(std::string("Number of elements in i3c_device_notify_map: ") +
         (published ? "2" : "1"));

    const auto paths = endpointPaths();
    EXPECT_EQ(paths.size(), published ? 2U : 1U);
    EXPECT_THAT(paths, Contains(endpoint1));
    if (published)
    {
        EXPECT_THAT(paths, Contains(manner.published));
    }
    EXPECT_EQ(requests(node0), manner.requests);
    EXPECT_EQ(requests(node1), 1U);
    const std::string device = " [/dev/i3c-mctp-0]";
    EXPECT_EQ(logged("Failed req_disc_notify to i3c device" + device),
              manner.failures);
    EXPECT_EQ(logged("Invalid req_disc_notify response" + device),
              manner.invalid);
    EXPECT_EQ(stop().status, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Manners, EndpointThat,
    testing::Values(
        Manner{"late 300", eid1D, 1, 0, 0},
        // The second of the attempt is over when it answers.
        Manner{"late 1500", nullptr, 3, 3, 0},
        Manner{"short 1", nullptr, 1, 0, 1},
        Manner{"short 2", nullptr, 1, 0, 1},
        // Without the completion code, which nobody looks at.
        Manner{"short 3", eid1D, 1, 0, 0}, Manner{"empty", nullptr, 1, 0, 1},
        Manner{"long 160", eid1D, 1, 0, 0},
        Manner{"long 161", nullptr, 3, 3, 0},
        // Asked again twice, then published all the same.
        Manner{"wrong-type 0x7F", eid1D, 3, 0, 0},
        Manner{"wrong-command 0x0C", eid1D, 3, 0, 0},
        Manner{"error 0x05", eid1D, 1, 0, 0}, Manner{"split 1", eid1D, 1, 0, 0},
        Manner{"out-of-sequence", nullptr, 3, 3, 0},
        Manner{"other-tag", nullptr, 3, 3, 0},
        Manner{"other-owner", nullptr, 3, 3, 0},
        Manner{"other-eid 0x42", eid42, 1, 0, 0},
        Manner{"garbage", nullptr, 3, 3, 0},
        // A node without a packet is as good as gone: no further attempt.
        Manner{"nothing", nullptr, 1, 1, 0},
        Manner{"flooding 100", eid1D, 1, 0, 0},
        Manner{"first 2 silent", eid1D, 3, 2, 0}),
    [](const auto& manner)
    {
        std::string name;
        for (const char letter : std::string(manner.param.words))
        {
            name +=
                isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
        }
        return name;
    });

TEST_F(Endpoint, SilentAndThenAliveIsFoundByTheNextRedo)
{
    board().endpoint(1).staysSilent();
    board().daemon().start();
    logs("Start partial discovery");
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint0));
    const auto retry = logs("Partial discovery retry");
    EXPECT_EQ(requests(node1), 6U);

    board().endpoint(1).answers();
    publishes(endpoint1, retry.index);
    const auto complete = logs("Discovery complete", retry.index);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_GE(complete.at - retry.at, std::chrono::seconds(10));
    // The one that answered was left alone all the time.
    EXPECT_THAT(all<board::event::EndpointRemoved>(), testing::IsEmpty());
    EXPECT_EQ(requests(node0), 1U);
    const auto writes = driverWrites(retry.index);
    EXPECT_THAT(writes,
                ElementsAre("unbind fff11000.i3c", "bind fff11000.i3c"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Endpoint, FirstSilentAndThenAliveIsRedoneAlone)
{
    board().endpoint(0).staysSilent();
    board().daemon().start();
    const auto start = logs("Start partial discovery");
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint1));
    board().endpoint(0).answers();
    publishes(endpoint0, start.index);
    logs("Discovery complete", start.index);
    EXPECT_THAT(driverWrites(start.index),
                ElementsAre("unbind fff10000.i3c", "bind fff10000.i3c"));
    EXPECT_THAT(all<board::event::EndpointRemoved>(), testing::IsEmpty());
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Endpoint, BothSilentAreTriedAgainFromTheBeginning)
{
    board().endpoint(0).staysSilent();
    board().endpoint(1).staysSilent();
    board().daemon().start();
    const auto retry = logs("Retry discovering i3c devices:count = 0");
    board().endpoint(0).answers();
    board().endpoint(1).answers();
    logs("Discovery complete", retry.index);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_THAT(driverWrites(retry.index),
                ElementsAre("unbind fff10000.i3c", "unbind fff11000.i3c",
                            "bind fff10000.i3c", "bind fff11000.i3c"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Endpoint, GoneInTheMiddleIsRedone)
{
    board().endpoint(1).behaves(board::vanishing());
    board().daemon().start();
    const auto start = logs("Start partial discovery");
    // The second attempt finds no node, and there is no third.
    EXPECT_EQ(logged("Failed req_disc_notify to i3c device [/dev/i3c-mctp-1]"),
              2U);
    EXPECT_EQ(requests(node1), 1U);
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint0));
    board().endpoint(1).answers();
    publishes(endpoint1, start.index);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Endpoint, FirstGoneInTheMiddleMakesTheSecondNode0)
{
    board().endpoint(0).behaves(board::vanishing());
    board().daemon().start();
    // Its number is free again, so the second device gets it, and the daemon
    // looks for the second one in vain.
    const auto retry = logs("Retry discovering i3c devices:count = 0");
    EXPECT_EQ(board().controller(1).node(), node0);
    EXPECT_EQ(logged("Failed to open device node for fff11000.i3c"), 1U);
    board().endpoint(0).answers();
    logs("Discovery complete", retry.index);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Endpoint, WrongTypeAndThenFailuresIsPublishedWithTheLastId)
{
    // The wrong answer is enough for the endpoint to be published, but what
    // is published is what the last attempt left: no id at all.
    board().endpoint(0).behaves(
        board::behaviourFromWords(wordsOf("first 1 wrong-type then silent")));
    board().daemon().start();
    publishes("/xyz/openbmc_project/mctp/0/0");
    logs("Discovery complete");
    EXPECT_THAT(
        endpointPaths(),
        UnorderedElementsAre("/xyz/openbmc_project/mctp/0/0", endpoint1));
    EXPECT_THAT(endpointPaths(), Not(Contains(endpoint0)));
    EXPECT_EQ(stop().status, 0);
}
