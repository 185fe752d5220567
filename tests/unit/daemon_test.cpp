// SPDX-License-Identifier: Apache-2.0

/**
 * The daemon as a whole, from main to its return, with its four threads on a
 * real bus. Only the platform's libraries are fakes, and sleeping takes no
 * time: the daemon's main thread is held at a sleep where a test wants to look
 * or to change something.
 */

#include "morrow/morrow.hpp"
#include "morrow/morrow_client.hpp"
#include "morrow/morrow_server.hpp"
#include "morrow/power_state.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/bus_observer.hpp"
#include "tests/support/driver_files.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/handshake_broker.hpp"
#include "tests/support/host_service.hpp"
#include "tests/support/leave.hpp"
#include "tests/support/limits.hpp"
#include "tests/support/notify_socket.hpp"
#include "tests/support/pinned.hpp"
#include "tests/support/record.hpp"
#include "tests/support/served_connection.hpp"
#include "tests/support/thread_status.hpp"
#include "tests/support/transcript.hpp"
#include "tests/support/watch.hpp"
#include "tests/unit/bus_trace.hpp"
#include "tests/unit/discovery_trace.hpp"

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h> // NOLINT(modernize-deprecated-headers): pthread_kill
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/** The daemon's main function. */
int morrow_main();

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Ge;
using testing::HasSubstr;
using testing::Lt;
using testing::Not;
using namespace bus_trace;

namespace
{

constexpr const char* stopped = "log 4 morrow_signal: Stopped MORROW\n";
constexpr const char* complete = "log 4 morrow: Discovery complete\n";
/** What a change of the state logs. */
Texts changes(const std::string& text)
{
    return {"log 4 morrow: Entry change_State\n",
            "log 4 morrow: " + text + "\n"};
}

/** The cleanup of a daemon that has discovered nothing. */
Texts cleansUpNothing()
{
    return withdraws({}) + Texts{"sleep 100 ms", "write unbind fff10000.i3c",
                                 "write unbind fff11000.i3c"};
}

/** A full discovery of both endpoints without locks and shared memory. */
Texts discovers()
{
    return Texts{"acquireLock /dev/i3c-mctp-0 gives -1",
                 "acquireLock /dev/i3c-mctp-1 gives -1",
                 "getShmId /dev/i3c-mctp-0 gives -1",
                 "getShmId /dev/i3c-mctp-1 gives -1"} +
           withdraws({}) +
           Texts{"sleep 100 ms", "removeLock -1", "removeLock -1",
                 "write unbind fff10000.i3c", "write unbind fff11000.i3c"} +
           discovery::discoversBoth(publishes(0x1D), publishes(0x9D));
}

/** What the main thread does up to the state loop. */
const Texts startsUp{
    "log 4 morrow_signal: Entry [get_instance]\n",
    "log 4 morrow_signal: Entry [morrow_signal]\n",
    "log 4 morrow: Common Morrow [main]\n",
    "trace 4 morrow: Common Morrow [main]\n",
    "log 4 morrow: Entry [morrow_init]\n",
    "log 4 morrow_signal: Entry [get_instance]\n",
    "log 4 morrow_signal: Entry [morrow_init_signal]\n",
    "log 4 morrow_signal: Entry [register_signal]\n",
    "log 4 morrow_signal: Created signal thread\n",
    "log 4 morrow_client: morrow_dbus_client_init - Enter\n",
    "log 4 morrow_client: morrow_dbus_client - Default constructor\n",
    "log 4 morrow_client: morrow_dbus_client_init - Exit\n",
    "log 4 morrow_server: morrow_dbus_server_init - Enter\n",
    "log 4 morrow_server: morrow_dbus_server - Default constructor\n",
    "log 4 morrow_server: morrow_dbus_server_init - Exit\n",
    "log 4 morrow_signal: Entry [get_instance]\n",
    "log 4 morrow_signal: Entry [set_dbus_ready]\n",
    "sleep 1000 ms",
    "log 4 morrow: Initialization successful\n",
    "trace 4 morrow: Initialization successful\n",
    "ReadIO_Str_C CPU_VENDOR size 2",
    "log 4 morrow: CPU vendor : 0\n\n",
    "trace 4 morrow: CPU vendor : 0\n\n",
};

/** The end of the main thread. */
const Texts leaves{
    "log 4 morrow_signal: Entry [wait_stop]\n",
    "log 4 morrow: Exit [main]\n",
    "trace 4 morrow: Exit [main]\n",
};

/** A semaphore whose wait handles signals, also under the thread sanitizer:
 * that delays them until a call that it knows to wait, and std::semaphore has
 * none. */
class Gate : Pinned
{
  public:
    Gate()
    {
        sem_init(&semaphore, 0, 0);
    }

    ~Gate()
    {
        sem_destroy(&semaphore);
    }

    void open()
    {
        sem_post(&semaphore);
    }

    void wait()
    {
        while (sem_wait(&semaphore) != 0)
        {
        }
    }

  private:
    sem_t semaphore{};
};

/** Runs the daemon on a thread of its own. SIGTERM goes to the daemon's
 *  threads alone, as it does where there are no others. */
class Daemon : public testing::Test
{
  protected:
    Daemon()
    {
        sigset_t termination;
        sigemptyset(&termination);
        sigaddset(&termination, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &termination, nullptr);
        broker.emplace();
        host.emplace();
        observer.emplace();
        fake::endpoints["/dev/i3c-mctp-0"] = {fake::answer(0x1D)};
        fake::endpoints["/dev/i3c-mctp-1"] = {fake::answer(0x9D)};
        fake::onSleep = [this](int64_t)
        {
            sleeps();
        };
    }

    ~Daemon() override
    {
        if (thread.joinable())
        {
            stop();
        }
        fake::onSleep = {};
    }

    void start()
    {
        thread = std::thread(
            [this]
            {
                sigset_t termination;
                sigemptyset(&termination);
                sigaddset(&termination, SIGTERM);
                pthread_sigmask(SIG_UNBLOCK, &termination, nullptr);
                DriverFiles driver;
                for (const auto& controller : controllers)
                {
                    driver.comesUp(controller);
                }
                daemonThread = record::thisThread();
                exitStatus = morrow_main();
            });
    }

    /** Sends both SIGTERMs, lets the main thread go and joins it. */
    void stop()
    {
        terminate();
        EXPECT_TRUE(record::waitFor(stopped));
        hold = nullptr;
        release();
        EXPECT_TRUE(record::waitFor("log 4 morrow: Stop initialization\n"));
        terminateForGood();
    }

    static void terminate()
    {
        ::kill(getpid(), SIGTERM);
    }

    /** Sends the SIGTERM that ends the main thread, and joins it. */
    void terminateForGood()
    {
        terminate();
        thread.join();
        EXPECT_EQ(exitStatus, 0);
    }

    /** Holds the main thread at its next sleep at which this is true. */
    void holdWhen(std::function<bool()> condition)
    {
        const std::lock_guard lock(mutex);
        hold = std::move(condition);
    }

    /** Holds it when a text has been recorded so many times. */
    void holdAfter(const std::string& text, std::size_t times = 1)
    {
        holdWhen(
            [text, times]
            {
                return record::count(text) >= times;
            });
    }

    void doNotHold()
    {
        holdWhen(nullptr);
    }

    /** Waits until the main thread is held. */
    void waitUntilHeld()
    {
        ASSERT_TRUE(held.try_acquire_for(record::timeout()));
    }

    /** Lets the held main thread go on. */
    void release()
    {
        go.open();
    }

    void startAndHold()
    {
        start();
        waitUntilHeld();
    }

    void releaseAndHold()
    {
        release();
        waitUntilHeld();
    }

    /** Expects one stop to have been served, and no other to follow in the
     *  time in which it would. */
    void expectOneStopAlone() const
    {
        (void)poll(nullptr, 0, 100);
        EXPECT_EQ(record::count("log 4 morrow_signal: Got signal Stopping "
                                "MORROW\n"),
                  1);
        EXPECT_EQ(exitStatus, -1);
    }

    /** The main thread's events from its n-th on. */
    Texts trace(std::size_t from = 0) const
    {
        const auto all = record::textsOf(daemonThread);
        return {all.begin() + static_cast<std::ptrdiff_t>(from), all.end()};
    }

    /** For a child that has a bus of its own. */
    void leaveTheBus()
    {
        broker.reset();
        observer.reset();
        host.reset();
    }

    /** Starts, and holds the daemon in its first idle second after it has
     *  published both endpoints. */
    void startToDiscovery()
    {
        host->goesTo("Running");
        holdWhen(
            [this]
            {
                return trace().back() == "sleep 1000 ms" &&
                       record::count(complete) > 0;
            });
        startAndHold();
    }

    std::optional<Broker> broker;
    std::optional<HostService> host;
    std::optional<BusObserver> observer;
    std::vector<std::string> controllers{"fff10000.i3c", "fff11000.i3c"};
    std::thread thread;
    std::atomic<pid_t> daemonThread{0};
    std::atomic<int> exitStatus{-1};

  private:
    void sleeps()
    {
        if (record::thisThread() != daemonThread)
        {
            return;
        }
        {
            const std::lock_guard lock(mutex);
            if (!hold || !hold())
            {
                return;
            }
        }
        held.release();
        go.wait();
    }

    std::mutex mutex;
    std::function<bool()> hold;
    std::counting_semaphore<> held{0};
    Gate go;
};

/** The source text of a call up to a line of it: compilers differ in whether a
 *  call that takes several lines has the number of its first or its last. */
std::string callAt(const std::string& source, unsigned line)
{
    std::ifstream file(MORROW_SOURCE_DIRECTORY "/" + source + ".cpp");
    std::string call;
    std::string text;
    for (unsigned number = 0; number < line && std::getline(file, text);
         ++number)
    {
        if (call.ends_with(';') || call.ends_with('{') || call.ends_with('}'))
        {
            call.clear();
        }
        call += text;
    }
    return call;
}

} // namespace

// The whole trace, thread by thread

TEST_F(Daemon, StartUpWithARunningHostHasTheExpectedTrace)
{
    startToDiscovery();
    EXPECT_THAT(trace(),
                ElementsAreArray(
                    startsUp + cleansUpNothing() + reads(hostStateRunning) +
                    changes("Change State to ON") + discovers() +
                    reads(hostStateRunning) + Texts{"sleep 1000 ms"}));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_EQ(busctl::getAll("/xyz/openbmc_project/mctp/0/29"),
              " DevicePath=/dev/i3c-mctp-0 EID=29 EndpointType=1 NetworkId=0 "
              "Slot=0 SupportedMessageTypes=[126,5]");
    EXPECT_EQ(busctl::getAll("/xyz/openbmc_project/mctp/0/157"),
              " DevicePath=/dev/i3c-mctp-1 EID=157 EndpointType=1 NetworkId=0 "
              "Slot=1 SupportedMessageTypes=[126,5]");
}

TEST_F(Daemon, StopHasTheExpectedTrace)
{
    startToDiscovery();
    const auto before = trace().size();
    stop();
    EXPECT_THAT(withoutHandler(trace(before)),
                ElementsAreArray(
                    Texts{"log 4 morrow: Stop initialization\n",
                          "log 4 morrow_signal: Entry [signal_thread_fn]\n",
                          "log 4 morrow_signal: Got signal Stopping MORROW\n"} +
                    findsBusSidesStopped + leaves));
}

TEST_F(Daemon, FirstTerminationHasTheExpectedTraceOnTheSignalThread)
{
    startToDiscovery();
    terminate();
    ASSERT_TRUE(record::waitFor(stopped));
    const std::string took =
        "log 4 morrow_signal: Got signal Stopping MORROW\n";
    EXPECT_EQ(withoutHandler(traceOf(threadOf(took))),
              (Texts{"log 4 morrow_signal: Entry [signal_thread_fn]\n", took} +
               stopsBusSides));
}

TEST_F(Daemon, FirstTerminationWithdrawsTheEndpointsAndTheName)
{
    startToDiscovery();
    terminate();
    ASSERT_TRUE(record::waitFor("NameOwnerChanged gone"));
    const auto seen = observer->seen();
    EXPECT_THAT(Texts(seen.end() - 3, seen.end()),
                ElementsAre(HasSubstr("InterfacesRemoved "
                                      "/xyz/openbmc_project/mctp/0/29 "),
                            HasSubstr("InterfacesRemoved "
                                      "/xyz/openbmc_project/mctp/0/157 "),
                            "NameOwnerChanged gone"));
    EXPECT_EQ(exitStatus, -1) << "one signal alone must not end the process";
}

TEST_F(Daemon, OneTerminationIsNotEnough)
{
    startToDiscovery();
    doNotHold();
    terminate();
    ASSERT_TRUE(record::waitFor(stopped));
    release();
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_signal: Entry [signal_thread_fn]\n", 2));
    expectOneStopAlone();
    terminateForGood();
}

TEST_F(Daemon, HostThatGoesOffHasTheExpectedTrace)
{
    startToDiscovery();
    const auto before = trace().size();
    fake::lockIds = {{"/dev/i3c-mctp-0", 10}, {"/dev/i3c-mctp-1", 11}};
    fake::shmIds = {{"/dev/i3c-mctp-0", 20}, {"/dev/i3c-mctp-1", 21}};
    host->goesTo("Off");
    // Held in the second cleanup: there is one in each iteration.
    holdWhen(
        [sleeps = 0]() mutable
        {
            return ++sleeps == 2;
        });
    releaseAndHold();
    EXPECT_THAT(
        trace(before),
        ElementsAreArray(reads(hostStateOff) + changes("Change State to OFF") +
                         Texts{"acquireLock /dev/i3c-mctp-0 gives 10",
                               "getShmId /dev/i3c-mctp-0 gives 20",
                               "acquireLock /dev/i3c-mctp-1 gives 11",
                               "getShmId /dev/i3c-mctp-1 gives 21"} +
                         withdraws({29, 157}) + discovery::removesBoth +
                         reads(hostStateOff) + changes("Change State to OFF") +
                         withdraws({}) + Texts{"sleep 100 ms"}));
}

TEST_F(Daemon, HostThatIsOffAtStartCausesACleanupInEveryIteration)
{
    host->goesTo("Off");
    holdAfter("log 4 morrow: Change State to OFF\n", 3);
    startAndHold();
    const Texts iteration =
        reads(hostStateOff) + changes("Change State to OFF");
    EXPECT_THAT(trace(),
                ElementsAreArray(startsUp + cleansUpNothing() + iteration +
                                 cleansUpNothing() + iteration +
                                 cleansUpNothing() + iteration + withdraws({}) +
                                 Texts{"sleep 100 ms"}));
}

// Start-up

TEST_F(Daemon, IsReadyAfterTheVendorWasReadAndBeforeTheFirstIteration)
{
    NotifySocket manager;
    std::string before;
    fake::onVendorRead = [&]
    {
        before = manager.received();
    };
    holdWhen(
        [&]
        {
            return record::count(readsState) == 0 &&
                   record::count("sleep 100 ms") == 1;
        });
    startAndHold();
    EXPECT_EQ(before, "");
    EXPECT_EQ(manager.received(), "READY=1");
    EXPECT_NE(getenv("NOTIFY_SOCKET"), nullptr);
    fake::onVendorRead = {};
}

TEST_F(Daemon, GoesOnWhenReadinessCannotBeSent)
{
    setenv("NOTIFY_SOCKET", "/run/nobody-listens", 1);
    startToDiscovery();
    EXPECT_EQ(exitStatus, -1);
}

TEST_F(Daemon, BeginsWithACleanupWhateverTheStateWas)
{
    daemon_state = MORROW_SLEEP_EVENT;
    holdAfter("trace 4 morrow: CPU vendor : 0\n\n", 1);
    startAndHold();
    EXPECT_EQ(trace().back(), "sleep 100 ms");
    EXPECT_EQ(init_state, 3U);
}

TEST_F(Daemon, InitialisationCountsItsSteps)
{
    const Watch whenTheClientStarts(
        "log 4 morrow_client: morrow_dbus_client_init - Enter", init_state);
    const Watch whenTheBusIsReady("log 4 morrow_signal: Entry [set_dbus_ready]",
                                  init_state);
    start();
    ASSERT_TRUE(record::waitFor("log 4 morrow: Initialization successful\n"));
    EXPECT_EQ(whenTheClientStarts.seen(), 1U);
    EXPECT_EQ(whenTheBusIsReady.seen(), 1U);
    EXPECT_EQ(init_state, 3U);
}

TEST(Initialisation, WithoutTheSignalSideGives2AndStartsAgain)
{
    const limits::NoNewThreads none;
    EXPECT_EQ(morrow_init(), 2U);
    EXPECT_EQ(init_state, 0U);
    EXPECT_EQ(record::count("log 4 morrow_client: morrow_dbus_client_init - "
                            "Enter\n"),
              0);
}

TEST(Initialisation, GoesOnWithTheBusSidesWhenTheSignalSideIsUp)
{
    const Broker broker;
    init_state = 1;
    EXPECT_EQ(morrow_init(), 0U);
    EXPECT_EQ(init_state, 3U);
    EXPECT_EQ(record::count("log 4 morrow_signal: Entry "
                            "[morrow_init_signal]\n"),
              0);
    EXPECT_EQ(morrow_dbus_client::get_instance().stop_morrow_dbus_client(), 0);
    EXPECT_EQ(morrow_dbus_server::get_instance().stop_morrow_dbus_server(), 0);
}

TEST(Initialisation, HasNothingToDoWhenAllIsUp)
{
    for (const uint32_t step : {2U, 3U})
    {
        init_state = step;
        EXPECT_EQ(morrow_init(), 0U);
        EXPECT_EQ(init_state, 3U);
    }
    EXPECT_EQ(record::texts(), Texts(2, "log 4 morrow: Entry [morrow_init]\n"));
}

TEST_F(Daemon, SleepsASecondBetweenFailedInitialisations)
{
    std::optional<limits::NoNewThreads> none;
    fake::onSleep = {};
    // Again in each attempt, since each sets the stacks' size for itself.
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        record::when("log 4 morrow: Entry [morrow_init]",
                     [&none]
                     {
                         none.emplace();
                     });
    }
    // The third attempt can start its thread.
    fake::onSleep = [&none, sleeps = 0](int64_t) mutable
    {
        if (++sleeps == 2)
        {
            none.reset();
        }
    };
    start();
    ASSERT_TRUE(record::waitFor("log 4 morrow: Initialization successful\n"));
    const auto texts = trace();
    const Texts failure{
        "log 4 morrow: Entry [morrow_init]\n",
        "log 4 morrow_signal: Entry [get_instance]\n",
        "log 4 morrow_signal: Entry [morrow_init_signal]\n",
        "log 4 morrow_signal: Entry [register_signal]\n",
        "log 4 morrow_signal: Failed to create signal thread\n",
        "log 4 morrow: Signal handler init failed [2]\n",
        "log 4 morrow: Initialization failed\n",
        "sleep 1000 ms",
    };
    EXPECT_EQ(Texts(texts.begin() + 4, texts.begin() + 4 + 16),
              failure + failure);
    EXPECT_EQ(Texts(texts.begin() + 20, texts.begin() + 20 + 5),
              Texts(startsUp.begin() + 4, startsUp.begin() + 9));
}

TEST_F(Daemon, VendorThatIsNotIntelMakesItIdleWhateverTheHostDoes)
{
    fake::vendorReads = {{0, 1}};
    host->goesTo("Running");
    holdWhen(
        [this]
        {
            return trace().back() == "sleep 1000 ms" &&
                   record::count("log 4 morrow: Non Intel CPU : "
                                 "State MORROW_SLEEP_EVENT\n") > 0;
        });
    startAndHold();
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    host->goesTo("Off");
    holdAfter("log 4 morrow: Non Intel CPU : State MORROW_SLEEP_EVENT\n", 3);
    releaseAndHold();
    EXPECT_EQ(record::count("log 4 morrow: Change State to OFF\n"), 0);
    EXPECT_EQ(record::count("log 4 morrow: Change State to ON\n"), 0);
    EXPECT_EQ(record::count("write bind fff10000.i3c"), 0);
    EXPECT_THAT(observer->seen(), Not(Contains(HasSubstr("InterfacesAdded"))));
}

TEST_F(Daemon, HasFourThreads)
{
    const auto threads = []
    {
        const std::filesystem::directory_iterator all("/proc/self/task");
        return std::distance(begin(all), end(all));
    };
    const auto before = threads();
    startToDiscovery();
    EXPECT_EQ(threads() - before, 4);
}

TEST_F(Daemon, NotifiesReadinessAndNothingElse)
{
    const NotifySocket manager;
    startToDiscovery();
    EXPECT_EQ(manager.received(), "READY=1");
    stop();
    EXPECT_EQ(manager.received(), "");
}

/** What the thread that asks was started with. */
std::size_t ownStackSize()
{
    pthread_attr_t attributes;
    EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
    return limits::stackSize(attributes);
}

TEST_F(Daemon, GivesItsThreadsSmallStacksWhateverTheDefault)
{
    constexpr auto mebibyte = std::size_t{1024} * 1024;
    const auto before = limits::defaultStackSize();
    limits::setDefaultStackSize(8 * mebibyte);
    std::vector<std::size_t> sizes(3);
    const Texts threadsBegin{
        "log 4 morrow_signal: Entry [signal_thread_fn]",
        "log 4 morrow_client: morrowClientDBusHandler - Enter",
        "log 4 morrow_server: morrowDBusMgrHandler - Enter"};
    for (std::size_t index = 0; index < threadsBegin.size(); ++index)
    {
        record::when(threadsBegin[index],
                     [&size = sizes[index]]
                     {
                         size = ownStackSize();
                     });
    }
    startToDiscovery();
    stop(); // now each has been looked at
    limits::setDefaultStackSize(before);
    // With room for thread-local variables, of which sanitizers have many.
    EXPECT_THAT(sizes, Each(AllOf(Ge(mebibyte / 4), Lt(4 * mebibyte))));
}

TEST_F(Daemon, LeavesTheStacksOfThreadsThatItDoesNotStartAlone)
{
    const auto before = limits::defaultStackSize();
    startToDiscovery();
    EXPECT_EQ(limits::defaultStackSize(), before);
}

TEST_F(Daemon, StartUpThatIsCompleteIsNotDoneAgain)
{
    leaveTheBus();
    EXPECT_EXIT(
        {
            init_state = 3;
            holdWhen(
                []
                {
                    return true;
                });
            startAndHold();
            const Texts expected =
                Texts(startsUp.begin(), startsUp.begin() + 4) +
                Texts(startsUp.end() - 5, startsUp.end()) +
                Texts{"log 4 morrow_server: morrow_dbus_server - Default "
                      "constructor\n"} +
                withdraws({}) + Texts{"sleep 100 ms"};
            EXPECT_EQ(trace(), expected);
            std::_Exit(trace() == expected ? 42 : 1);
        },
        testing::ExitedWithCode(42), "");
}

/** Refuses the semaphore that a bus side needs to start. */
void refuseToStart(const std::string& side)
{
    record::when(side + " - Enter",
                 []
                 {
                     fake::semaphoreInitError = ENOSYS;
                 });
    record::when(side + " - Exit",
                 []
                 {
                     fake::semaphoreInitError = 0;
                 });
}

TEST_F(Daemon, GoesOnWithoutItsClient)
{
    refuseToStart("log 4 morrow_client: morrow_dbus_client_init");
    holdAfter("log 2 morrow: Failed to get current powerevent\n", 2);
    startAndHold();
    EXPECT_TRUE(busctl::hasOwner("xyz.openbmc_project.mctp"));
    EXPECT_EQ(record::count("log 1 morrow_client: GetProperty "
                            "-'currenthoststate' not found\n"),
              2);
    stop();
}

TEST_F(Daemon, GoesOnWithoutItsServer)
{
    refuseToStart("log 4 morrow_server: morrow_dbus_server_init");
    startToDiscovery();
    EXPECT_FALSE(busctl::hasOwner("xyz.openbmc_project.mctp"));
    EXPECT_EQ(record::count("log 1 morrow_server: createEndpointObject - "
                            "Error: Bus pointer not present\n"),
              2);
    stop();
}

// Following the host

TEST_F(Daemon, PowerSignalWithdrawsWhatWasPublishedAndRunningBringsItBack)
{
    startToDiscovery();
    HostControl control;
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "x.StateS5"}});
    ASSERT_TRUE(record::waitFor("trace 4 morrow_client: "
                                "signalHandler_internalpowerstate:Power state "
                                "is StateS5\n"));
    ASSERT_TRUE(record::waitUntil(
        []
        {
            return shared_word::load(await_host_running) == 1;
        }));
    const auto before = trace().size();
    holdWhen(
        [this]
        {
            return trace().back() == "sleep 1000 ms";
        });
    releaseAndHold();
    // OFF in the first iteration; the host still runs, so ON in the next.
    const auto texts = trace(before);
    EXPECT_THAT(texts, testing::IsSupersetOf({
                           "log 4 morrow: Change State to OFF\n",
                           "log 4 morrow: Change State to ON\n",
                           "log 4 morrow: Discovery complete\n",
                       }));
    EXPECT_EQ(busctl::managedObjects("/xyz/openbmc_project/mctp/0").size(), 2U);
    EXPECT_EQ(shared_word::load(power_down_pending), 0);
    EXPECT_EQ(shared_word::load(await_host_running), 0);
}

TEST_F(Daemon, WarmResetDiscoversAgain)
{
    startToDiscovery();
    HostControl control;
    control.changes(HostControl::resetCause, {{"ResetCause", "x.WarmReset"}});
    ASSERT_TRUE(record::waitUntil(
        []
        {
            return shared_word::load(await_host_running) == 1;
        }));
    holdWhen(
        [this]
        {
            return trace().back() == "sleep 1000 ms";
        });
    releaseAndHold();
    EXPECT_EQ(record::count(complete), 2);
}

TEST_F(Daemon, FailedReadSkipsTheRulesAndCostsASecond)
{
    host->answersError("test.Error.Broken");
    holdWhen(
        [this]
        {
            return trace().back() == "sleep 1000 ms" &&
                   record::count(readsState) == 2;
        });
    startAndHold();
    const Texts failedRead =
        readFails + Texts{"log 2 morrow: Failed to get current powerevent\n",
                          "sleep 1000 ms"};
    EXPECT_THAT(trace(),
                ElementsAreArray(startsUp + cleansUpNothing() + failedRead +
                                 Texts{"sleep 1000 ms"} + failedRead));
}

TEST_F(Daemon, FailedReadKeepsAPowerDownForALaterIteration)
{
    power_down_pending = 1;
    host->answersError("test.Error.Broken");
    holdAfter(readsState, 2);
    startAndHold();
    EXPECT_EQ(record::count("log 4 morrow: Entry change_State\n"), 0);
    EXPECT_EQ(shared_word::load(power_down_pending), 1);
}

TEST_F(Daemon, OneEndpointMissingIsRedoneEveryTenSeconds)
{
    controllers = {"fff10000.i3c"};
    host->goesTo("Running");
    holdAfter("log 4 morrow: Partial discovery retry\n", 2);
    startAndHold();
    const auto texts = trace();
    const std::string retry = "log 4 morrow: Partial discovery retry\n";
    const auto first = std::find(texts.begin(), texts.end(), retry);
    const auto second = std::find(first + 1, texts.end(), retry);
    ASSERT_NE(second, texts.end());
    // A read after the redo, ten after a tick each, one after the last tick.
    EXPECT_EQ(std::count(first, second, "sleep 1000 ms"), 10);
    EXPECT_EQ(std::count(first, second, readsState), 12);
    EXPECT_EQ(busctl::managedObjects("/xyz/openbmc_project/mctp/0").size(), 1U);
}

TEST_F(Daemon, WaitOfNTicksIsNSleepsAndNPlus1Reads)
{
    controllers = {};
    host->goesTo("Running");
    // The first node never appears: a wait of one tick, then once more.
    holdAfter("sleep 2000 ms", 2);
    startAndHold();
    const auto texts = trace();
    const auto first = std::find(texts.begin(), texts.end(), "sleep 2000 ms");
    const auto second = std::find(first + 1, texts.end(), "sleep 2000 ms");
    // One read after the discovery, one after the tick, one after the switch.
    EXPECT_EQ(std::count(first, second, readsState), 3);
    EXPECT_EQ(std::count(first, second, "sleep 1000 ms"), 1);
}

TEST_F(Daemon, ExceptionOfTheTransportEndsTheProcess)
{
    leaveTheBus();
    EXPECT_EXIT(
        {
            broker.emplace();
            host.emplace();
            host->goesTo("Running");
            fake::endpoints["/dev/i3c-mctp-0"] = {{.throws = true}};
            start();
            (void)record::waitFor("never");
            std::_Exit(1);
        },
        testing::KilledBySignal(SIGABRT), "the transport gave up");
}

TEST_F(Daemon, HostStateThatIsNoTextEndsTheProcess)
{
    leaveTheBus();
    EXPECT_EXIT(
        {
            broker.emplace();
            host.emplace();
            host->answers(
                [](sd_bus_message* reply)
                {
                    return sd_bus_message_append(reply, "v", "u", 1U);
                });
            start();
            (void)record::waitFor("never");
            leave(1);
        },
        testing::KilledBySignal(SIGABRT), "std::bad_variant_access");
}

/** Records the destination of calls on the bus. */
int overhear(sd_bus_message* message, void* /*userData*/,
             sd_bus_error* /*error*/)
{
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0)
    {
        return 0;
    }
    record::add("call to %s: %s", sd_bus_message_get_destination(message),
                sd_bus_message_get_member(message));
    return 1; // not to be answered
}

TEST_F(Daemon, CallsOnlyTheBusAndTheHostStateService)
{
    ServedConnection listener;
    check(sd_bus_add_filter(listener.get(), nullptr, overhear, nullptr),
          "sd_bus_add_filter");
    check(sd_bus_call_method(
              listener.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
              "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr,
              nullptr, "asu", 1, "type='method_call'", 0),
          "BecomeMonitor");
    listener.serve();
    startToDiscovery();
    stop();
    (void)busctl::hasOwner("xyz.openbmc_project.mctp");
    ASSERT_TRUE(record::waitFor("call to org.freedesktop.DBus: NameHasOwner"));
    std::size_t reads = 0;
    for (const auto& text : record::texts())
    {
        if (text.starts_with("call to "))
        {
            EXPECT_THAT(
                text, testing::AnyOf(HasSubstr("to org.freedesktop.DBus: "),
                                     "call to xyz.openbmc_project.State.Host0: "
                                     "Get"));
            reads += text.ends_with(": Get") ? 1 : 0;
        }
    }
    EXPECT_EQ(reads, record::count(readsState));
}

// Terminations at other moments

TEST_F(Daemon, TerminationDuringStartUpStopsTheBusInTheSecondRun)
{
    doNotHold();
    record::when("log 4 morrow_client: morrow_dbus_client_init - Enter",
                 []
                 {
                     terminate();
                     ASSERT_TRUE(record::waitFor(stopped));
                 });
    start();
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_signal: Entry [signal_thread_fn]\n", 2));
    expectOneStopAlone();
    EXPECT_EQ(record::count("log 4 morrow_signal: Stopping Dbus\n"), 0);
    EXPECT_TRUE(busctl::hasOwner("xyz.openbmc_project.mctp"));
    const auto before = trace().size();
    terminateForGood();
    EXPECT_THAT(withoutHandler(trace(before)),
                ElementsAreArray(
                    Texts{"log 4 morrow_signal: Got signal Stopping MORROW\n"} +
                    stopsBusSides + leaves));
}

TEST_F(Daemon, TerminationDuringADiscoveryEndsCleanly)
{
    host->goesTo("Running");
    holdAfter("write bind fff11000.i3c", 1);
    startAndHold();
    stop();
    // The second endpoint comes too late for the bus.
    EXPECT_THAT(trace(), Contains("log 1 morrow_server: createEndpointObject - "
                                  "Error: Bus pointer not present\n"));
}

TEST_F(Daemon, LoopEndsWhileTheStopStillWorks)
{
    startToDiscovery();
    std::unique_lock lock(server_mutex);
    terminate();
    ASSERT_TRUE(record::waitFor(
        "log 4 morrow_server: stop_morrow_dbus_server - Enter\n"));
    doNotHold();
    release();
    EXPECT_TRUE(record::waitFor("log 4 morrow: Stop initialization\n"));
    EXPECT_EQ(record::count(stopped), 0);
    lock.unlock();
    ASSERT_TRUE(record::waitFor(stopped));
    terminateForGood();
}

TEST_F(Daemon, TwoTerminationsAtOnceEndTheProcess)
{
    startToDiscovery();
    doNotHold();
    release();
    // The second arrives when the first has been taken, at the earliest.
    record::when("log 4 morrow_signal: Got signal Stopping MORROW", terminate);
    terminateForGood();
}

/** Holds the main thread at a sleep, then lets it into a handshake that takes
 *  until the test ends it. */
class Handshake : public Daemon
{
  protected:
    void enterHandshake()
    {
        startToDiscovery();
        broken.emplace();
        doNotHold();
        release();
        broken->waitForClient();
        // It has sent its first words; now it is to wait for the answer, so
        // that a signal finds it in a system call.
        ASSERT_TRUE(record::waitUntil(
            [this]
            {
                return thread_status::isAsleep(daemonThread);
            }));
    }

    void endHandshake()
    {
        broken.reset();
    }

    std::optional<HandshakeBroker> broken;
};

TEST_F(Handshake, TerminationStopsTheBusAtOnceAndTheReadFailsByItself)
{
    enterHandshake();
    terminate();
    ASSERT_TRUE(record::waitFor(stopped));
    endHandshake();
    ASSERT_TRUE(record::waitFor("log 4 morrow: Stop initialization\n"));
    terminateForGood();
    EXPECT_THAT(record::texts(),
                Not(Contains(HasSubstr("Interrupted system call"))));
    EXPECT_EQ(record::count("log 2 morrow: Failed to get current powerevent\n"),
              1);
}

TEST_F(Handshake, TerminationOfTheVeryThreadDoesNotInterruptIt)
{
    enterHandshake();
    // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): handled
    ASSERT_EQ(pthread_kill(thread.native_handle(), SIGTERM), 0);
    // Time enough for a signal that is not blocked to be taken.
    (void)poll(nullptr, 0, 100);
    EXPECT_EQ(record::count(stopped), 0);
    endHandshake();
    ASSERT_TRUE(record::waitFor(stopped));
    ASSERT_TRUE(record::waitFor("log 4 morrow: Stop initialization\n"));
    terminateForGood();
    EXPECT_THAT(record::texts(),
                Not(Contains(HasSubstr("Interrupted system call"))));
}

class HandshakeCutAfter :
    public Handshake,
    public testing::WithParamInterface<std::size_t>
{
};

TEST_P(HandshakeCutAfter, StopEnds)
{
    startToDiscovery();
    broken.emplace();
    broken->send(GetParam(), HandshakeBroker::Then::close);
    doNotHold();
    release();
    broken->waitForClient();
    terminate();
    ASSERT_TRUE(record::waitFor(stopped));
    ASSERT_TRUE(record::waitFor("log 4 morrow: Stop initialization\n"));
    terminateForGood();
}

INSTANTIATE_TEST_SUITE_P(
    Bytes, HandshakeCutAfter,
    testing::Range<std::size_t>(0, HandshakeBroker::answers.size() + 1));

TEST_F(Daemon, StopOfItsBusSidesNeedsNoBrokerThatWorks)
{
    startToDiscovery();
    broker->pause();
    doNotHold();
    release();
    terminate();
    ASSERT_TRUE(record::waitFor(stopped));
    broker->resume();
    ASSERT_TRUE(record::waitFor("NameOwnerChanged gone"));
    EXPECT_EQ(startingWith("InterfacesRemoved ", observer->seen()).size(), 2U);
    ASSERT_TRUE(record::waitFor("log 4 morrow: Stop initialization\n"));
    terminateForGood();
}

TEST_F(Daemon, OnlyTheBusThreadsBlockTerminationAndNothingElse)
{
    startToDiscovery();
    constexpr uint64_t termination = 1ULL << (SIGTERM - 1);
    EXPECT_EQ(thread_status::blockedSignals(
                  threadOf("log 4 morrow_client: morrowClientDBusHandler "
                           "- Enter\n")),
              termination);
    EXPECT_EQ(thread_status::blockedSignals(
                  threadOf("log 4 morrow_server: morrowDBusMgrHandler - "
                           "Enter\n")),
              termination);
    EXPECT_EQ(
        thread_status::blockedSignals(threadOf("log 4 morrow_signal: Entry "
                                               "[signal_thread_fn]\n")),
        0U);
    EXPECT_EQ(thread_status::blockedSignals(daemonThread), 0U);
}

// The log

TEST_F(Daemon, LogsTheSourceLineOfEachCall)
{
    startToDiscovery();
    stop();
    std::size_t looked = 0;
    for (const auto& event : record::events())
    {
        if (event.source.empty())
        {
            continue;
        }
        EXPECT_THAT(callAt(event.source, event.line),
                    HasSubstr(event.text.starts_with("trace") ? "MORROW_TRACE("
                                                              : "MORROW_LOG("))
            << event.text;
        ++looked;
    }
    EXPECT_GT(looked, 100U);
}
