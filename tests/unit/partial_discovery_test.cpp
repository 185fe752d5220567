// SPDX-License-Identifier: Apache-2.0
#include "morrow/morrow.hpp"
#include "morrow/morrow_server.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/bus_observer.hpp"
#include "tests/support/driver_files.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/record.hpp"
#include "tests/support/watch.hpp"
#include "tests/unit/discovery_trace.hpp"

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

    /** The state after a discovery in which this endpoint alone answered. */
    static void answered(int number)
    {
        DriverFiles::makeNode(number);
        DriverFiles::makeClassEntry(number);
        i3c_device_map = {node0, node1};
        i3c_discovered_map = {controller0, controller1};
        i3c_device_notify_map = {number == 0 ? node0 : node1};
    }

    static void expectRetryInTenSeconds()
    {
        expectWait(10, MORROW_PARTIAL_DISCOVERY_EVENT);
    }

    /** Expects these events, then a scan that finds nothing, with the second
     *  device missing, and a retry. */
    static void expectNothingFoundAfter(const Texts& events)
    {
        expectTraceEndsWith(
            events +
            Texts{"setLockPermission /dev/i3c-mctp-1",
                  "setShmPermission /dev/i3c-mctp-1",
                  "log 4 morrow: Discovered i3c device: fff10000.i3c\n",
                  "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n"} +
            retry);
        EXPECT_THAT(i3c_device_map, ElementsAre(node0));
        expectRetryInTenSeconds();
    }
};

} // namespace

// A whole redo, in order

TEST_F(PartialDiscovery, RedoOfEitherControllerHasTheExpectedTrace)
{
    fake::lockIds = {{node0, 10}, {node1, 11}};
    fake::shmIds = {{node0, 20}, {node1, 21}};
    driver.comesUp(controller0);
    driver.comesUp(controller1);
    for (const int missing : {1, 0})
    {
        const bool first = missing == 0;
        const auto& node = first ? node0 : node1;
        const auto& other = first ? node1 : node0;
        const auto& controller = first ? controller0 : controller1;
        const auto& otherController = first ? controller1 : controller0;
        const auto id = std::to_string(missing);
        answered(1 - missing);
        DriverFiles::makeNode(missing);
        std::filesystem::remove(first ? entry0 : entry1);
        fake::endpoints[node] = {fake::answer(0x9D)};
        daemon_state = MORROW_PARTIAL_DISCOVERY_EVENT;
        skipped += trace().size();

        run(partial_discovery);

        EXPECT_THAT(
            trace(),
            ElementsAreArray(
                choice(other, node) +
                Texts{"acquireLock " + node + " gives 1" + id,
                      "getShmId " + node + " gives 2" + id, "removeLock 1" + id,
                      "remove " + node, "removeShm 2" + id,
                      "write unbind " + controller, "sleep 2000 ms",
                      "write bind " + controller, "sleep 100 ms",
                      "log 4 morrow: Discovered i3c device: " + node + "\n",
                      "setLockPermission " + node, "setShmPermission " + node,
                      "log 4 morrow: Found i3c device: " + node + "\n"} +
                goodExchange(node) +
                // The new entries are the last of the lists.
                Texts{
                    "log 4 morrow: Discovered i3c device: " + otherController +
                        "\n",
                    "log 4 morrow: Discovered i3c device: " + controller + "\n",
                    "log 4 morrow: Notified i3c devices: " + other + "\n",
                    "log 4 morrow: Notified i3c devices: " + node + "\n"} +
                complete));
        EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
        EXPECT_THAT(i3c_device_map, ElementsAre(other, node));
        EXPECT_THAT(i3c_discovered_map,
                    ElementsAre(otherController, controller));
        EXPECT_THAT(i3c_device_notify_map, ElementsAre(other, node));
        EXPECT_TRUE(std::filesystem::exists(other));
    }
}

// Which controller is redone

TEST_F(PartialDiscovery, TwoOrMoreNotifiedAreCompleteWithoutARedo)
{
    struct Row
    {
        Texts devices;
        Texts controllers;
        Texts notified;
    };
    for (const Row& row : {Row{{node0, node1}, {}, {node0, node1}},
                           Row{{node0, node0}, {}, {node0, node0}},
                           Row{{node0}, {controller0}, {node0, node1}},
                           Row{{node0, node1, node1}, {}, {node0, node1}},
                           Row{{node0, node1}, {}, {node0, node0, node1}}})
    {
        i3c_device_map = row.devices;
        i3c_discovered_map = row.controllers;
        i3c_device_notify_map = row.notified;
        daemon_state = MORROW_PARTIAL_DISCOVERY_EVENT;
        skipped += trace().size();
        run(partial_discovery);
        // Two and two need no summary.
        Texts summary;
        if (row.devices.size() != 2 || row.notified.size() != 2)
        {
            for (const auto& controller : row.controllers)
            {
                summary.push_back("log 4 morrow: Discovered i3c device: " +
                                  controller + "\n");
            }
            for (const auto& node : row.notified)
            {
                summary.push_back(
                    "log 4 morrow: Notified i3c devices: " + node + "\n");
            }
            summary = summary + complete;
        }
        expectTrace(summary);
        EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    }
}

TEST_F(PartialDiscovery, NothingNotifiedRedoesTheFirstAndNamesTheSecond)
{
    i3c_device_map = {node0, node1};
    i3c_discovered_map = {controller0, controller1};
    run(partial_discovery);
    const auto texts = trace();
    EXPECT_EQ(Texts(texts.begin(), texts.begin() + 2), choice(node1, node0));
    EXPECT_THAT(texts, Contains("write bind fff10000.i3c"));
    EXPECT_THAT(texts, Not(Contains("write bind fff11000.i3c")));
}

TEST_F(PartialDiscovery, NodeIsComparedAsAWhole)
{
    i3c_device_map = {node0};
    i3c_device_notify_map = {node0 + "0"};
    run(partial_discovery);
    const auto texts = trace();
    EXPECT_EQ(Texts(texts.begin(), texts.begin() + 2), choice(node1, node0));
}

// What is taken down

TEST_F(PartialDiscovery, EveryEntryOfTheControllerLeavesTheLists)
{
    i3c_device_map = {node1, node0, node1, "/dev/i3c-mctp-10"};
    i3c_discovered_map = {controller1, controller0, controller1, "other"};
    i3c_device_notify_map = {node0};
    run(partial_discovery);
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
    run(partial_discovery);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0));
    EXPECT_THAT(i3c_discovered_map, IsEmpty());
}

TEST_F(PartialDiscovery, ListsAreLeftBeforeTheIdsAreAskedFor)
{
    answered(0);
    std::size_t left = 99;
    record::when("acquireLock /dev/i3c-mctp-1",
                 [&left]
                 {
                     left = i3c_device_map.size() + i3c_discovered_map.size();
                 });
    run(partial_discovery);
    EXPECT_EQ(left, 2U);
}

TEST_F(PartialDiscovery, IdsOf0AreRemovedAndOfMinus1TheLockAlone)
{
    for (const int id : {-1, 0, -2})
    {
        answered(0);
        fake::lockIds[node1] = id;
        fake::shmIds[node1] = id;
        run(partial_discovery);
        EXPECT_EQ(record::count("removeLock " + std::to_string(id)), 1);
        EXPECT_EQ(record::count("removeShm " + std::to_string(id)),
                  id == -1 ? 0 : 1);
    }
}

// What goes wrong

TEST_F(PartialDiscovery, UnopenableUnbindFileIsLoggedAndTheRedoGoesOn)
{
    answered(0);
    DriverFiles::putAside("unbind");
    driver.comesUp(controller1);
    fake::endpoints[node1] = {fake::answer(0x9D)};
    run(partial_discovery);
    const auto texts = trace();
    const auto failure =
        std::find(texts.begin(), texts.end(),
                  "log 4 morrow: Failed to open sysfs file for "
                  "fff11000.i3c\n");
    ASSERT_NE(failure, texts.end());
    EXPECT_EQ(*(failure + 1), "sleep 2000 ms");
    EXPECT_EQ(*(failure + 2), "write bind fff11000.i3c");
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, UnopenableBindFileIsLoggedAndTheNodeNotWaitedFor)
{
    answered(0);
    DriverFiles::putAside("bind");
    run(partial_discovery);
    expectNothingFoundAfter(
        {"sleep 2000 ms",
         "log 4 morrow: Failed to open sysfs file for fff11000.i3c\n"});
}

TEST_F(PartialDiscovery, UnopenableBindFileLeavesTheScanToWhatIsThere)
{
    answered(0);
    DriverFiles::putAside("bind");
    DriverFiles::makeClassEntry(1);
    fake::endpoints[node1] = {fake::answer(0x9D)};
    run(partial_discovery);
    // Not logged as discovered, since it was not waited for.
    EXPECT_EQ(record::count("log 4 morrow: Discovered i3c device: "
                            "/dev/i3c-mctp-1\n"),
              0);
    EXPECT_EQ(record::count("sleep 100 ms"), 0);
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0, node1));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, BindThatIsRefusedIsFollowedByTheWaitAnyway)
{
    answered(0);
    DriverFiles::refuseBindWrites();
    run(partial_discovery);
    expectNothingFoundAfter(Texts{"sleep 2000 ms"} + Texts(31, "sleep 100 ms"));
}

TEST_F(PartialDiscovery, NodeThatNeverOpensIsWaitedForInSilence)
{
    answered(0);
    run(partial_discovery);
    expectNothingFoundAfter(Texts{"write bind fff11000.i3c"} +
                            Texts(31, "sleep 100 ms"));
}

TEST_F(PartialDiscovery, ClassEntryWithoutANodeIsScannedAnyway)
{
    answered(0);
    DriverFiles::makeClassEntry(1);
    fake::endpoints[node1] = {fake::answer(0x9D)};
    run(partial_discovery);
    EXPECT_EQ(record::count("sleep 100 ms"), 31);
    EXPECT_EQ(record::count("log 4 morrow: Discovered i3c device: "
                            "/dev/i3c-mctp-1\n"),
              0);
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0, node1));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, NodeWithoutAClassEntryIsDiscoveredAndNotScanned)
{
    answered(0);
    driver.comesUpWithoutClassEntry(controller1);
    run(partial_discovery);
    expectNothingFoundAfter(
        {"write bind fff11000.i3c", "sleep 100 ms",
         "log 4 morrow: Discovered i3c device: /dev/i3c-mctp-1\n"});
}

TEST_F(PartialDiscovery, EndpointThatStaysSilentIsTriedAgainInTenSeconds)
{
    answered(0);
    driver.comesUp(controller1);
    run(partial_discovery);
    expectTraceEndsWith(
        Texts{"log 4 morrow: Discovered i3c device: fff10000.i3c\n",
              "log 4 morrow: Discovered i3c device: fff11000.i3c\n",
              "log 4 morrow: Notified i3c devices: /dev/i3c-mctp-0\n"} +
        retry);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0, node1));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
    expectRetryInTenSeconds();
}

TEST_F(PartialDiscovery, LogsWhatFollowsBeforeItHappens)
{
    const Watch retries(retry.front(), daemon_state);
    const Watch completes(complete.front(), daemon_state);
    answered(0);
    run(partial_discovery);
    EXPECT_EQ(retries.seen(), MORROW_PARTIAL_DISCOVERY_EVENT);
    i3c_device_notify_map = {node0, node0};
    i3c_device_map = {node0};
    daemon_state = MORROW_PARTIAL_DISCOVERY_EVENT;
    run(partial_discovery);
    EXPECT_EQ(completes.seen(), MORROW_PARTIAL_DISCOVERY_EVENT);
}

TEST_F(PartialDiscovery, NothingNotifiedAtAllIsTriedAgainInTenSeconds)
{
    run(partial_discovery);
    expectTraceEndsWith(Texts{"setLockPermission /dev/i3c-mctp-0",
                              "setShmPermission /dev/i3c-mctp-0"} +
                        retry);
    expectRetryInTenSeconds();
}

TEST_F(PartialDiscovery, SleepIsResumedAfterASignal)
{
    answered(0);
    fake::interruptedSleeps = 1;
    run(partial_discovery);
    const auto texts = trace();
    const auto sleep = std::find(texts.begin(), texts.end(), "sleep 2000 ms");
    ASSERT_NE(sleep, texts.end());
    EXPECT_EQ(*(sleep + 1), "sleep 1000 ms");
    EXPECT_EQ(*(sleep + 2), "write bind fff11000.i3c");
}

// Through the state loop

TEST_F(PartialDiscovery, IsWhatItsStateDoes)
{
    i3c_device_map = {node0, node1};
    i3c_device_notify_map = {node0, node1};
    run_state_action();
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PartialDiscovery, RetryComesBackAfterTenTicksOnTheEleventhCall)
{
    answered(0);
    run(partial_discovery);
    skipped += trace().size();
    for (int tick = 0; tick < 10; ++tick)
    {
        run_state_action();
        EXPECT_EQ(daemon_state, MORROW_WAIT_EVENT);
    }
    expectTrace(Texts(10, "sleep 1000 ms"));
    run_state_action();
    expectTrace(Texts(10, "sleep 1000 ms"));
    EXPECT_EQ(daemon_state, MORROW_PARTIAL_DISCOVERY_EVENT);
}

// On the bus

TEST_F(PartialDiscovery, LeavesThePublishedEndpointAndAddsTheMissingOne)
{
    const Broker broker;
    ASSERT_EQ(morrow_dbus_server_init(), 0);
    bothAnswer();
    fake::endpoints[node1] = {{.result = ETIMEDOUT}};
    (void)full_discovery();
    const std::string network = "/xyz/openbmc_project/mctp/0";
    ASSERT_THAT(busctl::managedObjects(network), ElementsAre(network + "/29"));
    BusObserver observer;

    fake::endpoints[node1] = {fake::answer(0x9D)};
    run(partial_discovery);

    EXPECT_THAT(busctl::managedObjects(network),
                UnorderedElementsAre(network + "/29", network + "/157"));
    observer.catchUp();
    const auto seen = observer.seen();
    EXPECT_THAT(seen, Contains(testing::StartsWith("InterfacesAdded " +
                                                   network + "/157 ")));
    EXPECT_THAT(seen, Not(Contains(testing::HasSubstr(network + "/29"))));
    EXPECT_EQ(morrow_dbus_server::get_instance().stop_morrow_dbus_server(), 0);
}
