// SPDX-License-Identifier: Apache-2.0
#include "morrow/morrow.hpp"
#include "morrow/morrow_client.hpp"
#include "morrow/power_state.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/bus_proxy.hpp"
#include "tests/support/bus_spy.hpp"
#include "tests/support/event_loop.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/heap.hpp"
#include "tests/support/host_service.hpp"
#include "tests/support/hung_up_pipe.hpp"
#include "tests/support/leave.hpp"
#include "tests/support/limits.hpp"
#include "tests/support/mutex_look.hpp"
#include "tests/support/record.hpp"
#include "tests/support/story.hpp"
#include "tests/support/wrapper.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;
using namespace telling;

namespace
{

constexpr const char* initialised =
    "log 4 morrow_client: createMorrowEventLoop - morrow DBus Client "
    "Initialization Completed.\n";
constexpr const char* starting =
    "log 4 morrow_client: createMorrowEventLoop - Starting sd_event_loop\n";
constexpr const char* threadExits =
    "log 4 morrow_client: morrowClientDBusHandler - Exit\n";
constexpr const char* initExits =
    "log 4 morrow_client: morrow_dbus_client_init - Exit\n";

/** What the client thread logs of its maps. */
const Texts fillsItsMaps{
    "log 4 morrow_client: FillobjectMap - Enter\n",
    "log 4 morrow_client: FillStaticObject - Enter\n",
    "log 4 morrow_client: FillStaticObject - Exit\n",
    "log 4 morrow_client: ReadObjectMap - Enter\n",
    "log 4 morrow_client: ReadObjectMap-Key:currenthoststate,"
    "Ser:xyz.openbmc_project.State.Host0,"
    "Obj:/xyz/openbmc_project/state/host0\n",
    "log 4 morrow_client: ReadObjectMap-Key:currenthoststate,"
    "Int:xyz.openbmc_project.State.Host\n",
    "log 4 morrow_client: ReadObjectMap - Exit\n",
    "log 4 morrow_client: FillMethodMap - Enter\n",
    "log 4 morrow_client: FillMethodMap - Exit\n",
    "log 4 morrow_client: ReadMethodMap - Enter\n",
    "log 4 morrow_client: ReadMethodMap-Key:UpdateModulesPICPWRPolicy,"
    "Ser:com.kestrel.bmc.power,Obj:/com/kestrel/bmc/power\n",
    "log 4 morrow_client: ReadMethodMap-Key:UpdateModulesPICPWRPolicy,"
    "Int:com.kestrel.bmc.power.PowerPolicy,Met:UpdateModulesPICPWRPolicy\n",
    "log 4 morrow_client: ReadMethodMap - Exit\n",
};

morrow_dbus_client& client()
{
    return morrow_dbus_client::get_instance();
}

/** Runs client start-up on a thread of its own until a text is logged; ends
 *  the process with 42 when that happened, start-up has not returned and the
 *  client thread's story holds as told. */
[[noreturn]] void startAndExpectNoReturn(const std::string& seen,
                                         const Texts& story)
{
    const auto started =
        std::async(std::launch::async, morrow_dbus_client_init);
    const bool happened = record::waitFor(seen);
    const auto told = record::textsOf(threadOf(seen));
    EXPECT_EQ(told, story);
    // Time enough for what must not happen.
    const bool waits = started.wait_for(std::chrono::milliseconds(100)) ==
                       std::future_status::timeout;
    leave(happened && told == story && waits ? 42 : 1);
}

class WithBroker : public testing::Test
{
  protected:
    Broker broker;
};

class ClientStart : public WithBroker
{
};

class ClientMaps : public testing::Test
{
};

/** Tests with a client that runs. */
class Client : public WithBroker
{
  protected:
    Client()
    {
        EXPECT_EQ(morrow_dbus_client_init(), 0);
        EXPECT_TRUE(record::waitFor(starting));
        thread = threadOf(initialised);
        behind = record::textsOf(thread).size();
    }

    ~Client() override
    {
        if (record::count(threadExits) == 0)
        {
            EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
        }
    }

    /** The client thread's events since start-up. */
    Texts threadStory() const
    {
        return storyOf(thread, behind);
    }

    pid_t thread = 0;
    std::size_t behind = 0;
};

class ClientStop : public Client
{
};

class ReadsHostState : public Client
{
  protected:
    ReadsHostState()
    {
        power_down_pending = 0;
        await_host_running = 0;
    }

    HostService host;
};

class Decoding : public ReadsHostState
{
  protected:
    /** Reads the property, which the host answers so. */
    PropertyValue read(const HostService::Fill& fill)
    {
        host.answers(fill);
        PropertyValue result;
        EXPECT_EQ(client().GetProperty("currenthoststate", "CurrentHostState",
                                       [&result](const std::string&,
                                                 const std::string&,
                                                 const PropertyValue& value)
                                       {
                                           result = value;
                                       }),
                  0);
        return result;
    }
};

class PowerSignals : public Client
{
  protected:
    PowerSignals()
    {
        power_down_pending = 0;
        await_host_running = 0;
    }

    /** What handling the signals so far logged: all that comes before a
     *  signal of the reset cause that changes nothing. */
    Texts handled()
    {
        return handledBefore(HostControl::resetCause, resetPath);
    }

    /** The same for signals of the reset cause. */
    Texts handledResets()
    {
        return handledBefore(HostControl::powerState, powerPath);
    }

    Texts handledBefore(const char* path, const std::string& logged)
    {
        control.changes(path, {});
        EXPECT_TRUE(record::waitFor(logged, ++marks));
        auto story = threadStory();
        story.pop_back();
        return story;
    }

    static bool flagsAreSet()
    {
        const bool first = shared_word::load(power_down_pending) == 1;
        EXPECT_EQ(shared_word::load(await_host_running), first ? 1 : 0);
        return first;
    }

    static constexpr const char* resetPath =
        "log 1 morrow_client: signalHandler_warmreset:Path:"
        "[/xyz/openbmc_project/control/host0/reset_cause]\n";
    static constexpr const char* powerPath =
        "log 1 morrow_client: signalHandler_internalpowerstate:Path:"
        "[/xyz/openbmc_project/control/host0/internal_power_state]\n";

    HostControl control;
    std::size_t marks = 0;
};

/** What the handler logs of a property, before it looks at its value. */
Texts tellsPowerState(const std::string& value)
{
    return {"log 4 morrow_client: signalHandler_internalpowerstate:Property "
            "name is  [InternalPowerState]\n",
            "log 4 morrow_client: Property value is [" + value + "]\n"};
}

Texts recognises(const std::string& state)
{
    const std::string text =
        "signalHandler_internalpowerstate:Power state is " + state + "\n";
    return {"log 4 morrow_client: " + text, "trace 4 morrow_client: " + text};
}

} // namespace

// Start-up

TEST_F(ClientStart, IsTheWholeStoryOnBothThreads)
{
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 4 morrow_client: morrow_dbus_client_init - Enter\n",
            "log 4 morrow_client: morrow_dbus_client - Default constructor\n",
            initExits));
    ASSERT_TRUE(record::waitFor(starting));
    EXPECT_THAT(
        record::textsOf(threadOf(initialised)),
        ElementsAreArray(
            Texts{"log 4 morrow_client: morrowClientDBusHandler - Enter\n"} +
            fillsItsMaps +
            Texts{"log 4 morrow_client: createMorrowEventLoop - Enter\n",
                  initialised, starting}));
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

TEST_F(ClientStart, ReturnsOnlyAfterTheLoopIsReady)
{
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    EXPECT_EQ(record::count(initialised), 1);
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

TEST_F(ClientStart, SubscribesToPowerStateThenToResetCauseThenFillsItsMaps)
{
    record::when("log 4 morrow_client: morrowClientDBusHandler - Enter",
                 bus_spy::watchThisThread);
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    auto told = record::textsOf(threadOf(initialised));
    std::erase_if(told,
                  [](const auto& text)
                  {
                      return !text.starts_with("adds the match ") &&
                             text.find("FillobjectMap") == std::string::npos;
                  });
    const std::string rule = "adds the match type='signal',"
                             "member='PropertiesChanged',"
                             "path='/xyz/openbmc_project/control/host0/";
    const std::string interface =
        "',interface='org.freedesktop.DBus.Properties',";
    EXPECT_THAT(told,
                ElementsAre(rule + "internal_power_state" + interface,
                            rule + "reset_cause" + interface,
                            "log 4 morrow_client: FillobjectMap - Enter\n"));
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

TEST_F(ClientStart, SubscriptionsThatFailAreIgnored)
{
    bus_spy::failSubscriptions(ENOBUFS);
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    EXPECT_EQ(record::count(threadExits), 1);
}

TEST_F(ClientStart, ReturnsBetweenTheLineOfReadinessAndTheStartOfTheLoop)
{
    std::size_t returnedBefore = 1;
    bool returnedAfter = false;
    record::when(initialised,
                 [&returnedBefore]
                 {
                     // Time enough for what must not happen yet.
                     (void)poll(nullptr, 0, 100);
                     returnedBefore = record::count(initExits);
                 });
    record::when("log 4 morrow_client: createMorrowEventLoop - Starting "
                 "sd_event_loop",
                 [&returnedAfter]
                 {
                     returnedAfter = record::waitFor(initExits);
                 });
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    EXPECT_EQ(returnedBefore, 0U);
    EXPECT_TRUE(returnedAfter);
}

TEST_F(ClientStart, PipeDoesNotOutliveAnExec)
{
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    EXPECT_EQ(fcntl(clientSignalPipe[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(clientSignalPipe[1], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

TEST_F(ClientStart, SemaphoreLastsUntilTheLoopIsReadyAndIsDestroyedTwice)
{
    fake::Semaphore whenReady{};
    record::when(initialised,
                 [&whenReady]
                 {
                     whenReady = fake::semaphore(&clientReadySemaphore);
                 });
    std::vector<int> destroyedAtExits;
    for (const char* exit :
         {"log 4 morrow_client: morrow_dbus_client_init - Exit",
          "log 4 morrow_client: stop_morrow_dbus_client - Exit"})
    {
        record::when(exit,
                     [&destroyedAtExits]
                     {
                         destroyedAtExits.push_back(
                             fake::semaphore(&clientReadySemaphore).destroyed);
                     });
    }
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    EXPECT_EQ(whenReady.shared, 0);
    EXPECT_EQ(whenReady.value, 0U);
    EXPECT_EQ(whenReady.destroyed, 0);
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    EXPECT_THAT(destroyedAtExits, ElementsAre(1, 2));
}

TEST_F(ClientStart, WithoutASemaphoreEndsWith1)
{
    fake::semaphoreInitError = ENOSYS;
    EXPECT_EQ(morrow_dbus_client_init(), 1);
    EXPECT_EQ(
        storyFrom(0),
        (Texts{"log 4 morrow_client: morrow_dbus_client_init - Enter\n",
               "log 4 morrow_client: morrow_dbus_client - Default "
               "constructor\n",
               "log 1 morrow_client: morrow_dbus_client_init -Semaphore init "
               "failed:Function not implemented\n",
               "log 4 morrow_client: morrow_dbus_client_init - Exit\n"}));
    EXPECT_EQ(clientSignalPipe, closedStopPipe);
}

TEST_F(ClientStart, WithoutADescriptorForThePipeEndsWith1)
{
    const limits::NoNewDescriptors none;
    EXPECT_EQ(morrow_dbus_client_init(), 1);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 4 morrow_client: morrow_dbus_client_init - Enter\n",
            "log 4 morrow_client: morrow_dbus_client - Default constructor\n",
            "log 1 morrow_client: morrow_dbus_client_init -Failed to create "
            "signal pipe: Too many open files\n",
            initExits));
}

TEST_F(ClientStart, WithoutAThreadEndsWith1)
{
    const limits::NoNewThreads none;
    EXPECT_EQ(morrow_dbus_client_init(), 1);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 4 morrow_client: morrow_dbus_client_init - Enter\n",
            "log 4 morrow_client: morrow_dbus_client - Default constructor\n",
            "log 1 morrow_client: morrow_dbus_client_init -Error creating "
            "thread\n",
            initExits));
}

TEST_F(ClientStart, AgainWhileTheThreadRunsEndsTheProcess)
{
    EXPECT_EXIT(
        {
            morrow_dbus_client_init();
            morrow_dbus_client_init();
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ClientStart, WithoutABusRunsItsLoopAllTheSameAndStops)
{
    broker.kill();
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    ASSERT_TRUE(record::waitFor(starting));
    const auto story = record::textsOf(threadOf(initialised));
    EXPECT_THAT(story.at(1),
                StartsWith("log 1 morrow_client: morrowClientDBusHandler "
                           "-Error: sd_bus_default_system: "));
    EXPECT_THAT(story.at(1), EndsWith("\n"));
    EXPECT_EQ(Texts(story.begin() + 2, story.end()),
              fillsItsMaps + Texts({"log 4 morrow_client: "
                                    "createMorrowEventLoop - Enter\n",
                                    initialised, starting}));
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    EXPECT_EQ(record::count(threadExits), 1);
}

TEST_F(ClientStart, HandshakeCutAfterAnyByteIsLoggedAndTheLoopRuns)
{
    const std::string failed =
        "log 1 morrow_client: morrowClientDBusHandler -Error: ";
    BusProxy proxy;
    const auto authentication = proxy.authenticationBytes();
    for (std::size_t bytes = 0;; ++bytes)
    {
        // The daemon leaves its event loop to the end of the process. Here
        // there are many, each given back on the thread that made it.
        record::when(threadExits,
                     []
                     {
                         sd_event_unref(clientEvent);
                     });
        proxy.pass(bytes, BusProxy::Then::close);
        const auto start = record::texts().size();
        ASSERT_EQ(morrow_dbus_client_init(), 0);
        ASSERT_EQ(client().stop_morrow_dbus_client(), 0);
        auto story = record::texts();
        story.erase(story.begin(),
                    story.begin() + static_cast<std::ptrdiff_t>(start));
        std::erase_if(story,
                      [&failed](const auto& text)
                      {
                          return !text.starts_with(failed);
                      });
        if (story.empty())
        {
            EXPECT_GT(bytes, authentication);
            return;
        }
        ASSERT_THAT(
            story, ElementsAre(StartsWith(failed + "sd_bus_get_unique_name: ")))
            << bytes;
    }
}

/** Start-up with a stop pipe that can't be polled for. */
[[noreturn]] void startWithAFileForAPipe()
{
    record::when("log 4 morrow_client: createMorrowEventLoop - Enter",
                 []
                 {
                     clientSignalPipe[0] =
                         open("/run/file", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
                 });
    startAndExpectNoReturn(
        threadExits,
        Texts{"log 4 morrow_client: morrowClientDBusHandler - Enter\n"} +
            fillsItsMaps +
            Texts{"log 4 morrow_client: createMorrowEventLoop - Enter\n",
                  "log 1 morrow_client: createMorrowEventLoop "
                  "-sd_event_add_io sig pipe failed: Operation not "
                  "permitted\n",
                  threadExits});
}

TEST_F(ClientStart, NeverReturnsWhenThePipeCannotBeWatched)
{
    EXPECT_EXIT(startWithAFileForAPipe(), testing::ExitedWithCode(42), "");
}

/** Start-up without descriptors for the loop. */
[[noreturn]] void startWithoutALoop()
{
    record::when("log 4 morrow_client: createMorrowEventLoop - Enter",
                 []
                 {
                     static const limits::NoNewDescriptors none;
                 });
    startAndExpectNoReturn(
        threadExits,
        Texts{"log 4 morrow_client: morrowClientDBusHandler - Enter\n"} +
            fillsItsMaps +
            Texts{"log 4 morrow_client: createMorrowEventLoop - Enter\n",
                  "log 1 morrow_client: createMorrowEventLoop "
                  "-sd_event_default failed:Too many open files\n",
                  "log 1 morrow_client: createMorrowEventLoop "
                  "-sd_event_add_io bus failed:Invalid argument\n",
                  "log 1 morrow_client: createMorrowEventLoop "
                  "-sd_event_add_io sig pipe failed: Invalid argument\n",
                  threadExits});
}

TEST_F(ClientStart, LoopThatCannotBeMadeIsLoggedStepByStep)
{
    EXPECT_EXIT(startWithoutALoop(), testing::ExitedWithCode(42), "");
}

TEST_F(ClientStart, StopByteWrittenBeforeTheLoopRunsEndsIt)
{
    record::when(initialised,
                 []
                 {
                     ASSERT_EQ(write(clientSignalPipe[1], "\1", 1), 1);
                 });
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    ASSERT_TRUE(record::waitFor(threadExits));
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

TEST_F(ClientStart, WatchesTheBusAndThePipeForInputAlone)
{
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    auto watched = event_loop::watchedBy(clientEvent);
    EXPECT_EQ(watched.size(), 2U);
    for (const auto& [fd, events] : watched)
    {
        EXPECT_EQ(events, static_cast<uint32_t>(EPOLLIN)) << fd;
    }
    EXPECT_TRUE(watched.contains(clientSignalPipe[0]));
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

TEST_F(ClientStart, WithoutAPipeOrAThreadTheSemaphoreGoes)
{
    {
        const limits::NoNewDescriptors none;
        EXPECT_EQ(morrow_dbus_client_init(), 1);
    }
    EXPECT_EQ(fake::semaphore(&clientReadySemaphore).destroyed, 1);
    const limits::NoNewThreads none;
    EXPECT_EQ(morrow_dbus_client_init(), 1);
    EXPECT_EQ(fake::semaphore(&clientReadySemaphore).destroyed, 1);
}

TEST_F(ClientStart, StopWithoutAThreadLeavesThePipeOpen)
{
    {
        const limits::NoNewThreads none;
        EXPECT_EQ(morrow_dbus_client_init(), 1);
    }
    const auto start = here();
    EXPECT_EQ(client().stop_morrow_dbus_client(), 1);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_client: stop_morrow_dbus_client - Enter\n",
                    "log 1 morrow_client: stop_morrow_dbus_client -Failed to "
                    "terminate thread: Invalid argument\n"));
    EXPECT_NE(fcntl(clientSignalPipe[0], F_GETFD), -1);
    EXPECT_NE(fcntl(clientSignalPipe[1], F_GETFD), -1);
}

TEST_F(ClientStart, ProcessThatEndsWithoutAStopIsAborted)
{
    EXPECT_EXIT(
        {
            morrow_dbus_client_init();
            std::exit(0);
        },
        testing::KilledBySignal(SIGABRT), "");
}

// The maps

TEST_F(ClientMaps, ListingAnEmptyObjectMapLogsThatAlone)
{
    (void)client();
    const auto start = here();
    client().ReadObjectMap();
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_client: ReadObjectMap - Enter\n",
                    "log 1 morrow_client: ReadObjectMap - No object present in "
                    "objectMap\n",
                    "log 4 morrow_client: ReadObjectMap - Exit\n"));
}

TEST_F(ClientMaps, ListingAnEmptyMethodMapLogsThatAlone)
{
    (void)client();
    const auto start = here();
    client().ReadMethodMap();
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_client: ReadMethodMap - Enter\n",
                    "log 1 morrow_client: ReadMethodMap - No method present in "
                    "methodMap\n",
                    "log 4 morrow_client: ReadMethodMap - Exit\n"));
}

TEST_F(ClientMaps, AKeyThatIsThereKeepsItsEntry)
{
    client().FillobjectMap();
    client().FillStaticObject("currenthoststate", "a", "b", "c");
    client().FillMethodMap();
    client().FillMethodMap();
    const auto start = here();
    client().ReadObjectMap();
    client().ReadMethodMap();
    EXPECT_EQ(storyFrom(start),
              Texts(fillsItsMaps.begin() + 3, fillsItsMaps.begin() + 7) +
                  Texts(fillsItsMaps.begin() + 9, fillsItsMaps.end()));
}

TEST_F(ClientMaps, AreFilledBetweenEntryAndExit)
{
    (void)client();
    const auto start = here();
    const auto readsObjects = []
    {
        client().ReadObjectMap();
    };
    const auto readsMethods = []
    {
        client().ReadMethodMap();
    };
    record::when("log 4 morrow_client: FillStaticObject - Enter", readsObjects);
    record::when("log 4 morrow_client: FillStaticObject - Exit", readsObjects);
    record::when("log 4 morrow_client: FillMethodMap - Enter", readsMethods);
    record::when("log 4 morrow_client: FillMethodMap - Exit", readsMethods);
    client().FillobjectMap();
    client().FillMethodMap();
    EXPECT_EQ(
        storyFrom(start),
        Texts(fillsItsMaps.begin(), fillsItsMaps.begin() + 2) +
            Texts({"log 4 morrow_client: ReadObjectMap - Enter\n",
                   "log 1 morrow_client: ReadObjectMap - No object present in "
                   "objectMap\n",
                   "log 4 morrow_client: ReadObjectMap - Exit\n"}) +
            Texts(fillsItsMaps.begin() + 2, fillsItsMaps.begin() + 8) +
            Texts({"log 4 morrow_client: ReadMethodMap - Enter\n",
                   "log 1 morrow_client: ReadMethodMap - No method present in "
                   "methodMap\n",
                   "log 4 morrow_client: ReadMethodMap - Exit\n"}) +
            Texts(fillsItsMaps.begin() + 8, fillsItsMaps.end()));
}

TEST_F(ClientMaps, AreListedInTheOrderOfTheirKeys)
{
    client().FillStaticObject("b", "sb", "ob", "ib");
    client().FillStaticObject("a", "sa", "oa", "ia");
    const auto start = here();
    client().ReadObjectMap();
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_client: ReadObjectMap - Enter\n",
                    "log 4 morrow_client: ReadObjectMap-Key:a,Ser:sa,Obj:oa\n",
                    "log 4 morrow_client: ReadObjectMap-Key:a,Int:ia\n",
                    "log 4 morrow_client: ReadObjectMap-Key:b,Ser:sb,Obj:ob\n",
                    "log 4 morrow_client: ReadObjectMap-Key:b,Int:ib\n",
                    "log 4 morrow_client: ReadObjectMap - Exit\n"));
}

TEST_F(ClientMaps, EmptyMapMakesEveryReadFailAsNotFound)
{
    current_host_state = "before";
    EXPECT_EQ(getcurrentpowerstate(), 1);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 4 morrow_client: morrow_dbus_client - Default constructor\n",
            "log 11 morrow_client: Entry [getcurrentpowerstate]\n",
            "log 4 morrow_client: GetProperty - Enter\n",
            "log 1 morrow_client: GetProperty -'currenthoststate' not found\n",
            "log 4 morrow_client: GetProperty - Exit\n",
            "log 2 morrow_client: Failed to set read property\n"));
    EXPECT_EQ(current_host_state, "before");
}

TEST_F(ClientMaps, KeyThatIsNotThereGives2)
{
    client().FillobjectMap();
    EXPECT_EQ(client().GetProperty("other", "CurrentHostState", {}), 2);
}

// Reading the host's state

TEST_F(ReadsHostState, RunningIsTheWholeStoryAndLeavesTheFlags)
{
    host.goesTo("Running");
    const auto start = here();
    EXPECT_EQ(getcurrentpowerstate(), 0);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 11 morrow_client: Entry [getcurrentpowerstate]\n",
                    "log 4 morrow_client: GetProperty - Enter\n",
                    "log 4 morrow_client: readproperty:objectName:"
                    "[currenthoststate],propertyName:[CurrentHostState]\n",
                    "log 4 morrow_client: readproperty:Power State is on\n",
                    "log 4 morrow_client: readproperty:property value is "
                    "[xyz.openbmc_project.State.Host.HostState.Running]\n",
                    "log 4 morrow_client: GetProperty - Exit\n"));
    EXPECT_EQ(current_host_state,
              "xyz.openbmc_project.State.Host.HostState.Running");
    EXPECT_EQ(power_down_pending, 0);
    EXPECT_EQ(await_host_running, 0);
    EXPECT_EQ(host.lastRead(),
              "xyz.openbmc_project.State.Host CurrentHostState");
}

TEST_F(ReadsHostState, OffIsTheWholeStoryAndSetsBothFlags)
{
    host.goesTo("Off");
    const auto start = here();
    EXPECT_EQ(getcurrentpowerstate(), 0);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 11 morrow_client: Entry [getcurrentpowerstate]\n",
                    "log 4 morrow_client: GetProperty - Enter\n",
                    "log 4 morrow_client: readproperty:objectName:"
                    "[currenthoststate],propertyName:[CurrentHostState]\n",
                    "log 4 morrow_client: readproperty:Power State is off\n",
                    "log 4 morrow_client: readproperty:property value is "
                    "[xyz.openbmc_project.State.Host.HostState.Off]\n",
                    "log 4 morrow_client: GetProperty - Exit\n"));
    EXPECT_EQ(power_down_pending, 1);
    EXPECT_EQ(await_host_running, 1);
}

TEST_F(ReadsHostState, OffIsLoggedBeforeTheFlagsAreSet)
{
    uint8_t whenLogged = 1;
    record::when("log 4 morrow_client: readproperty:Power State is off",
                 [&whenLogged]
                 {
                     whenLogged = power_down_pending;
                 });
    host.goesTo("Off");
    EXPECT_EQ(getcurrentpowerstate(), 0);
    EXPECT_EQ(whenLogged, 0);
}

TEST_F(ReadsHostState, AnyOtherTextCountsAsOff)
{
    for (const std::string& text :
         {std::string(), std::string("Running"),
          std::string("xyz.openbmc_project.State.Host.HostState.RunninG"),
          std::string("xyz.openbmc_project.State.Host.HostState.Running2"),
          std::string("a.xyz.openbmc_project.State.Host.HostState.Running"),
          std::string("a.Running"),
          std::string("xyz.openbmc_project.State.Host.HostState.Quiesced")})
    {
        power_down_pending = 0;
        await_host_running = 0;
        host.answersText(text);
        EXPECT_EQ(getcurrentpowerstate(), 0) << text;
        EXPECT_EQ(current_host_state, text);
        EXPECT_EQ(power_down_pending, 1) << text;
        EXPECT_EQ(await_host_running, 1) << text;
    }
}

TEST_F(ReadsHostState, AllocatesForTheValueAndTheCopiesOfTheCallbackAlone)
{
    if (!wrapper::bundled)
    {
        GTEST_SKIP() << "other wrappers allocate for themselves";
    }
    host.goesTo("Running");
    EXPECT_EQ(getcurrentpowerstate(), 0); // the first one makes room
    const auto before = heap::allocationsOfThisThread();
    EXPECT_EQ(getcurrentpowerstate(), 0);
    // The value, then copies of it, of the key and of the property's name.
    EXPECT_EQ(heap::allocationsOfThisThread() - before, 4);
}

TEST_F(ReadsHostState, ErrorReplyIsABusError)
{
    current_host_state = "before";
    host.answersError("test.Error.Broken");
    const auto start = here();
    EXPECT_EQ(getcurrentpowerstate(), 1);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 11 morrow_client: Entry [getcurrentpowerstate]\n",
                    "log 4 morrow_client: GetProperty - Enter\n",
                    "log 1 morrow_client: GetProperty -SdBusError:sd_bus_call: "
                    "test.Error.Broken: as the test wants it\n",
                    "log 4 morrow_client: GetProperty - Exit\n",
                    "log 2 morrow_client: Failed to set read property\n"));
    EXPECT_EQ(current_host_state, "before");
    EXPECT_EQ(power_down_pending, 0);
    EXPECT_EQ(await_host_running, 0);
}

TEST_F(ReadsHostState, ErrorReplyThatIsNotRaisedGives3AndIsNotDelivered)
{
    bus_spy::makeRepliesErrors();
    current_host_state = "before";
    host.goesTo("Running");
    const auto start = here();
    EXPECT_EQ(client().GetProperty("currenthoststate", "CurrentHostState",
                                   readproperty),
              3);
    EXPECT_THAT(storyFrom(start),
                ElementsAre("log 4 morrow_client: GetProperty - Enter\n",
                            "log 1 morrow_client: GetProperty -method error: "
                            "/xyz/openbmc_project/state/host0 object\n",
                            "log 4 morrow_client: GetProperty - Exit\n"));
    EXPECT_EQ(current_host_state, "before");
}

TEST_F(ReadsHostState, ReplyWithoutAVariantIsABusError)
{
    host.answers(
        [](sd_bus_message* reply)
        {
            return sd_bus_message_append(reply, "s", "text");
        });
    EXPECT_EQ(client().GetProperty("currenthoststate", "CurrentHostState",
                                   readproperty),
              1);
    EXPECT_EQ(record::count("log 1 morrow_client: GetProperty "
                            "-SdBusError:sd_bus_message_skip variant: "
                            "System.Error.ENXIO: No such device or address\n"),
              1);
}

TEST_F(ReadsHostState, EmptyCallbackRaises)
{
    EXPECT_THROW(
        client().GetProperty("currenthoststate", "CurrentHostState", {}),
        std::bad_function_call);
}

TEST_F(ReadsHostState, ValueThatIsNoTextRaisesAndChangesNothing)
{
    current_host_state = "before";
    host.answers(
        [](sd_bus_message* reply)
        {
            return sd_bus_message_append(reply, "v", "u", 1U);
        });
    try
    {
        getcurrentpowerstate();
        FAIL();
    }
    catch (const std::bad_variant_access& error)
    {
        EXPECT_STREQ(error.what(), "std::get: wrong index for variant");
    }
    EXPECT_EQ(current_host_state, "before");
    EXPECT_EQ(power_down_pending, 0);
}

TEST_F(ReadsHostState, TypeBeyondTheAlternativesRaisesToo)
{
    host.answers(
        [](sd_bus_message* reply)
        {
            return sd_bus_message_append(reply, "v", "o", "/a/path");
        });
    EXPECT_THROW(getcurrentpowerstate(), std::bad_variant_access);
    EXPECT_EQ(record::count("log 4 morrow_client: readproperty:objectName:"
                            "[currenthoststate],propertyName:"
                            "[CurrentHostState]\n"),
              1);
}

TEST_F(ReadsHostState, UsesTheDefaultConnectionOfTheCallingThread)
{
    sd_bus* mine = nullptr;
    ASSERT_GE(sd_bus_default(&mine), 0);
    const char* name = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(mine, &name), 0);
    EXPECT_EQ(getcurrentpowerstate(), 0);
    EXPECT_EQ(host.lastReader(), name);
    sd_bus_unref(mine);
}

TEST_F(ReadsHostState, ReadsLeaveNoDescriptorBehind)
{
    const auto descriptors = []
    {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    EXPECT_EQ(getcurrentpowerstate(), 0);
    const auto before = descriptors();
    for (int pass = 0; pass < 100; ++pass)
    {
        EXPECT_EQ(getcurrentpowerstate(), 0);
    }
    EXPECT_EQ(descriptors(), before);
}

TEST_F(ReadsHostState, HandshakeCutAfterAnyByteIsABusError)
{
    const std::string failed = "log 1 morrow_client: GetProperty -SdBusError:";
    current_host_state = "before";
    BusProxy proxy;
    const auto authentication = proxy.authenticationBytes();
    std::size_t bytes = 0;
    for (bool shaken = false; !shaken; ++bytes)
    {
        proxy.pass(bytes, BusProxy::Then::close);
        const auto start = here();
        ASSERT_EQ(getcurrentpowerstate(), 1) << bytes;
        const auto story = storyFrom(start);
        // What follows the handshake is the call's.
        shaken = story.at(2).starts_with(failed + "sd_bus_call: ");
        ASSERT_TRUE(shaken || story.at(2).starts_with(
                                  failed + "sd_bus_get_unique_name: "))
            << bytes << ": " << story.at(2);
        ASSERT_THAT(
            story, ElementsAre(
                       "log 11 morrow_client: Entry [getcurrentpowerstate]\n",
                       "log 4 morrow_client: GetProperty - Enter\n",
                       story.at(2), "log 4 morrow_client: GetProperty - Exit\n",
                       "log 2 morrow_client: Failed to set read property\n"));
    }
    EXPECT_GT(bytes, authentication);
    EXPECT_EQ(current_host_state, "before");
    EXPECT_EQ(power_down_pending, 0);
    EXPECT_EQ(await_host_running, 0);
}

TEST_F(ReadsHostState, HandshakeThatIsNeverAnsweredIsABusError)
{
    setenv("SYSTEMD_BUS_TIMEOUT", "100ms", 1); // otherwise 25 seconds
    BusProxy proxy;
    proxy.pass(proxy.authenticationBytes(), BusProxy::Then::silence);
    const auto start = here();
    EXPECT_EQ(getcurrentpowerstate(), 1);
    EXPECT_THAT(storyFrom(start).at(2),
                StartsWith("log 1 morrow_client: GetProperty "
                           "-SdBusError:sd_bus_get_unique_name: "));
}

TEST_F(ReadsHostState, RunningLeavesFlagsThatAreSet)
{
    power_down_pending = 1;
    await_host_running = 1;
    host.goesTo("Running");
    EXPECT_EQ(getcurrentpowerstate(), 0);
    EXPECT_EQ(power_down_pending, 1);
    EXPECT_EQ(await_host_running, 1);
}

TEST_F(ReadsHostState, WaitsForTheAnswerAsLongAsTheLibraryDoes)
{
    bus_spy::watchThisThread();
    EXPECT_EQ(getcurrentpowerstate(), 0);
    EXPECT_EQ(record::count("waits 0 us for an answer"), 1);
}

TEST_F(Client, ReadWithoutTheServiceIsABusErrorAndKeepsWhatWas)
{
    current_host_state = "before";
    power_down_pending = 0;
    await_host_running = 0;
    const auto start = here();
    EXPECT_EQ(getcurrentpowerstate(), 1);
    EXPECT_THAT(storyFrom(start).at(2),
                StartsWith("log 1 morrow_client: GetProperty "
                           "-SdBusError:sd_bus_call: "
                           "org.freedesktop.DBus.Error."));
    EXPECT_EQ(current_host_state, "before");
    EXPECT_EQ(power_down_pending, 0);
    EXPECT_EQ(await_host_running, 0);
}

TEST_F(Client, ReadWithoutABusIsABusError)
{
    record::when("log 1 morrow_client: morrowClientProcessRequest -Error:",
                 []
                 {
                     ASSERT_EQ(write(clientSignalPipe[1], "\1", 1), 1);
                 });
    broker.kill();
    EXPECT_EQ(getcurrentpowerstate(), 1);
    EXPECT_THAT(storyFrom(0),
                Contains(StartsWith("log 1 morrow_client: GetProperty "
                                    "-SdBusError:sd_bus_default: ")));
    ASSERT_TRUE(record::waitFor(threadExits));
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

// Decoding a property's value

TEST_F(Decoding, EachTypeFindsItsAlternative)
{
    const auto of = [this](const char* type, auto value)
    {
        return read(
            [type, value](sd_bus_message* reply)
            {
                return sd_bus_message_append(reply, "v", type, value);
            });
    };
    EXPECT_EQ(of("s", "text"), PropertyValue("text"));
    EXPECT_EQ(of("x", int64_t{-5}), PropertyValue(int64_t{-5}));
    EXPECT_EQ(of("t", uint64_t{5}), PropertyValue(uint64_t{5}));
    EXPECT_EQ(of("d", 2.5), PropertyValue(2.5));
    EXPECT_EQ(of("i", -7), PropertyValue(int32_t{-7}));
    EXPECT_EQ(of("u", 7U), PropertyValue(uint32_t{7}));
    EXPECT_EQ(of("n", -9), PropertyValue(int16_t{-9}));
    EXPECT_EQ(of("q", 9), PropertyValue(uint16_t{9}));
    EXPECT_EQ(of("y", 200), PropertyValue(uint8_t{200}));
    EXPECT_EQ(of("b", 1), PropertyValue(true));
    EXPECT_EQ(read(
                  [](sd_bus_message* reply)
                  {
                      return sd_bus_message_append(reply, "v", "as", 2, "a",
                                                   "b");
                  }),
              PropertyValue(std::vector<std::string>{"a", "b"}));
}

TEST(PropertyValues, HaveTheirAlternativesInOrder)
{
    static_assert(std::is_same_v<
                  PropertyValue,
                  std::variant<std::vector<std::string>, std::string, int64_t,
                               uint64_t, double, int32_t, uint32_t, int16_t,
                               uint16_t, uint8_t, bool>>);
    EXPECT_EQ(PropertyValue().index(), 0U);
}

TEST_F(Decoding, OtherTypesBecomeAnEmptyList)
{
    EXPECT_EQ(read(
                  [](sd_bus_message* reply)
                  {
                      return sd_bus_message_append(reply, "v", "o", "/a");
                  }),
              PropertyValue(std::vector<std::string>{}));
    EXPECT_EQ(read(
                  [](sd_bus_message* reply)
                  {
                      return sd_bus_message_append(reply, "v", "ay", 1, 1);
                  }),
              PropertyValue(std::vector<std::string>{}));
}

// Power-state signals

TEST_F(PowerSignals, EachStateIsRecognisedAsTheTableSays)
{
    struct Row
    {
        const char* state;
        bool sets;
    };
    for (const Row& row :
         {Row{"S0InReset", true}, Row{"PreStandby", true}, Row{"StateS6", true},
          Row{"StateS5Early", true}, Row{"StateS5S3Mbusy", true},
          Row{"StateS5", true}, Row{"S5OnPending", true},
          Row{"OffPendingS0", false}, Row{"Unknown", true}})
    {
        shared_word::store<uint8_t>(power_down_pending, 0);
        shared_word::store<uint8_t>(await_host_running, 0);
        behind = record::textsOf(thread).size();
        const std::string value = std::string("some.State.") + row.state;
        control.changes(HostControl::powerState,
                        {{"InternalPowerState", value}});
        EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState(value) +
                                 recognises(row.state));
        EXPECT_EQ(flagsAreSet(), row.sets) << row.state;
    }
}

TEST_F(PowerSignals, EachStateHasAFormatOfItsOwn)
{
    for (const std::string state : {"S0InReset", "PreStandby", "StateS6",
                                    "StateS5Early", "StateS5S3Mbusy", "StateS5",
                                    "S5OnPending", "OffPendingS0", "Unknown"})
    {
        control.changes(HostControl::powerState,
                        {{"InternalPowerState", "." + state}});
        (void)handled();
        const auto format = "%s:Power state is " + state + "\n";
        const auto all = record::events();
        EXPECT_EQ(std::count_if(all.begin(), all.end(),
                                [&format](const auto& event)
                                {
                                    return event.format != nullptr &&
                                           event.format == format;
                                }),
                  2) // the log's and the trace's
            << state;
    }
}

TEST_F(PowerSignals, StateWithoutItsLastLetterIsAnotherOne)
{
    struct Row
    {
        const char* text;
        Texts recognised;
    };
    // Two of them still hold the text of a third.
    for (const Row& row :
         {Row{".S0InRese", {}}, Row{".PreStandb", {}}, Row{".StateS", {}},
          Row{".StateS5Earl", recognises("StateS5")},
          Row{".StateS5S3Mbus", recognises("StateS5")}, Row{".S5OnPendin", {}},
          Row{".OffPendingS", {}}, Row{".Unknow", {}}})
    {
        behind = record::textsOf(thread).size();
        control.changes(HostControl::powerState,
                        {{"InternalPowerState", row.text}});
        EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState(row.text) +
                                 row.recognised);
    }
}

TEST_F(PowerSignals, FlagsAreSetAfterTheTrace)
{
    std::vector<bool> setWhenTraced;
    for (const char* text :
         {"trace 4 morrow_client: signalHandler_internalpowerstate:",
          "trace 4 morrow_client: signalHandler_warmreset:"})
    {
        record::when(text,
                     [&setWhenTraced]
                     {
                         setWhenTraced.push_back(flagsAreSet());
                     });
    }
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.StateS5"}});
    (void)handled();
    EXPECT_TRUE(flagsAreSet());
    shared_word::store<uint8_t>(power_down_pending, 0);
    shared_word::store<uint8_t>(await_host_running, 0);
    control.changes(HostControl::resetCause, {{"ResetCause", "a.WarmReset"}});
    (void)handledResets();
    EXPECT_TRUE(flagsAreSet());
    EXPECT_THAT(setWhenTraced, ElementsAre(false, false));
}

TEST_F(PowerSignals, TheFirstRowThatFitsDecides)
{
    const std::string value = "a.Unknown.OffPendingS0.StateS6";
    control.changes(HostControl::powerState, {{"InternalPowerState", value}});
    EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState(value) +
                             recognises("StateS6"));
}

TEST_F(PowerSignals, EachRowComesBeforeTheNext)
{
    const Texts rows{"S0InReset",    "PreStandby",     "StateS6",
                     "StateS5Early", "StateS5S3Mbusy", "StateS5",
                     "S5OnPending",  "OffPendingS0",   "Unknown"};
    for (std::size_t row = 0; row + 1 < rows.size(); ++row)
    {
        behind = record::textsOf(thread).size();
        const std::string value = "." + rows[row + 1] + "." + rows[row];
        control.changes(HostControl::powerState,
                        {{"InternalPowerState", value}});
        EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState(value) +
                                 recognises(rows[row]));
    }
}

TEST_F(PowerSignals, StateWithoutItsLeadingDotIsNotRecognised)
{
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "S0InReset"}});
    EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState("S0InReset"));
    EXPECT_FALSE(flagsAreSet());
}

TEST_F(PowerSignals, OtherPropertiesArePassedOver)
{
    control.changes(
        HostControl::powerState,
        {{"Other", "a.StateS5"}, {"internalPowerState", ".Unknown"}});
    EXPECT_THAT(handled(), ElementsAre(powerPath));
    EXPECT_FALSE(flagsAreSet());
}

TEST_F(PowerSignals, EmptyDictionaryEndsTheHandler)
{
    control.changes(HostControl::powerState, {});
    EXPECT_THAT(handled(), ElementsAre(powerPath));
}

TEST_F(PowerSignals, TwoMatchingEntriesAreLoggedTwice)
{
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.StateS5"},
                     {"InternalPowerState", "a.Unknown"}});
    EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState("a.StateS5") +
                             recognises("StateS5") +
                             tellsPowerState("a.Unknown") +
                             recognises("Unknown"));
    EXPECT_TRUE(flagsAreSet());
}

TEST_F(PowerSignals, EntriesThatDoNotMatchDoNotEndTheWalk)
{
    control.changes(HostControl::powerState,
                    {{"Other", "x"},
                     {"InternalPowerState", "a.Unheard"},
                     {"InternalPowerState", "a.StateS5"}});
    EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState("a.Unheard") +
                             tellsPowerState("a.StateS5") +
                             recognises("StateS5"));
    EXPECT_TRUE(flagsAreSet());
}

TEST_F(PowerSignals, TwoSignalsAreHandledInTheirOrder)
{
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.StateS6"}});
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.PreStandby"}});
    EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState("a.StateS6") +
                             recognises("StateS6") + Texts{powerPath} +
                             tellsPowerState("a.PreStandby") +
                             recognises("PreStandby"));
}

TEST_F(PowerSignals, TwoSignalsThatWaitAreServedInOneCall)
{
    // The client's handler waits for the mutex while both arrive.
    std::unique_lock lock(clientBusMutex);
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.StateS6"}});
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.PreStandby"}});
    // Between the two, the mutex can't be had: one call serves both.
    bool free = false;
    record::when("log 4 morrow_client: signalHandler_internalpowerstate:Power "
                 "state is PreStandby",
                 [&free]
                 {
                     free = isFreeForAnother(clientBusMutex);
                 });
    lock.unlock();
    EXPECT_THAT(handled(),
                Contains("log 4 morrow_client: signalHandler_"
                         "internalpowerstate:Power state is PreStandby\n"));
    EXPECT_FALSE(free);
}

TEST_F(PowerSignals, NextOneIsWaitedForAMillisecond)
{
    record::when(resetPath, bus_spy::watchThisThread);
    control.changes(HostControl::resetCause, {});
    ASSERT_TRUE(record::waitFor("waits 1000 us for the bus"));
    auto waits = threadStory();
    std::erase_if(waits,
                  [](const auto& text)
                  {
                      return !text.starts_with("waits ");
                  });
    EXPECT_EQ(waits, Texts(waits.size(), "waits 1000 us for the bus"));
}

TEST_F(PowerSignals, MutexIsKeptInTheWaitForTheNextOne)
{
    record::when(resetPath, bus_spy::watchThisThread);
    bool free = true;
    record::when("waits 1000 us for the bus",
                 [&free]
                 {
                     free = isFreeForAnother(clientBusMutex);
                 });
    control.changes(HostControl::resetCause, {});
    ASSERT_TRUE(record::waitFor("finds nothing more to do"));
    EXPECT_FALSE(free);
}

TEST_F(ClientStart, ServingSignalsWithoutABusEndsWith0)
{
    EXPECT_EQ(morrowClientProcessRequest(nullptr, -1, 0, nullptr), 0);
    EXPECT_TRUE(isFreeForAnother(clientBusMutex));
}

TEST_F(Client, ServingSignalsAlwaysEndsWith0)
{
    EXPECT_EQ(morrowClientProcessRequest(nullptr, -1, 0, nullptr), 0);
}

TEST_F(PowerSignals, BurstIsServedUntilNothingIsLeft)
{
    auto watched = event_loop::watchedBy(clientEvent);
    watched.erase(clientSignalPipe[0]);
    const int bus = watched.begin()->first;
    // While the first is handled, the second arrives.
    record::when(
        "trace 4 morrow_client: signalHandler_internalpowerstate:Power state "
        "is StateS6",
        [&]
        {
            HostControl().changes(HostControl::powerState,
                                  {{"InternalPowerState", "a.PreStandby"}});
            EXPECT_TRUE(record::waitUntil(
                [bus]
                {
                    int waiting = 0;
                    return ioctl(bus, FIONREAD, &waiting) == 0 && waiting > 0;
                }));
            bus_spy::watchThisThread();
        });
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.StateS6"}});
    ASSERT_TRUE(record::waitFor("finds nothing more to do"));
    auto told = threadStory();
    told.erase(std::find(told.begin(), told.end(), "finds nothing more to do"),
               told.end());
    EXPECT_THAT(told, Contains("trace 4 morrow_client: "
                               "signalHandler_internalpowerstate:Power state "
                               "is PreStandby\n"));
}

TEST_F(PowerSignals, WarmResetSetsTheFlags)
{
    control.changes(HostControl::resetCause, {{"ResetCause", "a.WarmReset"}});
    EXPECT_THAT(
        handledResets(),
        ElementsAre(
            resetPath,
            "log 4 morrow_client: signalHandler_warmreset:Property name is "
            "[ResetCause]\n",
            "log 4 morrow_client: signalHandler_warmreset:Property value is "
            "[a.WarmReset]\n",
            "log 4 morrow_client: signalHandler_warmreset: Power State is "
            "WarmReset\n",
            "trace 4 morrow_client: signalHandler_warmreset: Power State is "
            "WarmReset\n"));
    EXPECT_TRUE(flagsAreSet());
}

TEST_F(PowerSignals, OtherResetCausesAreIgnored)
{
    for (const char* cause :
         {"a.ColdReset", "WarmReset", "a.warmreset", "a.WarmRese"})
    {
        behind = record::textsOf(thread).size();
        control.changes(HostControl::resetCause, {{"ResetCause", cause}});
        EXPECT_THAT(
            handledResets(),
            ElementsAre(resetPath,
                        "log 4 morrow_client: signalHandler_warmreset:Property "
                        "name is [ResetCause]\n",
                        "log 4 morrow_client: signalHandler_warmreset:Property "
                        "value is [" +
                            std::string(cause) + "]\n"));
        EXPECT_FALSE(flagsAreSet());
    }
}

TEST_F(PowerSignals, ResetCauseBehindOtherEntriesCounts)
{
    control.changes(HostControl::resetCause, {{"Other", "x"},
                                              {"ResetCause", "a.ColdReset"},
                                              {"ResetCause", "a.WarmReset"}});
    (void)handledResets();
    EXPECT_TRUE(flagsAreSet());
}

TEST_F(PowerSignals, ResetWithoutItsPropertyLogsThePathAlone)
{
    control.changes(HostControl::resetCause,
                    {{"InternalPowerState", "a.WarmReset"}});
    EXPECT_THAT(handledResets(), ElementsAre(resetPath));
    EXPECT_FALSE(flagsAreSet());
}

TEST_F(PowerSignals, ResetStaysAReset)
{
    control.changes(HostControl::powerState, {{"ResetCause", "a.WarmReset"}});
    EXPECT_THAT(handled(), ElementsAre(powerPath));
    EXPECT_FALSE(flagsAreSet());
}

TEST_F(PowerSignals, ComeFromAnySenderAndForAnyInterface)
{
    const auto fill = [](sd_bus_message* message)
    {
        return sd_bus_message_append(message, "sa{sv}as", "some.Other", 1,
                                     "InternalPowerState", "s", "x.StateS5", 0);
    };
    HostControl another;
    another.signals(HostControl::powerState, "org.freedesktop.DBus.Properties",
                    "PropertiesChanged", fill);
    ASSERT_TRUE(record::waitUntil(
        []
        {
            return flagsAreSet();
        }));
}

TEST_F(PowerSignals, OtherMembersInterfacesAndPathsAreNotSubscribedTo)
{
    const auto fill = [](sd_bus_message* message)
    {
        return sd_bus_message_append(message, "sa{sv}as", "some.Other", 1,
                                     "InternalPowerState", "s", "x.StateS5", 0);
    };
    control.signals(HostControl::powerState, "org.freedesktop.DBus.Properties",
                    "Other", fill);
    control.signals(HostControl::powerState, "some.Other", "PropertiesChanged",
                    fill);
    control.signals("/xyz/openbmc_project/control/host1/internal_power_state",
                    "org.freedesktop.DBus.Properties", "PropertiesChanged",
                    fill);
    EXPECT_THAT(handled(), IsEmpty());
    EXPECT_FALSE(flagsAreSet());
}

TEST_F(PowerSignals, MalformedBodyIsLoggedAndChangesNothing)
{
    control.signals(HostControl::powerState, "org.freedesktop.DBus.Properties",
                    "PropertiesChanged",
                    [](sd_bus_message* message)
                    {
                        return sd_bus_message_append(message, "su", "a", 1);
                    });
    EXPECT_THAT(
        handled(),
        ElementsAre(powerPath,
                    "log 2 morrow_client: Exception: "
                    "sd_bus_message_enter_container emplace_back_container: "
                    "System.Error.ENXIO: No such device or address\n"));
    EXPECT_FALSE(flagsAreSet());
}

TEST_F(PowerSignals, MalformedResetIsLoggedToo)
{
    control.signals(HostControl::resetCause, "org.freedesktop.DBus.Properties",
                    "PropertiesChanged",
                    [](sd_bus_message*) -> int
                    {
                        return 0;
                    });
    EXPECT_THAT(handledResets(),
                ElementsAre(resetPath,
                            "log 2 morrow_client: Exception: "
                            "sd_bus_message_read_basic string: "
                            "System.Error.ENXIO: No such device or address\n"));
}

TEST_F(PowerSignals, DictionaryOfAnotherKindIsMalformed)
{
    control.signals(HostControl::powerState, "org.freedesktop.DBus.Properties",
                    "PropertiesChanged",
                    [](sd_bus_message* message)
                    {
                        return sd_bus_message_append(message, "sa{ss}as", "a",
                                                     1, "InternalPowerState",
                                                     ".StateS5", 0);
                    });
    EXPECT_EQ(handled().size(), 2U);
    EXPECT_FALSE(flagsAreSet());
}

TEST_F(PowerSignals, InvalidatedPropertiesAreNotRead)
{
    control.signals(HostControl::powerState, "org.freedesktop.DBus.Properties",
                    "PropertiesChanged",
                    [](sd_bus_message* message)
                    {
                        return sd_bus_message_append(message, "sa{sv}", "a", 1,
                                                     "InternalPowerState", "s",
                                                     "a.StateS5");
                    });
    EXPECT_EQ(handled(), Texts{powerPath} + tellsPowerState("a.StateS5") +
                             recognises("StateS5"));
    EXPECT_TRUE(flagsAreSet());
}

TEST_F(PowerSignals, LeaveTheDaemonStateAlone)
{
    daemon_state = 77;
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.StateS5"}});
    control.changes(HostControl::resetCause, {{"ResetCause", "a.WarmReset"}});
    marks = 1; // the path of the first signal
    (void)handledResets();
    EXPECT_TRUE(flagsAreSet());
    EXPECT_EQ(shared_word::load(daemon_state), 77U);
}

// The handlers on their own, for what the bus never delivers to them

class Handlers : public WithBroker
{
  protected:
    /** A message that the handlers may be called with. */
    sdbusplus::message_t
    message(const std::function<int(sd_bus*, sd_bus_message**)>& make)
    {
        EXPECT_GE(sd_bus_open_system(&bus), 0);
        sd_bus_message* raw = nullptr;
        EXPECT_GE(make(bus, &raw), 0);
        return {raw, std::false_type()};
    }

    ~Handlers() override
    {
        sd_bus_flush_close_unref(bus);
    }

    sd_bus* bus = nullptr;
};

TEST_F(Handlers, MethodErrorIsLoggedAlone)
{
    sdbusplus::message_t none;
    signalHandler_internalpowerstate(none);
    signalHandler_warmreset(none);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre("log 1 morrow_client: signalHandler_internalpowerstate - "
                    "method Error \n",
                    "log 1 morrow_client: signalHandler_warmreset - method "
                    "Error \n"));
}

TEST_F(Handlers, OtherMemberIsLoggedByItsPathAlone)
{
    auto other = message(
        [](sd_bus* connection, sd_bus_message** made)
        {
            return sd_bus_message_new_signal(connection, made, "/a/path",
                                             "org.freedesktop.DBus.Properties",
                                             "PropertiesChange");
        });
    signalHandler_internalpowerstate(other);
    EXPECT_THAT(storyFrom(0),
                ElementsAre("log 1 morrow_client: "
                            "signalHandler_internalpowerstate:Path:[/a/path]"
                            "\n"));
}

TEST_F(Handlers, OtherMemberOfAResetIsLoggedByItsPathAlone)
{
    auto other = message(
        [](sd_bus* connection, sd_bus_message** made)
        {
            return sd_bus_message_new_signal(connection, made, "/a/path",
                                             "org.freedesktop.DBus.Properties",
                                             "PropertiesChange");
        });
    signalHandler_warmreset(other);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 1 morrow_client: signalHandler_warmreset:Path:[/a/path]\n"));
}

// An exception that leaves a handler

/** Starts the client and sends a power state that is no text; a client that
 *  survives it ends the process with 1. */
[[noreturn]] void sendANumberFor(const char* path, const char* property)
{
    morrow_dbus_client_init();
    HostControl control;
    control.signals(path, "org.freedesktop.DBus.Properties",
                    "PropertiesChanged",
                    [property](sd_bus_message* message)
                    {
                        return sd_bus_message_append(message, "sa{sv}as", "a",
                                                     1, property, "u", 5, 0);
                    });
    (void)record::waitFor("never");
    leave(1);
}

TEST_F(ClientStart, PowerStateThatIsNoTextEndsTheProcess)
{
    EXPECT_EXIT(sendANumberFor(HostControl::powerState, "InternalPowerState"),
                testing::KilledBySignal(SIGABRT), "std::bad_variant_access");
}

TEST_F(ClientStart, ResetCauseThatIsNoTextEndsTheProcess)
{
    EXPECT_EXIT(sendANumberFor(HostControl::resetCause, "ResetCause"),
                testing::KilledBySignal(SIGABRT), "std::bad_variant_access");
}

// Stopping

TEST_F(ClientStop, IsTheWholeStoryOnBothThreads)
{
    const auto start = here();
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_client: stop_morrow_dbus_client - Enter\n",
                    "log 4 morrow_client: stop_morrow_dbus_client - Exit\n"));
    EXPECT_THAT(
        threadStory(),
        ElementsAre("log 1 morrow_client: morrowProcessSig - signal: 1\n",
                    "log 4 morrow_client: createMorrowEventLoop - "
                    "sd_event_loop returned\n",
                    threadExits));
    EXPECT_THAT(clientSignalPipe, ElementsAre(-1, -1));
}

TEST_F(ClientStop, LetsGoOfTheBusAndThenOfTheSecondAndTheFirstMatch)
{
    record::when("log 1 morrow_client: morrowProcessSig - signal: 1",
                 []
                 {
                     bus_spy::watchThisThread();
                 });
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    const std::string rule = "type='signal',member='PropertiesChanged',"
                             "path='/xyz/openbmc_project/control/host0/";
    const std::string interface =
        "',interface='org.freedesktop.DBus.Properties',";
    EXPECT_THAT(
        threadStory(),
        ElementsAre("log 1 morrow_client: morrowProcessSig - signal: 1\n",
                    "log 4 morrow_client: createMorrowEventLoop - "
                    "sd_event_loop returned\n",
                    "lets go of the bus",
                    "lets go of the match " + rule + "reset_cause" + interface,
                    "lets go of the match " + rule + "internal_power_state" +
                        interface,
                    threadExits));
}

TEST_F(ClientStop, ClosesThePipeBeforeItDestroysTheSemaphore)
{
    StopPipe whenDestroyed{};
    fake::onSemaphoreDestroy = [&whenDestroyed]
    {
        whenDestroyed = clientSignalPipe;
    };
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    fake::onSemaphoreDestroy = {};
    EXPECT_EQ(whenDestroyed, closedStopPipe);
}

TEST_F(ClientStop, SecondFailsToWriteAndToJoin)
{
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    const auto start = here();
    EXPECT_EQ(client().stop_morrow_dbus_client(), 1);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_client: stop_morrow_dbus_client - Enter\n",
                    "log 1 morrow_client: stop_morrow_dbus_client -Signal pipe "
                    "write failed: Bad file descriptor\n",
                    "log 1 morrow_client: stop_morrow_dbus_client -Failed to "
                    "terminate thread: Invalid argument\n"));
}

TEST_F(ClientStop, TwoAtATimeEndWellForOneAndWithoutAThreadForTheOther)
{
    int other = -1;
    std::thread second(
        [&other]
        {
            other = client().stop_morrow_dbus_client();
        });
    const int mine = client().stop_morrow_dbus_client();
    second.join();
    EXPECT_EQ(mine + other, 1);
}

TEST_F(ClientStop, SecondWaitsForTheFirst)
{
    const auto stop = []
    {
        return client().stop_morrow_dbus_client();
    };
    // The first waits for the client's thread, which is held as it stops.
    std::promise<void> go;
    record::when("log 1 morrow_client: morrowProcessSig - signal: 1",
                 [held = go.get_future().share()]
                 {
                     held.wait();
                 });
    auto first = std::async(std::launch::async, stop);
    ASSERT_TRUE(
        record::waitFor("log 1 morrow_client: morrowProcessSig - signal: 1\n"));
    auto second = std::async(std::launch::async, stop);
    ASSERT_TRUE(record::waitFor(
        "log 4 morrow_client: stop_morrow_dbus_client - Enter\n", 2));
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    go.set_value();
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 1);
    EXPECT_EQ(record::count("log 1 morrow_client: stop_morrow_dbus_client "
                            "-Signal pipe write failed: Bad file "
                            "descriptor\n"),
              1);
}

TEST_F(ClientStop, ByteOtherThan1IsLoggedAndIgnored)
{
    const uint8_t byte = 0;
    ASSERT_EQ(write(clientSignalPipe[1], &byte, 1), 1);
    ASSERT_TRUE(
        record::waitFor("log 1 morrow_client: morrowProcessSig - signal: 0\n"));
    EXPECT_EQ(record::count(threadExits), 0);
}

TEST_F(ClientStop, PipeWithoutAWriterIsReadInVainAndWithoutAWord)
{
    {
        const HungUpPipe pipe(clientSignalPipe, thread);
        EXPECT_TRUE(pipe.keepsTheReaderBusy());
    }
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    const auto told = record::textsOf(thread);
    EXPECT_EQ(std::count_if(told.begin(), told.end(),
                            [](const auto& text)
                            {
                                return text.find("signal: ") !=
                                       std::string::npos;
                            }),
              1);
}

TEST_F(ClientStop, LogsTheByteBeforeTheLoopEndsAndEndsItWellMeant)
{
    int whenLogged = 0;
    int whenEnded = -1;
    record::when("log 1 morrow_client: morrowProcessSig - signal: 1",
                 [&whenLogged]
                 {
                     int code = 0;
                     whenLogged = sd_event_get_exit_code(clientEvent, &code);
                 });
    record::when("log 4 morrow_client: createMorrowEventLoop - sd_event_loop "
                 "returned",
                 [&whenEnded]
                 {
                     EXPECT_GE(sd_event_get_exit_code(clientEvent, &whenEnded),
                               0);
                 });
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    EXPECT_EQ(whenLogged, -ENODATA);
    EXPECT_EQ(whenEnded, 0);
}

TEST_F(ClientStop, SemaphoreThatCannotBeDestroyedIsIgnored)
{
    fake::semaphoreDestroyError = EINVAL;
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

TEST_F(ClientStop, LeavesThePipeClosedWithoutNumbers)
{
    const auto before = clientSignalPipe;
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    EXPECT_EQ(clientSignalPipe, closedStopPipe);
    EXPECT_EQ(fcntl(before[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(before[1], F_GETFD), -1);
}

// When the broker goes

TEST_F(Client, MessageThatCannotBeProcessedIsLogged)
{
    broker.kill();
    ASSERT_TRUE(record::waitUntil(
        [this]
        {
            return !threadStory().empty();
        }));
    EXPECT_EQ(morrowClientProcessRequest(nullptr, -1, 0, nullptr), 0);
    EXPECT_THAT(storyFrom(0).back(),
                StartsWith("log 1 morrow_client: morrowClientProcessRequest "
                           "-Error:sd_bus_process discard: "));
}

TEST_F(Client, FailureIsLoggedBeforeTheMutexIsFree)
{
    const std::string failed =
        "log 1 morrow_client: morrowClientProcessRequest -Error:";
    bool freeWhenLogged = true;
    record::when(failed,
                 [&freeWhenLogged]
                 {
                     freeWhenLogged = isFreeForAnother(clientBusMutex);
                     ASSERT_EQ(write(clientSignalPipe[1], "\1", 1), 1);
                 });
    broker.kill();
    ASSERT_TRUE(record::waitFor(threadExits));
    EXPECT_FALSE(freeWhenLogged);
    EXPECT_TRUE(isFreeForAnother(clientBusMutex));
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}

TEST_F(Client, GoesOnAfterTheBrokerHasGone)
{
    record::when("log 1 morrow_client: morrowClientProcessRequest -Error:",
                 []
                 {
                     ASSERT_EQ(write(clientSignalPipe[1], "\1", 1), 1);
                 });
    broker.kill();
    ASSERT_TRUE(record::waitFor(threadExits));
    EXPECT_THAT(threadStory(),
                Contains("log 1 morrow_client: morrowClientProcessRequest "
                         "-Error:sd_bus_wait: System.Error.ENOTCONN: Transport "
                         "endpoint is not connected\n"));
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
}
