// SPDX-License-Identifier: Apache-2.0
#include "morrow/morrow.hpp"
#include "morrow/morrow_server.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/bus_observer.hpp"
#include "tests/support/driver_files.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/record.hpp"
#include "tests/support/state_watch.hpp"
#include "tests/unit/discovery_story.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using namespace discovery;

namespace
{

/** The choice of the controller to redo, as it is logged. */
Texts choice(const std::string& notified, const std::string& missing)
{
    return {"log 4 morrow: Already notified i3c device: " + notified + "\n",
            "log 4 morrow: Going to discover i3c device: " + missing + "\n"};
}

const Texts retry{"log 4 morrow: Partial discovery retry\n"};
const Texts complete{"log 4 morrow: Discovery complete\n"};

class PartialDiscovery : public WithFiles
{
  protected:
    PartialDiscovery()
    {
        makeServer();
        daemon_state = MORROW_PARTIAL_DISCOVERY_EVENT;
    }

    /** The state after a discovery in which the first controller's endpoint
     *  answered and the second one's did not. */
    static void firstAnswered()
    {
        DriverFiles::makeNode(0);
        DriverFiles::makeClassEntry(0);
        i3c_device_map = {node0, node1};
        i3c_discovered_map = {controller0, controller1};
        i3c_device_notify_map = {node0};
    }

    /** The same the other way about. */
    static void secondAnswered()
    {
        DriverFiles::makeNode(1);
        DriverFiles::makeClassEntry(1);
        i3c_device_map = {node0, node1};
        i3c_discovered_map = {controller0, controller1};
        i3c_device_notify_map = {node1};
    }

    /** Runs the cycle and takes in what it did last. */
    void redo()
    {
        EXPECT_EQ(partial_discovery(), 0);
        driver.collect();
    }

    static void expectRetryInTenSeconds()
    {
        EXPECT_EQ(daemon_state, MORROW_WAIT_EVENT);
        EXPECT_EQ(wait_ticks, 10);
        EXPECT_EQ(state_after_wait, MORROW_PARTIAL_DISCOVERY_EVENT);
    }

    /** The last of the events, as many as these, are these. */
    static void expectStoryEndsWith(const Texts& expected)
    {
        const auto told = story();
        ASSERT_GE(told.size(), expected.size());
        EXPECT_EQ(
            Texts(told.end() - static_cast<std::ptrdiff_t>(expected.size()),
                  told.end()),
            expected);
    }
};

} // namespace

// A whole redo, in order

TEST_F(PartialDiscovery, RedoOfTheSecondControllerIsTheWholeStory)
{
    firstAnswered();
    DriverFiles::makeNode(1);
    driver.comesUp(controller1);
    fake::endpoints[node1] = {fake::answer(0x9D)};
    fake::lockIds = {{node0, 10}, {node1, 11}};
    fake::shmIds = {{node0, 20}, {node1, 21}};

    redo();

    EXPECT_THAT(story(),
                ElementsAreArray(
                    choice(node0, node1) +
                    Texts{
                        "acquireLock /dev/i3c-mctp-1 gives 11",
                        "getShmId /dev/i3c-mctp-1 gives 21",
                        "removeLock 11",
                        "remove /dev/i3c-mctp-1",
                        "removeShm 21",
                        "write unbind fff11000.i3c",
                        "sleep 2000 ms",
                        "write bind fff11000.i3c",
                        "sleep 100 ms",
                        "log 4 morrow: Discovered i3c device: "
                        "/dev/i3c-mctp-1\n",
                        "setLockPermission /dev/i3c-mctp-1",
                        "setShmPermission /dev/i3c-mctp-1",
                        "log 4 morrow: Found i3c device: /dev/i3c-mctp-1\n",
                    } +
                    goodExchange(node1) +
                    Texts{
                        "log 4 morrow: Discovered i3c device: fff10000.i3c\n",
                        "log 4 morrow: Discovered i3c device: fff11000.i3c\n",
                        "log 4 morrow: Notified i3c devices: "
                        "/dev/i3c-mctp-0\n",
                        "log 4 morrow: Notified i3c devices: "
                        "/dev/i3c-mctp-1\n",
                    } +
                    complete));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0, node1));
    EXPECT_THAT(i3c_discovered_map, ElementsAre(controller0, controller1));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0, node1));
}

TEST_F(PartialDiscovery, RedoOfTheFirstControllerIsTheWholeStory)
{
    secondAnswered();
    DriverFiles::makeNode(0);
    driver.comesUp(controller0);
    fake::endpoints[node0] = {fake::answer(0x1D)};
    fake::lockIds = {{node0, 10}, {node1, 11}};
    fake::shmIds = {{node0, 20}, {node1, 21}};

    redo();

    EXPECT_THAT(story(),
                ElementsAreArray(
                    choice(node1, node0) +
                    Texts{
                        "acquireLock /dev/i3c-mctp-0 gives 10",
                        "getShmId /dev/i3c-mctp-0 gives 20",
                        "removeLock 10",
                        "remove /dev/i3c-mctp-0",
                        "removeShm 20",
                        "write unbind fff10000.i3c",
                        "sleep 2000 ms",
                        "write bind fff10000.i3c",
                        "sleep 100 ms",
                        "log 4 morrow: Discovered i3c device: "
                        "/dev/i3c-mctp-0\n",
                        "setLockPermission /dev/i3c-mctp-0",
                        "setShmPermission /dev/i3c-mctp-0",
                        "log 4 morrow: Found i3c device: /dev/i3c-mctp-0\n",
                    } +
                    goodExchange(node0) +
                    // What was redone comes last in the lists.
                    Texts{
                        "log 4 morrow: Discovered i3c device: fff11000.i3c\n",
                        "log 4 morrow: Discovered i3c device: fff10000.i3c\n",
                        "log 4 morrow: Notified i3c devices: "
                        "/dev/i3c-mctp-1\n",
                        "log 4 morrow: Notified i3c devices: "
                        "/dev/i3c-mctp-0\n",
                    } +
                    complete));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_THAT(i3c_device_map, ElementsAre(node1, node0));
    EXPECT_THAT(i3c_discovered_map, ElementsAre(controller1, controller0));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node1, node0));
}

// Which controller is redone

TEST_F(PartialDiscovery, BothFoundAndAnsweredGoesIdleWithoutAWord)
{
    i3c_device_map = {node0, node1};
    i3c_device_notify_map = {node0, node1};
    redo();
    EXPECT_THAT(story(), IsEmpty());
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, NothingNotifiedRedoesTheFirstAndNamesTheSecond)
{
    i3c_device_map = {node0, node1};
    i3c_discovered_map = {controller0, controller1};
    redo();
    const auto told = story();
    EXPECT_EQ(Texts(told.begin(), told.begin() + 2), choice(node1, node0));
    EXPECT_THAT(told, Contains("write bind fff10000.i3c"));
    EXPECT_THAT(told, Not(Contains("write bind fff11000.i3c")));
}

TEST_F(PartialDiscovery, TwoNotifiedButOneFoundIsCompleteWithoutARedo)
{
    i3c_device_map = {node0};
    i3c_discovered_map = {controller0};
    i3c_device_notify_map = {node0, node1};
    redo();
    expectStory(Texts{"log 4 morrow: Discovered i3c device: fff10000.i3c\n",
                      "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n",
                      "log 4 morrow: Notified i3c devices: "
                      "/dev/i3c-mctp-1\n"} +
                complete);
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, ThreeFoundAndTwoNotifiedIsCompleteAfterTheSummary)
{
    i3c_device_map = {node0, node1, node1};
    i3c_device_notify_map = {node0, node1};
    redo();
    expectStory(Texts{"log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n",
                      "log 4 morrow: Notified i3c devices: "
                      "/dev/i3c-mctp-1\n"} +
                complete);
}

TEST_F(PartialDiscovery, OneDeviceNotifiedTwiceCompletesIt)
{
    i3c_device_map = {node0, node0};
    i3c_device_notify_map = {node0, node0};
    redo();
    EXPECT_THAT(story(), IsEmpty());
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, ThreeNotifiedIsCompleteAfterTheSummary)
{
    i3c_device_map = {node0, node1};
    i3c_device_notify_map = {node0, node0, node1};
    redo();
    expectStoryEndsWith(complete);
    EXPECT_EQ(story().size(), 4U);
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, NodeIsComparedAsAWhole)
{
    i3c_device_map = {node0};
    i3c_device_notify_map = {node0 + "0"};
    redo();
    const auto told = story();
    EXPECT_EQ(Texts(told.begin(), told.begin() + 2), choice(node1, node0));
}

// What is taken down

TEST_F(PartialDiscovery, EveryEntryOfTheControllerLeavesTheLists)
{
    i3c_device_map = {node1, node0, node1, "/dev/i3c-mctp-10"};
    i3c_discovered_map = {controller1, controller0, controller1, "other"};
    i3c_device_notify_map = {node0};
    redo();
    EXPECT_THAT(i3c_device_map, ElementsAre(node0, "/dev/i3c-mctp-10"));
    EXPECT_THAT(i3c_discovered_map, ElementsAre(controller0, "other"));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
}

TEST_F(PartialDiscovery, ControllerLeavesItsListWhateverNodeItWasFoundUnder)
{
    // As after a discovery that found the second controller as node 0.
    i3c_device_map = {node0};
    i3c_discovered_map = {controller1};
    i3c_device_notify_map = {node0};
    redo();
    EXPECT_THAT(i3c_device_map, ElementsAre(node0));
    EXPECT_THAT(i3c_discovered_map, IsEmpty());
}

TEST_F(PartialDiscovery, ListsAreLeftBeforeTheIdsAreAskedFor)
{
    firstAnswered();
    std::size_t left = 99;
    record::when("acquireLock /dev/i3c-mctp-1",
                 [&left]
                 {
                     left = i3c_device_map.size() + i3c_discovered_map.size();
                 });
    redo();
    EXPECT_EQ(left, 2U);
}

TEST_F(PartialDiscovery, MissingIdsAreGivenToRemoveLockButNotToRemoveShm)
{
    firstAnswered();
    redo();
    EXPECT_THAT(story(), Contains("removeLock -1"));
    EXPECT_THAT(story(), Not(Contains(testing::StartsWith("removeShm"))));
}

TEST_F(PartialDiscovery, IdsOf0AreRemoved)
{
    firstAnswered();
    fake::lockIds = {{node1, 0}};
    fake::shmIds = {{node1, 0}};
    redo();
    EXPECT_EQ(record::count("removeLock 0"), 1);
    EXPECT_EQ(record::count("removeShm 0"), 1);
}

TEST_F(PartialDiscovery, TheOtherControllerIsLeftAlone)
{
    firstAnswered();
    driver.comesUp(controller1);
    fake::lockIds = {{node0, 10}, {node1, 11}};
    fake::shmIds = {{node0, 20}, {node1, 21}};
    redo();
    for (const auto& text : story())
    {
        EXPECT_THAT(text, Not(testing::HasSubstr("write unbind fff10000")));
        EXPECT_THAT(text, Not(testing::HasSubstr("write bind fff10000")));
        EXPECT_THAT(text, Not(testing::HasSubstr("Lock /dev/i3c-mctp-0")));
        EXPECT_THAT(text, Not(testing::HasSubstr("ShmId /dev/i3c-mctp-0")));
        EXPECT_NE(text, "remove /dev/i3c-mctp-0");
        EXPECT_NE(text, "removeLock 10");
        EXPECT_NE(text, "removeShm 20");
    }
    EXPECT_TRUE(std::filesystem::exists(node0));
}

// What goes wrong

TEST_F(PartialDiscovery, UnopenableUnbindFileIsLoggedAndTheRedoGoesOn)
{
    firstAnswered();
    DriverFiles::removeUnbindFile();
    driver.comesUp(controller1);
    fake::endpoints[node1] = {fake::answer(0x9D)};
    redo();
    const auto told = story();
    const auto failure =
        std::find(told.begin(), told.end(),
                  "log 4 morrow: Failed to open sysfs file for "
                  "fff11000.i3c\n");
    ASSERT_NE(failure, told.end());
    EXPECT_EQ(*(failure + 1), "sleep 2000 ms");
    EXPECT_EQ(*(failure + 2), "write bind fff11000.i3c");
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, UnopenableBindFileIsLoggedAndTheNodeNotWaitedFor)
{
    firstAnswered();
    DriverFiles::removeBindFile();
    redo();
    expectStoryEndsWith(
        Texts{"sleep 2000 ms",
              "log 4 morrow: Failed to open sysfs file for fff11000.i3c\n",
              "setLockPermission /dev/i3c-mctp-1",
              "setShmPermission /dev/i3c-mctp-1",
              "log 4 morrow: Discovered i3c device: fff10000.i3c\n",
              "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n"} +
        retry);
    expectRetryInTenSeconds();
}

TEST_F(PartialDiscovery, UnopenableBindFileLeavesTheScanToWhatIsThere)
{
    firstAnswered();
    DriverFiles::removeBindFile();
    DriverFiles::makeClassEntry(1);
    fake::endpoints[node1] = {fake::answer(0x9D)};
    redo();
    // Not said to be discovered, for it was not waited for.
    EXPECT_EQ(record::count("log 4 morrow: Discovered i3c device: "
                            "/dev/i3c-mctp-1\n"),
              0);
    EXPECT_EQ(record::count("sleep 100 ms"), 0);
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0, node1));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, BindThatIsRefusedIsFollowedByTheWaitAllTheSame)
{
    firstAnswered();
    DriverFiles::refuseBindWrites();
    redo();
    expectStoryEndsWith(
        Texts{"sleep 2000 ms"} + Texts(31, "sleep 100 ms") +
        Texts{"setLockPermission /dev/i3c-mctp-1",
              "setShmPermission /dev/i3c-mctp-1",
              "log 4 morrow: Discovered i3c device: fff10000.i3c\n",
              "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n"} +
        retry);
    expectRetryInTenSeconds();
}

TEST_F(PartialDiscovery, NodeThatNeverOpensIsWaitedForInSilence)
{
    firstAnswered();
    redo();
    expectStoryEndsWith(
        Texts{"write bind fff11000.i3c"} + Texts(31, "sleep 100 ms") +
        Texts{"setLockPermission /dev/i3c-mctp-1",
              "setShmPermission /dev/i3c-mctp-1",
              "log 4 morrow: Discovered i3c device: fff10000.i3c\n",
              "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n"} +
        retry);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0));
    expectRetryInTenSeconds();
}

TEST_F(PartialDiscovery, ClassEntryWithoutANodeIsScannedAllTheSame)
{
    firstAnswered();
    DriverFiles::makeClassEntry(1);
    fake::endpoints[node1] = {fake::answer(0x9D)};
    redo();
    EXPECT_EQ(record::count("sleep 100 ms"), 31);
    EXPECT_EQ(record::count("log 4 morrow: Discovered i3c device: "
                            "/dev/i3c-mctp-1\n"),
              0);
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0, node1));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, EndpointThatStaysSilentIsTriedAgainInTenSeconds)
{
    firstAnswered();
    driver.comesUp(controller1);
    redo();
    expectStoryEndsWith(
        Texts{"log 4 morrow: Discovered i3c device: fff10000.i3c\n",
              "log 4 morrow: Discovered i3c device: fff11000.i3c\n",
              "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n"} +
        retry);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0, node1));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
    expectRetryInTenSeconds();
}

TEST_F(PartialDiscovery, SaysWhatFollowsBeforeItDoes)
{
    const StateWatch retries(retry.front());
    const StateWatch completes(complete.front());
    firstAnswered();
    redo();
    EXPECT_EQ(retries.seen(), MORROW_PARTIAL_DISCOVERY_EVENT);
    i3c_device_notify_map = {node0, node0};
    i3c_device_map = {node0};
    daemon_state = MORROW_PARTIAL_DISCOVERY_EVENT;
    redo();
    EXPECT_EQ(completes.seen(), MORROW_PARTIAL_DISCOVERY_EVENT);
}

TEST_F(PartialDiscovery, NothingNotifiedAtAllIsTriedAgainInTenSeconds)
{
    redo();
    expectStoryEndsWith(Texts{"setLockPermission /dev/i3c-mctp-0",
                              "setShmPermission /dev/i3c-mctp-0"} +
                        retry);
    expectRetryInTenSeconds();
}

TEST_F(PartialDiscovery, SleepIsTakenUpAgainAfterASignal)
{
    firstAnswered();
    fake::interruptedSleeps = 1;
    redo();
    const auto told = story();
    const auto sleep = std::find(told.begin(), told.end(), "sleep 2000 ms");
    ASSERT_NE(sleep, told.end());
    EXPECT_EQ(*(sleep + 1), "sleep 1000 ms");
    EXPECT_EQ(*(sleep + 2), "write bind fff11000.i3c");
}

// Through the state loop

TEST_F(PartialDiscovery, IsWhatItsStateDoes)
{
    i3c_device_map = {node0, node1};
    i3c_device_notify_map = {node0, node1};
    run_state_action();
    EXPECT_THAT(story(), IsEmpty());
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, RetryComesBackAfterTenTicksOnTheEleventhCall)
{
    firstAnswered();
    redo();
    behind += story().size();
    for (int tick = 0; tick < 10; ++tick)
    {
        run_state_action();
        EXPECT_EQ(daemon_state, MORROW_WAIT_EVENT);
    }
    expectStory(Texts(10, "sleep 1000 ms"));
    run_state_action();
    expectStory(Texts(10, "sleep 1000 ms"));
    EXPECT_EQ(daemon_state, MORROW_PARTIAL_DISCOVERY_EVENT);
}

// On the bus

TEST_F(PartialDiscovery, LeavesThePublishedEndpointAndAddsTheMissingOne)
{
    const Broker broker;
    ASSERT_EQ(morrow_dbus_server_init(), 0);
    driver.comesUp(controller0);
    driver.comesUp(controller1);
    fake::endpoints[node0] = {fake::answer(0x1D)};
    fake::endpoints[node1] = {{.result = ETIMEDOUT}};
    (void)full_discovery();
    const std::string network = "/xyz/openbmc_project/mctp/0";
    ASSERT_THAT(busctl::managedObjects(network), ElementsAre(network + "/29"));
    BusObserver observer;

    fake::endpoints[node1] = {fake::answer(0x9D)};
    redo();

    EXPECT_THAT(busctl::managedObjects(network),
                UnorderedElementsAre(network + "/29", network + "/157"));
    observer.catchUp();
    const auto seen = observer.seen();
    EXPECT_THAT(seen, Contains(testing::StartsWith("InterfacesAdded " +
                                                   network + "/157 ")));
    EXPECT_THAT(seen, Not(Contains(testing::HasSubstr(network + "/29"))));
    EXPECT_EQ(morrow_dbus_server::get_instance().stop_morrow_dbus_server(), 0);
}
