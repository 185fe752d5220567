// SPDX-License-Identifier: Apache-2.0

/**
 * Controllers and a driver that misbehave: what the daemon makes of each.
 */

#include "tests/scenario/scenario.hpp"

#include <cerrno>
#include <chrono>
#include <fstream>
#include <string>

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

using namespace std::chrono_literals;

constexpr const char* controller0 = "fff10000.i3c";
constexpr const char* controller1 = "fff11000.i3c";

class Controllers : public ScenarioOfARunningHost
{
  protected:
    /** The daemon's first writes: those of its cleanup and of the tear-down
     *  that a full discovery begins with. */
    static constexpr std::size_t writesBeforeTheFirstBind = 4;

    /** What was written from the first bind on. */
    std::vector<std::string> writesOfDiscovery() const
    {
        auto writes = driverWrites(booted);
        EXPECT_GT(writes.size(), writesBeforeTheFirstBind);
        writes.erase(writes.begin(), writes.begin() + writesBeforeTheFirstBind);
        return writes;
    }
};

} // namespace

TEST_F(Controllers, OnlyTheFirstUpLeavesTheSecondToBeRedone)
{
    board().controller(1).neverComesUp();
    board().daemon().start();
    logs("Failed to open device node for fff11000.i3c");
    logs("Start partial discovery");
    logs("Going to discover i3c device: /dev/i3c-mctp-1");
    logs("Partial discovery retry");
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint0));
    EXPECT_THAT(writesOfDiscovery(),
                ElementsAre("bind fff10000.i3c", "bind fff11000.i3c",
                            "unbind fff11000.i3c", "bind fff11000.i3c"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, OnlyTheSecondUpIsNode0AndFoundUnderTheFirstOnesName)
{
    board().controller(0).neverComesUp();
    board().daemon().start();
    const auto bind = binds(controller0, booted);
    // The daemon waits for the first node; somebody else binds the second
    // controller, whose device gets the number that is free.
    std::ofstream("/sys/bus/platform/drivers/silvaco-i3c-master/bind")
        << controller1;
    publishes(endpoint1, bind.index);
    EXPECT_EQ(board().controller(1).node(), "i3c-mctp-0");
    logs("Discovered i3c device: fff10000.i3c", bind.index);
    logs("Start partial discovery", bind.index);
    const auto objects = board().bus().endpoints();
    ASSERT_EQ(objects.size(), 1U);
    EXPECT_EQ(objects[0].devicePath, "/dev/i3c-mctp-0");
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, BothLateAreWaitedFor)
{
    board().controller(0).comesUpAfter(1500ms);
    board().controller(1).comesUpAfter(1500ms);
    board().daemon().start();
    logs("Discovery complete");
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_THAT(writesOfDiscovery(),
                ElementsAre("bind fff10000.i3c", "bind fff11000.i3c"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, FirstThatNeverComesUpIsTriedAgainAndTheSecondNotBound)
{
    board().controller(0).neverComesUp();
    board().daemon().start();
    const auto first = binds(controller0, booted);
    binds(controller0, first.index + 1);
    EXPECT_THAT(writesOfDiscovery(),
                ElementsAre("bind fff10000.i3c", "unbind fff10000.i3c",
                            "unbind fff11000.i3c", "bind fff10000.i3c"));
    EXPECT_THAT(endpointPaths(), IsEmpty());
    EXPECT_EQ(logged("Number of elements in i3c_device_map: 0"), 0U);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, FirstThatWaitsForTheSecondIsWaitedForInVain)
{
    // The daemon binds the second only when the first one's node is there.
    board().controller(0).comesUpAfterTheOther();
    board().daemon().start();
    const auto first = binds(controller0, booted);
    binds(controller0, first.index + 1);
    EXPECT_THAT(endpointPaths(), IsEmpty());
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, FirstWithoutClassEntryLeavesNothingToBeFound)
{
    board().controller(0).hasClassEntry(board::ClassEntry::none);
    board().daemon().start();
    // Nothing was found, so the second controller is looked for where the
    // first one is, and not found there either.
    logs("Number of elements in i3c_device_map: 0");
    logs("Retry discovering i3c devices:count = 0");
    EXPECT_THAT(endpointPaths(), IsEmpty());
    EXPECT_THAT(all<board::event::Packet>(), IsEmpty());
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, SecondWithoutClassEntryIsRedone)
{
    board().controller(1).hasClassEntry(board::ClassEntry::none);
    board().daemon().start();
    const auto start = logs("Start partial discovery");
    EXPECT_EQ(logged("Number of elements in i3c_device_map: 1"), 1U);
    board().controller(1).hasClassEntry(board::ClassEntry::directory);
    publishes(endpoint1, start.index);
    logs("Discovery complete", start.index);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, ClassEntryThatIsAFileIsNone)
{
    board().controller(1).hasClassEntry(board::ClassEntry::file);
    board().daemon().start();
    logs("Start partial discovery");
    EXPECT_EQ(logged("Found i3c device: /dev/i3c-mctp-1"), 0U);
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint0));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, BindFileThatCannotBeOpenedIsLoggedAndTheNodeWaitedFor)
{
    board().driverFiles().refusesToOpen(board::DriverFile::bind, EACCES);
    board().daemon().start();
    const auto failed = logs("Failed to open sysfs file for fff10000.i3c");
    // The wait for the node is over, and the cycle begins anew.
    logs("Failed to open sysfs file for fff10000.i3c", failed.index + 1);
    EXPECT_EQ(logged("Failed to open sysfs file for fff11000.i3c"), 0U);
    EXPECT_THAT(all<board::event::EndpointAdded>(), IsEmpty());

    board().driverFiles().works(board::DriverFile::bind);
    logs("Discovery complete", failed.index);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, BindFileThatIsMissingInARedoEndsInARetry)
{
    board().endpoint(1).staysSilent();
    board().daemon().start();
    logs("Start partial discovery");
    board().driverFiles().isMissing(board::DriverFile::bind);
    const auto failed = logs("Failed to open sysfs file for fff11000.i3c");
    logs("Partial discovery retry", failed.index);
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint0));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, UnbindFileThatCannotBeOpenedIsLoggedAndTheNodesStayAway)
{
    board().driverFiles().refusesToOpen(board::DriverFile::unbind, EACCES);
    board().daemon().start();
    logs("Failed to open sysfs file for fff10000.i3c");
    logs("Failed to open sysfs file for fff11000.i3c");
    // The nodes were removed, but the devices were not made anew.
    const auto bind = binds(controller0, booted);
    EXPECT_EQ(bind.as<board::event::DriverWrite>()->error, EBUSY);
    EXPECT_THAT(all<board::event::EndpointAdded>(), IsEmpty());

    board().driverFiles().works(board::DriverFile::unbind);
    logs("Discovery complete", bind.index);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, RefusedBindIsAMissingNode)
{
    board().controller(1).refusesBind(EIO);
    board().daemon().start();
    logs("Failed to open device node for fff11000.i3c");
    logs("Start partial discovery");
    EXPECT_EQ(logged("Failed to open sysfs file for fff11000.i3c"), 0U);
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint0));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, BusyNodeIsWaitedForLikeAMissingOne)
{
    board().controller(1).nodeRefuses(EBUSY);
    board().daemon().start();
    const auto failed = logs("Failed to open device node for fff11000.i3c");
    const auto start = logs("Start partial discovery");
    // Its class entry is there, so its endpoint is tried all the same.
    EXPECT_EQ(logged("Found i3c device: /dev/i3c-mctp-1"), 1U);
    EXPECT_LT(failed.index, start.index);

    board().controller(1).nodeRefuses(0);
    publishes(endpoint1, start.index);
    logs("Discovery complete", start.index);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Controllers, NodeThatCanOnlyBeReadIsFoundButNotNotified)
{
    board().controller(1).nodeRefuses(EBUSY, board::Openers::writers);
    board().daemon().start();
    logs("Start partial discovery");
    EXPECT_EQ(logged("Failed to open device node for fff11000.i3c"), 0U);
    EXPECT_EQ(logged("Number of elements in i3c_device_map: 2"), 1U);
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint0));
    EXPECT_EQ(stop().status, 0);
}
