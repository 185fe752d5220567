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

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using namespace discovery;

namespace
{

class WaitDeviceNode : public WithFiles
{
  protected:
    void removeNode()
    {
        std::filesystem::remove(node0);
        driver.collect();
        skipped += trace().size();
    }
};

using WriteController = WithFiles;

class Scan : public WithFiles
{
  protected:
    Scan()
    {
        makeServer();
    }
};

class Notify : public testing::Test
{
  protected:
    Notify()
    {
        makeServer();
    }
};

/** Tests that look at the bus. */
class OnTheBus : public WithFiles
{
  protected:
    OnTheBus()
    {
        EXPECT_EQ(morrow_dbus_server_init(), 0);
    }

    ~OnTheBus() override
    {
        EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    }

    static morrow_dbus_server& server()
    {
        return morrow_dbus_server::get_instance();
    }

    /** The paths of the endpoints of a network. */
    static Texts endpoints(int network)
    {
        return busctl::managedObjects("/xyz/openbmc_project/mctp/" +
                                      std::to_string(network));
    }

    /** Runs the exchange with an endpoint whose attempts end so, and expects
     *  it to be published with this id and slot and nothing else. */
    static void expectPublished(const std::deque<fake::Attempt>& attempts,
                                uint8_t eid, uint16_t slot)
    {
        fake::endpoints[node0] = attempts;
        EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
        const std::string path =
            "/xyz/openbmc_project/mctp/0/" + std::to_string(eid);
        EXPECT_THAT(endpoints(0), ElementsAre(path));
        EXPECT_EQ(busctl::getAll(path),
                  " DevicePath=/dev/i3c-mctp-0 EID=" + std::to_string(eid) +
                      " EndpointType=1 NetworkId=0 Slot=" +
                      std::to_string(slot) + " SupportedMessageTypes=[126,5]");
        EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    }

    static fake::Attempt wrongCommand(uint8_t eid)
    {
        return {.response = {0x00, 0x01, 0x0C}, .eid = eid};
    }

    static fake::Attempt failure(uint8_t eid)
    {
        return {.result = ETIMEDOUT, .eid = eid};
    }

    Broker broker;
};

using FullDiscovery = WithFiles;
using PowerOffCleanup = WithFiles;

} // namespace

// Waiting for a device node

TEST_F(WaitDeviceNode, TriesOnceAndOnceMoreForEach100Ms)
{
    for (const auto& [limit, attempts] : {std::pair{3000, 31},
                                          {199, 2},
                                          {0, 1},
                                          {-99, 1},
                                          {-100, 0},
                                          {-101, 0},
                                          {INT32_MIN, 0}})
    {
        SCOPED_TRACE(limit);
        removeNode();
        EXPECT_FALSE(wait_device_node(node0, limit));
        expectTrace(Texts(static_cast<std::size_t>(attempts), "sleep 100 ms"));
        DriverFiles::makeNode(0);
        skipped += trace().size();
        EXPECT_EQ(wait_device_node(node0, limit), attempts > 0);
        EXPECT_THAT(trace(), IsEmpty());
    }
}

TEST_F(WaitDeviceNode, NodeThatAppearsInTheLastSleepIsTooLate)
{
    for (const int appearsIn : {30, 31})
    {
        removeNode();
        fake::onSleep = [appearsIn, sleeps = 0](int64_t) mutable
        {
            if (++sleeps == appearsIn)
            {
                DriverFiles::makeNode(0);
            }
        };
        EXPECT_EQ(wait_device_node(node0, 3000), appearsIn == 30);
        expectTrace(Texts(static_cast<std::size_t>(appearsIn), "sleep 100 ms"));
    }
}

TEST_F(WaitDeviceNode, OtherPathsAreLoggedAndNotOpened)
{
    std::filesystem::create_directories("/run/dev");
    for (const std::string path :
         {"", "/run/dev/i3c-mctp-0", "/dev/i3c-mctp", "/dev/null"})
    {
        if (!path.empty() && path != "/dev/null")
        {
            std::ofstream{path};
        }
        for (const int limit : {3000, -100})
        {
            skipped += trace().size();
            EXPECT_FALSE(wait_device_node(path, limit));
            expectTrace(
                {"log 2 morrow: Invalid device node name: " + path + "\n"});
        }
    }
}

TEST_F(WaitDeviceNode, PathThatIsThePrefixAloneIsWaitedFor)
{
    EXPECT_FALSE(wait_device_node("/dev/i3c-mctp-", 0));
    EXPECT_THAT(trace(), ElementsAre("sleep 100 ms"));
}

TEST_F(WaitDeviceNode, SleepsAreResumedAfterASignalAlone)
{
    fake::interruptedSleeps = 1;
    EXPECT_FALSE(wait_device_node(node0, 0));
    fake::brokenSleeps = 1;
    EXPECT_FALSE(wait_device_node(node0, 0));
    EXPECT_THAT(trace(),
                ElementsAre("sleep 100 ms", "sleep 50 ms", "sleep 100 ms"));
}

TEST_F(WaitDeviceNode, NodeThatIsThereButCannotBeOpenedIsWaitedFor)
{
    ASSERT_EQ(mknod(node0.c_str(), S_IFSOCK | 0600, 0), 0);
    EXPECT_FALSE(wait_device_node(node0, 100));
    expectTrace(Texts(2, "sleep 100 ms"));
}

// Writing a controller's name

TEST_F(WriteController, WritesTheNameWithoutALineEnd)
{
    std::filesystem::create_directories("/run/test");
    std::ofstream("/run/test/file") << "what was there before, and longer";
    write_controller_sysfs("/run/test/file", controller0);
    std::ifstream file("/run/test/file");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
              controller0);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(WriteController, LogsAFileThatCannotBeOpened)
{
    write_controller_sysfs("/run/nowhere/bind", controller1);
    EXPECT_THAT(
        trace(),
        ElementsAre(
            "log 4 morrow: Failed to open sysfs file for fff11000.i3c\n"));
}

TEST_F(WriteController, IgnoresAWriteThatFails)
{
    write_controller_sysfs("/dev/full", controller0);
    EXPECT_THAT(trace(), IsEmpty());
}

// Scanning a controller

TEST_F(Scan, RecordsAndNotifiesADeviceThatIsThere)
{
    DriverFiles::makeClassEntry(0);
    fake::endpoints[node0] = {fake::answer(0x1D)};
    scan_i3c_device(controller0, entry0);
    expectTrace(Texts{"log 4 morrow: Found i3c device: " + node0 + "\n"} +
                goodExchange(node0));
    EXPECT_THAT(i3c_device_map, ElementsAre(node0));
    EXPECT_THAT(i3c_discovered_map, ElementsAre(controller0));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
}

TEST_F(Scan, LogsThenRecordsThenNotifies)
{
    DriverFiles::makeClassEntry(0);
    std::size_t whenSpoken = 1;
    std::vector<std::string> whenNotified;
    record::when("log 4 morrow: Found i3c device",
                 [&whenSpoken]
                 {
                     whenSpoken = i3c_device_map.size();
                 });
    record::when("log 4 morrow: Entry [morrow_i3c_device_do_notify]",
                 [&whenNotified]
                 {
                     whenNotified = i3c_device_map + i3c_discovered_map;
                 });
    scan_i3c_device(controller0, entry0);
    EXPECT_EQ(whenSpoken, 0U);
    EXPECT_THAT(whenNotified, ElementsAre(node0, controller0));
}

TEST_F(Scan, ClassEntryThatIsNoDirectoryIsIgnored)
{
    const auto expectIgnored = []
    {
        scan_i3c_device(controller0, entry0);
        EXPECT_THAT(trace(), IsEmpty());
        EXPECT_THAT(i3c_device_map, IsEmpty());
        EXPECT_THAT(i3c_discovered_map, IsEmpty());
        std::filesystem::remove(entry0);
    };
    expectIgnored(); // it is missing
    std::ofstream(entry0).flush();
    expectIgnored();
    std::filesystem::create_directory_symlink("/sys/devices/gone", entry0);
    expectIgnored();
    std::filesystem::create_directory_symlink(entry0, entry0);
    expectIgnored();
}

TEST_F(Scan, TheNodeIsNamedAfterTheClassEntryAlone)
{
    DriverFiles::makeClassEntry(0);
    scan_i3c_device(controller1, entry0);
    // A link to a directory counts, too.
    std::filesystem::create_directories("/sys/devices/i3c-mctp-1");
    std::filesystem::create_directory_symlink("/sys/devices/i3c-mctp-1",
                                              entry1);
    scan_i3c_device(controller0, entry1);
    // What is behind the last slash.
    scan_i3c_device(controller0, entry0 + "/");
    EXPECT_THAT(i3c_device_map, ElementsAre(node0, node1, "/dev/"));
    EXPECT_THAT(i3c_discovered_map,
                ElementsAre(controller1, controller0, controller0));
}

TEST_F(Scan, TwiceAppendsTwice)
{
    DriverFiles::makeClassEntry(0);
    scan_i3c_device(controller0, entry0);
    scan_i3c_device(controller0, entry0);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0, node0));
    EXPECT_THAT(i3c_discovered_map, ElementsAre(controller0, controller0));
}

// The Discovery Notify exchange

TEST_F(Notify, GoodAnswerPublishesAfterOneAttempt)
{
    fake::endpoints[node0] = {fake::answer(0x9D)};
    EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
    expectTrace(goodExchange(node0));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
}

TEST_F(Notify, FillsBothRecordsBeforeEachAttempt)
{
    for (const std::size_t attempts : {1U, 3U})
    {
        fake::endpoints[node0] = {{.result = ETIMEDOUT, .eid = 0x42},
                                  fake::silence(),
                                  fake::answer(0x1D)};
        if (attempts == 1)
        {
            fake::endpoints[node0] = {fake::answer(0x1D)};
        }
        const auto before = record::count("send 00 81 0d");
        morrow_i3c_device_do_notify(node0);
        EXPECT_EQ(record::count("send 00 81 0d") - before, attempts);
        EXPECT_THAT(fake::lastRequestWords, ElementsAre(0, 3, 0, 1000, 0));
        EXPECT_THAT(fake::lastResponseWords, ElementsAre(0, 0, 0, 0));
    }
}

TEST_F(Notify, FailureIsTriedThreeTimesOrOnceWithTheStopFlag)
{
    const Texts attempt = attemptFails(node0);
    for (const uint8_t stop : {0, 1, 2, 0x80, 0xFF})
    {
        skipped += trace().size();
        // The response of a failed attempt is not evaluated.
        fake::endpoints[node0] = {{.result = ETIMEDOUT,
                                   .response = {0x00, 0x01, 0x0D, 0x00},
                                   .eid = 0x1D,
                                   .stop = stop}};
        EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
        expectTrace(exchangeOpens(node0) + attempt +
                    (stop == 0 ? attempt + attempt : Texts()) +
                    Texts{"~mctp_wrapper_ep " + node0});
        EXPECT_THAT(i3c_device_notify_map, IsEmpty());
    }
}

TEST_F(Notify, AnswerOfLessThanThreeBytesEndsTheExchangeWhateverTheStopFlag)
{
    const Texts bytes{"log 4 morrow: [00]\n", "log 4 morrow: [01]\n"};
    for (const auto& [length, stop] :
         {std::pair{0U, 0}, {1U, 0}, {2U, 0}, {0U, 1}, {1U, 1}, {2U, 1}})
    {
        skipped += trace().size();
        std::vector<uint8_t> response{0x00, 0x01};
        response.resize(length);
        fake::endpoints[node0] = {{.response = response,
                                   .eid = 0x1D,
                                   .stop = static_cast<uint8_t>(stop)}};
        EXPECT_EQ(morrow_i3c_device_do_notify(node0), 2);
        expectTrace(exchangeOpens(node0) +
                    Texts{"send 00 81 0d", "log 4 morrow: resp_buffer.len = [" +
                                               std::to_string(length) + "]\n"} +
                    Texts(bytes.begin(),
                          bytes.begin() + static_cast<std::ptrdiff_t>(length)) +
                    Texts{"log 4 morrow: Invalid req_disc_notify response [" +
                              node0 + "]\n",
                          "~mctp_wrapper_ep " + node0});
        EXPECT_THAT(i3c_device_notify_map, IsEmpty());
    }
}

TEST_F(Notify, NumberOfAttemptsDependsOnTheAnswer)
{
    using Bytes = std::vector<uint8_t>;
    for (const auto& [response, stop, attempts] :
         {std::tuple{Bytes{0x00, 0x01, 0x0D}, 0, 1U},
          {Bytes{0x00, 0xFF, 0x0D, 0x80}, 0, 1U}, // an error, as a request
          {Bytes{0x00, 0x01, 0x0C, 0x00}, 0, 2U}, // wrong command
          {Bytes{0x05, 0x01, 0x0D}, 0, 2U}, // wrong type
          {Bytes{0x05, 0x01, 0x0D}, 1, 1U},
          {Bytes{0x05, 0x01, 0x0D}, 0x80, 1U}})
    {
        i3c_device_notify_map.clear();
        const auto before = record::count("send 00 81 0d");
        fake::endpoints[node0] = {{.response = response,
                                   .eid = 0x1D,
                                   .stop = static_cast<uint8_t>(stop)},
                                  fake::answer(0x1D)};
        EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
        EXPECT_EQ(record::count("send 00 81 0d") - before, attempts);
        EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
    }
}

TEST_F(Notify, ShortAnswerAfterAWrongOneStillPublishesNothing)
{
    fake::endpoints[node0] = {
        {.response = {0x7F, 0x01, 0x0D}, .eid = 0x1D},
        {.response = {0x00}, .eid = 0x1D},
    };
    EXPECT_EQ(morrow_i3c_device_do_notify(node0), 2);
    EXPECT_THAT(i3c_device_notify_map, IsEmpty());
}

TEST_F(Notify, WrongTypeThenFailuresPublishesAnyway)
{
    fake::endpoints[node0] = {{.response = {0x7F, 0x01, 0x0D}, .eid = 0x9D},
                              {.result = ETIMEDOUT, .eid = 0x42}};
    EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
    const Texts failed = attemptFails(node0);
    expectTrace(exchangeOpens(node0) +
                Texts{"send 00 81 0d", "log 4 morrow: resp_buffer.len = [3]\n",
                      "log 4 morrow: [7f]\n", "log 4 morrow: [01]\n",
                      "log 4 morrow: [0d]\n"} +
                failed + failed + publishesWithoutBus +
                Texts{"~mctp_wrapper_ep " + node0});
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
}

TEST_F(Notify, ThreeWrongAnswersPublishAfterTheThird)
{
    fake::endpoints[node0] = {{.response = {0x7F, 0x01, 0x0D}, .eid = 0x9D}};
    EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
    EXPECT_EQ(record::count("send 00 81 0d"), 3);
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
}

TEST_F(Notify, FailureWithTheStopFlagAfterAWrongAnswerPublishesAnyway)
{
    fake::endpoints[node0] = {{.response = {0x7F, 0x01, 0x0D}, .eid = 0x9D},
                              {.result = ETIMEDOUT, .stop = 1}};
    EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
    EXPECT_EQ(record::count("send 00 81 0d"), 2);
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
}

TEST_F(Notify, ExceptionOfTheTransportComesOutAfterTheEndpointIsGone)
{
    const fake::Attempt thrown{.throws = true};
    const fake::Attempt wrong{.response = {0x7F, 0x01, 0x0D}, .eid = 0x9D};
    for (const auto& attempts : {std::deque{thrown}, {wrong, thrown}})
    {
        fake::endpoints[node0] = attempts;
        EXPECT_THROW(morrow_i3c_device_do_notify(node0), std::runtime_error);
        EXPECT_EQ(trace().back(), "~mctp_wrapper_ep " + node0);
        EXPECT_THAT(i3c_device_notify_map, IsEmpty());
    }
}

TEST_F(Notify, LengthBeyondTheAreaIsNotRead)
{
    fake::endpoints[node0] = {
        {.response = {0x00, 0x01, 0x0D}, .eid = 0x1D, .beyond = 1000}};
    EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
    EXPECT_EQ(record::count("log 4 morrow: resp_buffer.len = [1003]\n"), 1);
    EXPECT_EQ(startingWith("log 4 morrow: [", trace()).size(), 160U);
}

TEST_F(Notify, AreaIsZeroedWhenTheExchangeStartsAndNotBeforeEachAttempt)
{
    // What the library says it wrote but did not is what was there before.
    fake::endpoints[node0] = {{.response = {0x7F, 0x01}, .beyond = 1},
                              {.response = {}, .beyond = 3}};
    EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
    EXPECT_EQ(record::count("log 4 morrow: [7f]\n"), 3);
    EXPECT_EQ(record::count("log 4 morrow: [01]\n"), 3);
    EXPECT_EQ(record::count("log 4 morrow: [00]\n"), 3);
}

TEST_F(OnTheBus, LastIdIsPublishedWithTheLastSlotThatAnIdHad)
{
    expectPublished({fake::answer(0x1D)}, 0x1D, 0);
    expectPublished({fake::answer(0x9D)}, 0x9D, 1);
    expectPublished({fake::answer(0x5D)}, 0x5D, 2);
    expectPublished({fake::answer(0xDD)}, 0xDD, 3);
    // Not the slot of the exchange before.
    expectPublished({fake::answer(0x42)}, 0x42, 0);
    expectPublished({wrongCommand(0xDD), fake::answer(0x42)}, 0x42, 3);
    expectPublished({wrongCommand(0xDD), fake::answer(0x1D)}, 0x1D, 0);
    // Failed attempts count, too.
    expectPublished({failure(0x5D), fake::answer(0x42)}, 0x42, 2);
    expectPublished({wrongCommand(0x9D), failure(0x43), failure(0x42)}, 0x42,
                    1);
    expectPublished(
        {wrongCommand(0x9D), wrongCommand(0x5D), wrongCommand(0x42)}, 0x42, 2);
    for (const uint8_t eid : {0x1E, 0x9E, 0x5E, 0xDE})
    {
        expectPublished({wrongCommand(0x9D), fake::answer(eid)}, eid, 1);
    }
}

TEST_F(Notify, NodeIsRecordedBeforeItsEndpointIsPublished)
{
    const Watch recorded("log 4 morrow_server: createEndpointObject - Enter",
                         i3c_device_notify_map);
    fake::endpoints[node0] = {fake::answer(0x9D)};
    EXPECT_EQ(morrow_i3c_device_do_notify(node0), 0);
    EXPECT_EQ(recorded.seen(), Texts{node0});
}

// Full discovery

TEST_F(FullDiscovery, LogsWhatFollowsBeforeItHappens)
{
    const Watch retry("log 4 morrow: Retry discovering i3c devices",
                      daemon_state);
    const Watch partial("log 4 morrow: Start partial discovery", daemon_state);
    const Watch complete("log 4 morrow: Discovery complete", daemon_state);
    driver.comesUp(controller0);
    driver.comesUp(controller1);
    for (const auto& [answers, watch] :
         {std::pair{0, &retry}, std::pair{1, &partial},
          std::pair{2, &complete}})
    {
        if (answers > 0)
        {
            fake::endpoints[node0] = {fake::answer(0x1D)};
        }
        if (answers > 1)
        {
            fake::endpoints[node1] = {fake::answer(0x9D)};
        }
        daemon_state = MORROW_ON_EVENT;
        run(full_discovery);
        EXPECT_EQ(watch->seen(), MORROW_ON_EVENT);
        EXPECT_NE(daemon_state, MORROW_ON_EVENT);
    }
}

TEST_F(FullDiscovery, BothAnsweringHasTheExpectedTrace)
{
    bothAnswer();
    fake::lockIds = {{node0, 10}, {node1, 11}};
    fake::shmIds = {{node0, 20}, {node1, 21}};
    DriverFiles::makeNode(0);
    DriverFiles::makeNode(1);
    i3c_device_map = {"left", "over"};
    i3c_discovered_map = {"left", "over"};
    i3c_device_notify_map = {"left", "over"};
    daemon_state = MORROW_ON_EVENT;

    run(full_discovery);

    EXPECT_THAT(trace(),
                ElementsAreArray(
                    Texts{
                        "log 4 morrow_server: morrow_dbus_server - Default "
                        "constructor\n",
                        "acquireLock /dev/i3c-mctp-0 gives 10",
                        "acquireLock /dev/i3c-mctp-1 gives 11",
                        "getShmId /dev/i3c-mctp-0 gives 20",
                        "getShmId /dev/i3c-mctp-1 gives 21",
                    } +
                    withdraws({}) + removesBoth + discoversBoth()));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0, node1));
    EXPECT_THAT(i3c_discovered_map, ElementsAre(controller0, controller1));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0, node1));
}

TEST_F(FullDiscovery, IdsOf0AreRemovedAndOfMinus1TheLockAlone)
{
    for (const int id : {0, -2})
    {
        fake::lockIds = {{node1, id}};
        fake::shmIds = {{node1, id}};
        run(full_discovery);
        EXPECT_EQ(record::count("removeLock " + std::to_string(id)), 1);
        EXPECT_EQ(record::count("removeShm " + std::to_string(id)), 1);
    }
    EXPECT_EQ(record::count("removeLock -1"), 2);
    EXPECT_EQ(record::count("removeShm -1"), 0);
}

TEST_F(FullDiscovery, OnlyTheFirstAnsweringStartsPartialDiscovery)
{
    driver.comesUp(controller0);
    fake::endpoints[node0] = {fake::answer(0x1D)};
    run(full_discovery);
    EXPECT_EQ(daemon_state, MORROW_PARTIAL_DISCOVERY_EVENT);
    EXPECT_THAT(trace(), Contains("log 4 morrow: Failed to open device node "
                                  "for fff11000.i3c\n"));
    EXPECT_THAT(trace(), Contains("setLockPermission /dev/i3c-mctp-1"));
    EXPECT_EQ(trace().back(), "log 4 morrow: Start partial discovery\n");
    EXPECT_THAT(i3c_device_map, ElementsAre(node0));
    EXPECT_THAT(i3c_discovered_map, ElementsAre(controller0));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
}

TEST_F(FullDiscovery, EndsEarlyWhenTheFirstNodeNeverOpens)
{
    driver.comesUp(controller1);
    run(full_discovery);
    expectWait(1, MORROW_ON_EVENT);
    const auto told = trace();
    // Silent from the first bind on: 31 polls and nothing else.
    const auto bind =
        std::find(told.begin(), told.end(), "write bind fff10000.i3c");
    ASSERT_NE(bind, told.end());
    EXPECT_EQ(Texts(bind + 1, told.end()), Texts(31, "sleep 100 ms"));
    EXPECT_THAT(told, Contains("write unbind fff11000.i3c"));
    EXPECT_THAT(told, Not(Contains("write bind fff11000.i3c")));
}

TEST_F(FullDiscovery, EndsEarlyAtTheSecondControllerToo)
{
    driver.comesUpWithoutClassEntry(controller0);
    record::when("setShmPermission /dev/i3c-mctp-0",
                 []
                 {
                     std::filesystem::remove(node0);
                 });
    run(full_discovery);
    expectWait(1, MORROW_ON_EVENT);
    expectTraceEndsWith(Texts{"write bind fff11000.i3c"} +
                        Texts(31, "sleep 100 ms"));
    EXPECT_THAT(i3c_device_map, IsEmpty());
}

TEST_F(FullDiscovery, NoEndpointAnsweringRetriesAfterThreeSeconds)
{
    driver.comesUp(controller0);
    driver.comesUp(controller1);
    run(full_discovery);
    expectWait(3, MORROW_ON_EVENT);
    expectTraceEndsWith({
        "log 4 morrow: Discovered i3c device: fff10000.i3c\n",
        "log 4 morrow: Discovered i3c device: fff11000.i3c\n",
        "log 4 morrow: Number of elements in i3c_device_map: 2\n",
        "log 4 morrow: Number of elements in i3c_device_notify_map: 0\n",
        "log 4 morrow: Retry discovering i3c devices:count = 0\n",
    });
}

TEST_F(FullDiscovery, MissingClassEntryMakesTheSecondControllerTheFirstAgain)
{
    driver.comesUpWithoutClassEntry(controller0);
    run(full_discovery);
    const auto told = trace();
    EXPECT_EQ(std::count(told.begin(), told.end(),
                         "setLockPermission /dev/i3c-mctp-0"),
              2);
    EXPECT_THAT(told, Not(Contains("setLockPermission /dev/i3c-mctp-1")));
    EXPECT_THAT(told, Contains("write bind fff11000.i3c"));
    EXPECT_THAT(i3c_device_map, IsEmpty());
    expectWait(3, MORROW_ON_EVENT);
}

TEST_F(FullDiscovery, FirstWithoutClassEntryLetsTheSecondBeScannedAsTheFirst)
{
    driver.comesUpWithoutClassEntry(controller0);
    fake::endpoints[node0] = {fake::answer(0x1D)};
    driver.afterEach(
        [](const std::string& event)
        {
            if (event == "write bind fff11000.i3c")
            {
                DriverFiles::makeClassEntry(0);
            }
        });
    run(full_discovery);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0));
    EXPECT_THAT(i3c_discovered_map, ElementsAre(controller1));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0));
}

TEST_F(FullDiscovery, OneOfTwoAnsweringStartsPartialDiscovery)
{
    driver.comesUp(controller0);
    driver.comesUp(controller1);
    fake::endpoints[node1] = {fake::answer(0x9D)};
    run(full_discovery);
    EXPECT_EQ(daemon_state, MORROW_PARTIAL_DISCOVERY_EVENT);
    EXPECT_THAT(i3c_device_map, ElementsAre(node0, node1));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node1));
}

TEST_F(FullDiscovery, UnopenableUnbindFileIsLoggedAndTheCycleGoesOn)
{
    DriverFiles::putAside("unbind");
    bothAnswer();
    run(full_discovery);
    EXPECT_THAT(
        trace(),
        testing::IsSupersetOf(
            {"log 4 morrow: Failed to open sysfs file for fff10000.i3c\n",
             "log 4 morrow: Failed to open sysfs file for fff11000.i3c\n"}));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(FullDiscovery, UnopenableBindFileIsLoggedAndTheNodeStillWaitedFor)
{
    DriverFiles::putAside("bind");
    run(full_discovery);
    expectTraceEndsWith(
        Texts{"log 4 morrow: Failed to open sysfs file for fff10000.i3c\n"} +
        Texts(31, "sleep 100 ms"));
    expectWait(1, MORROW_ON_EVENT);
}

TEST_F(FullDiscovery, ListsAreEmptiedBetweenTheIdsAndTheWithdrawal)
{
    i3c_device_map = {"left"};
    i3c_discovered_map = {"over"};
    i3c_device_notify_map = {"here"};
    Texts atTheIds;
    Texts atTheWithdrawal{"never seen"};
    const auto lists = []
    {
        return i3c_device_map + i3c_discovered_map + i3c_device_notify_map;
    };
    record::when("getShmId /dev/i3c-mctp-1",
                 [&]
                 {
                     atTheIds = lists();
                 });
    record::when("log 4 morrow_server: deleteAllEndpointObject - Enter",
                 [&]
                 {
                     atTheWithdrawal = lists();
                 });
    run(full_discovery);
    EXPECT_THAT(atTheIds, ElementsAre("left", "over", "here"));
    EXPECT_THAT(atTheWithdrawal, IsEmpty());
}

TEST_F(FullDiscovery, SleepsAreResumedAfterASignal)
{
    const auto interrupt = []
    {
        fake::interruptedSleeps = 1;
    };
    record::when("log 4 morrow_server: deleteAllEndpointObject - Exit",
                 interrupt);
    record::when("write unbind fff11000.i3c", interrupt);
    run(full_discovery);
    const auto told = startingWith("sleep", trace());
    EXPECT_THAT(Texts(told.begin(), told.begin() + 4),
                ElementsAre("sleep 100 ms", "sleep 50 ms", "sleep 2000 ms",
                            "sleep 1000 ms"));
}

TEST_F(FullDiscovery, ClassEntryWithoutANodeIsScannedAnyway)
{
    driver.comesUp(controller0);
    DriverFiles::makeClassEntry(1);
    fake::endpoints[node0] = {fake::answer(0x1D)};
    fake::endpoints[node1] = {fake::answer(0x9D)};
    run(full_discovery);
    EXPECT_THAT(trace(), Contains("log 4 morrow: Failed to open device node "
                                  "for fff11000.i3c\n"));
    EXPECT_THAT(i3c_device_notify_map, ElementsAre(node0, node1));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

// What is on the bus

TEST_F(OnTheBus, EachCycleWithdrawsTheEndpointsOfNetwork0Alone)
{
    for (const auto cycle : {full_discovery, power_off_cleanup})
    {
        for (const uint32_t network : {0U, 1U})
        {
            (void)server().createEndpointObject(network, 8, {}, 1, 0, node0);
        }
        EXPECT_EQ(endpoints(0).size(), 1U);
        EXPECT_EQ(cycle(), 0);
        EXPECT_THAT(endpoints(0), IsEmpty());
        EXPECT_THAT(endpoints(1), ElementsAre("/xyz/openbmc_project/mctp/1/8"));
    }
}

// Power-off cleanup

TEST_F(PowerOffCleanup, HasTheExpectedTrace)
{
    fake::lockIds = {{node0, 10}, {node1, 11}};
    fake::shmIds = {{node0, 20}, {node1, 21}};
    DriverFiles::makeNode(0);
    DriverFiles::makeNode(1);
    i3c_device_map = {node0, node1};
    i3c_discovered_map = {controller0, controller1};
    i3c_device_notify_map = {node0, node1};
    wait_ticks = 10;

    run(power_off_cleanup);

    EXPECT_THAT(trace(), ElementsAreArray(
                             Texts{"log 4 morrow_server: morrow_dbus_server - "
                                   "Default constructor\n",
                                   "acquireLock /dev/i3c-mctp-0 gives 10",
                                   "getShmId /dev/i3c-mctp-0 gives 20",
                                   "acquireLock /dev/i3c-mctp-1 gives 11",
                                   "getShmId /dev/i3c-mctp-1 gives 21"} +
                             withdraws({}) + removesBoth));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_THAT(i3c_device_map, IsEmpty());
    EXPECT_THAT(i3c_discovered_map, IsEmpty());
    EXPECT_THAT(i3c_device_notify_map, IsEmpty());
}

TEST_F(PowerOffCleanup, WithEmptyListsTouchesNoLockOrSharedMemory)
{
    fake::lockIds = {{node0, 10}, {node1, 11}};
    fake::shmIds = {{node0, 20}, {node1, 21}};
    DriverFiles::makeNode(0);
    DriverFiles::makeNode(1);
    run(power_off_cleanup);
    expectTrace(Texts{"log 4 morrow_server: morrow_dbus_server - "
                      "Default constructor\n"} +
                withdraws({}) +
                Texts{
                    "sleep 100 ms",
                    "remove /dev/i3c-mctp-0",
                    "remove /dev/i3c-mctp-1",
                    "write unbind fff10000.i3c",
                    "write unbind fff11000.i3c",
                });
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PowerOffCleanup, DeviceListedTwiceIsLookedUpAndRemovedTwice)
{
    fake::lockIds = {{node0, 10}};
    fake::shmIds = {{node0, 20}};
    i3c_device_map = {node0, node0};
    run(power_off_cleanup);
    EXPECT_EQ(record::count("acquireLock /dev/i3c-mctp-0 gives 10"), 2);
    EXPECT_EQ(record::count("getShmId /dev/i3c-mctp-0 gives 20"), 2);
    EXPECT_EQ(record::count("removeLock 10"), 2);
    EXPECT_EQ(record::count("removeShm 20"), 2);
}

TEST_F(PowerOffCleanup, IdsOf0AreRemovedAndOfMinus1LeftOut)
{
    for (const int id : {0, -2})
    {
        i3c_device_map = {node0, node1};
        fake::lockIds = {{node1, id}};
        fake::shmIds = {{node0, id}};
        run(power_off_cleanup);
        EXPECT_EQ(record::count("removeLock " + std::to_string(id)), 1);
        EXPECT_EQ(record::count("removeShm " + std::to_string(id)), 1);
    }
    EXPECT_EQ(record::count("removeLock -1"), 0);
    EXPECT_EQ(record::count("removeShm -1"), 0);
}

TEST_F(PowerOffCleanup, UnopenableUnbindFileIsLoggedBeforeItGoesIdle)
{
    const Texts logged{
        "log 4 morrow: Failed to open sysfs file for fff10000.i3c\n",
        "log 4 morrow: Failed to open sysfs file for fff11000.i3c\n"};
    const Watch lastUnbind(logged.back(), daemon_state);
    DriverFiles::putAside("unbind");
    daemon_state = MORROW_OFF_EVENT;
    run(power_off_cleanup);
    expectTraceEndsWith(logged);
    EXPECT_EQ(lastUnbind.seen(), MORROW_OFF_EVENT);
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PowerOffCleanup, ForgetsDevicesAndRetryBeforeTheWithdrawal)
{
    i3c_device_map = {node0};
    i3c_discovered_map = {controller0};
    i3c_device_notify_map = {node0};
    wait_ticks = 10;
    state_after_wait = MORROW_PARTIAL_DISCOVERY_EVENT;
    daemon_state = MORROW_WAIT_EVENT;
    Texts lists{"never seen"};
    int32_t ticks = -1;
    record::when("log 4 morrow_server: deleteAllEndpointObject - Enter",
                 [&]
                 {
                     lists = i3c_device_map + i3c_discovered_map +
                             i3c_device_notify_map;
                     ticks = wait_ticks;
                 });
    run(power_off_cleanup);
    EXPECT_THAT(lists, IsEmpty());
    EXPECT_EQ(ticks, 0);
    EXPECT_EQ(wait_ticks, 0);
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(PowerOffCleanup, SleepIsResumedAfterASignal)
{
    fake::interruptedSleeps = 1;
    run(power_off_cleanup);
    EXPECT_EQ(record::count("sleep 100 ms"), 1);
    EXPECT_EQ(record::count("sleep 50 ms"), 1);
}
