// SPDX-License-Identifier: Apache-2.0
#include "morrow/endpoint_object.hpp"
#include "morrow/morrow_server.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/bus_observer.hpp"
#include "tests/support/bus_proxy.hpp"
#include "tests/support/bus_spy.hpp"
#include "tests/support/event_loop.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/heap.hpp"
#include "tests/support/hung_up_pipe.hpp"
#include "tests/support/leave.hpp"
#include "tests/support/limits.hpp"
#include "tests/support/mutex_look.hpp"
#include "tests/support/record.hpp"
#include "tests/support/story.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using namespace telling;

namespace
{

const std::string manager0 = "/xyz/openbmc_project/mctp/0";
const std::string manager1 = "/xyz/openbmc_project/mctp/1";
const std::string manager2 = "/xyz/openbmc_project/mctp/2";

constexpr const char* initialised =
    "log 1 morrow_server: createMorrowEventLoop - morrow DBus Server "
    "Initialization Completed.\n";
constexpr const char* threadExits =
    "log 4 morrow_server: morrowDBusMgrHandler - Exit\n";

/** What InterfacesRemoved lists of an endpoint object. */
constexpr const char* removedInterfaces =
    " org.freedesktop.DBus.Peer org.freedesktop.DBus.Introspectable "
    "org.freedesktop.DBus.Properties xyz.openbmc_project.mctp.Endpoint";

constexpr const char* defaults =
    " DevicePath= EID=0 EndpointType=0 NetworkId=0 Slot=0 "
    "SupportedMessageTypes=[]";

morrow_dbus_server& server()
{
    return morrow_dbus_server::get_instance();
}

/** Publishes an endpoint as discovery does. */
int32_t publish(uint32_t network, uint8_t eid)
{
    return server().createEndpointObject(network, eid, {0x7E, 0x05}, 1, 2,
                                         "/dev/i3c-mctp-0");
}

class ServerWithoutBus : public testing::Test
{
};

/** Tests with a broker, but without a started server. */
class WithBroker : public testing::Test
{
  protected:
    Broker broker;
};

class ServerStart : public WithBroker
{
};

/** Tests with a server that runs. */
class Server : public WithBroker
{
  protected:
    Server()
    {
        EXPECT_EQ(morrow_dbus_server_init(), 0);
    }

    ~Server() override
    {
        if (record::count(threadExits) == 0)
        {
            EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
        }
    }
};

class Registry : public Server
{
  protected:
    BusObserver observer;
};

class Interface : public Registry
{
};

class ServerStop : public Server
{
};

/** An object of its own on a connection of its own. */
class EndpointObject : public WithBroker
{
  protected:
    sdbusplus::bus_t bus = sdbusplus::bus::new_system();
    sdbusplus::server::manager_t manager{bus, manager0.c_str()};
    BusObserver observer;

    /** What was announced. */
    Texts announced()
    {
        // A call of this connection's own comes behind its signals.
        auto call =
            bus.new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                "org.freedesktop.DBus", "GetId");
        (void)bus.call(call);
        observer.catchUp();
        return observer.seen();
    }
};

} // namespace

// Start-up

TEST_F(ServerStart, IsTheWholeStoryOnBothThreads)
{
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 4 morrow_server: morrow_dbus_server_init - Enter\n",
            "log 4 morrow_server: morrow_dbus_server - Default constructor\n",
            "log 4 morrow_server: morrow_dbus_server_init - Exit\n"));
    const std::string starting =
        "log 4 morrow_server: createMorrowEventLoop - Starting "
        "sd_event_loop\n";
    ASSERT_TRUE(record::waitFor(starting));
    const auto thread = threadOf(initialised);
    EXPECT_NE(thread, record::thisThread());
    EXPECT_THAT(
        record::textsOf(thread),
        ElementsAre("log 4 morrow_server: morrowDBusMgrHandler - Enter\n",
                    "log 4 morrow_server: createMorrowEventLoop - Enter\n",
                    initialised, starting));
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStart, ReturnsOnlyAfterTheLoopIsReady)
{
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    EXPECT_EQ(record::count(initialised), 1);
    EXPECT_TRUE(busctl::hasOwner("xyz.openbmc_project.mctp"));
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStart, HasThreeObjectManagers)
{
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    for (const auto& manager : {manager0, manager1, manager2})
    {
        EXPECT_THAT(busctl::managedObjects(manager), IsEmpty());
        EXPECT_THAT(busctl::introspect(manager),
                    HasSubstr("org.freedesktop.DBus.ObjectManager"));
    }
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStart, CanPublishBeforeItHasItsObjectManagers)
{
    record::when("log 4 morrow_server: morrowDBusMgrHandler - Enter",
                 bus_spy::watchThisThread);
    int32_t result = -1;
    record::when("adds the manager " + manager0,
                 [&result]
                 {
                     result = publish(1, 8);
                 });
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStart, ReturnsBetweenTheLineOfReadinessAndTheStartOfTheLoop)
{
    std::size_t returnedBefore = 1;
    bool returnedAfter = false;
    record::when(
        initialised,
        [&returnedBefore]
        {
            // Time enough for what must not happen yet.
            (void)poll(nullptr, 0, 100);
            returnedBefore = record::count(
                "log 4 morrow_server: morrow_dbus_server_init - Exit\n");
        });
    record::when(
        "log 4 morrow_server: createMorrowEventLoop - Starting "
        "sd_event_loop",
        [&returnedAfter]
        {
            returnedAfter = record::waitFor(
                "log 4 morrow_server: morrow_dbus_server_init - Exit\n");
        });
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    EXPECT_EQ(returnedBefore, 0U);
    EXPECT_TRUE(returnedAfter);
}

TEST_F(ServerStart, PipeDoesNotOutliveAnExec)
{
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    EXPECT_EQ(fcntl(serverSignalPipe[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(serverSignalPipe[1], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStart, SemaphoreLastsUntilTheLoopIsReadyAndIsDestroyedTwice)
{
    fake::Semaphore whenReady{};
    record::when(initialised,
                 [&whenReady]
                 {
                     whenReady = fake::semaphore(&serverReadySemaphore);
                 });
    std::vector<int> destroyedAtExits;
    for (const char* exit :
         {"log 4 morrow_server: morrow_dbus_server_init - Exit",
          "log 4 morrow_server: UnloadDBusObjects - Enter",
          "log 4 morrow_server: stop_morrow_dbus_server - Exit"})
    {
        record::when(exit,
                     [&destroyedAtExits]
                     {
                         destroyedAtExits.push_back(
                             fake::semaphore(&serverReadySemaphore).destroyed);
                     });
    }
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    EXPECT_EQ(whenReady.shared, 0);
    EXPECT_EQ(whenReady.value, 0U);
    EXPECT_EQ(whenReady.destroyed, 0);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    EXPECT_THAT(destroyedAtExits, ElementsAre(1, 2, 2));
}

TEST_F(ServerStart, WithoutASemaphoreEndsWith1)
{
    fake::semaphoreInitError = ENOSYS;
    EXPECT_EQ(morrow_dbus_server_init(), 1);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 4 morrow_server: morrow_dbus_server_init - Enter\n",
            "log 4 morrow_server: morrow_dbus_server - Default constructor\n",
            "log 1 morrow_server: morrow_dbus_server_init -Semaphore init "
            "failed:Function not implemented\n",
            "log 4 morrow_server: morrow_dbus_server_init - Exit\n"));
    EXPECT_THAT(serverSignalPipe, ElementsAre(-1, -1));
}

TEST_F(ServerStart, WithoutADescriptorForThePipeEndsWith1)
{
    const limits::NoNewDescriptors none;
    EXPECT_EQ(morrow_dbus_server_init(), 1);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 4 morrow_server: morrow_dbus_server_init - Enter\n",
            "log 4 morrow_server: morrow_dbus_server - Default constructor\n",
            "log 1 morrow_server: morrow_dbus_server_init -Failed to create "
            "signal pipe:Too many open files\n",
            "log 4 morrow_server: morrow_dbus_server_init - Exit\n"));
}

TEST_F(ServerStart, WithoutAThreadEndsWith4)
{
    const limits::NoNewThreads none;
    EXPECT_EQ(morrow_dbus_server_init(), 4);
    EXPECT_THAT(
        storyFrom(0),
        ElementsAre(
            "log 4 morrow_server: morrow_dbus_server_init - Enter\n",
            "log 4 morrow_server: morrow_dbus_server - Default constructor\n",
            "log 1 morrow_server: morrow_dbus_server_init - Error to create "
            "service thread \n",
            "log 4 morrow_server: morrow_dbus_server_init - Exit\n"));
}

TEST_F(ServerStart, AgainWhileTheThreadRunsEndsTheProcess)
{
    EXPECT_EXIT(
        {
            morrow_dbus_server_init();
            morrow_dbus_server_init();
        },
        testing::KilledBySignal(SIGABRT), "");
}

/** Whether start-up has not returned, looked at for as long as a return would
 *  take. */
bool stillWaits(const std::future<int32_t>& started)
{
    return started.wait_for(std::chrono::milliseconds(100)) ==
           std::future_status::timeout;
}

/** Starts the server and, when `seen` has been logged, ends the process: with
 *  42 when starting has not returned. */
[[noreturn]] void startAndExpectNoReturn(const std::string& seen)
{
    const auto started =
        std::async(std::launch::async, morrow_dbus_server_init);
    const bool happened = record::waitFor(seen);
    leave(happened && stillWaits(started) ? 42 : 1);
}

/** How many sockets this process has. */
std::ptrdiff_t sockets()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::count_if(begin(all), end(all),
                         [](const auto& entry)
                         {
                             std::error_code gone;
                             return read_symlink(entry.path(), gone)
                                 .string()
                                 .starts_with("socket:");
                         });
}

TEST_F(ServerStart, NeverReturnsWhileAnotherHoldsTheNameForItself)
{
    auto other = sdbusplus::bus::new_system();
    sd_bus* owner = nullptr;
    ASSERT_GE(sd_bus_open_system(&owner), 0);
    ASSERT_GE(sd_bus_request_name(owner, "xyz.openbmc_project.mctp", 0), 0);
    EXPECT_EXIT(
        {
            const auto before = sockets();
            const auto started =
                std::async(std::launch::async, morrow_dbus_server_init);
            const bool ended = record::waitFor(threadExits);
            // Nor does the connection stay.
            const bool closed = sockets() == before;
            const bool logged =
                record::count(
                    "log 1 morrow_server: morrowDBusMgrHandler "
                    "-Error:sd_bus_request_name: "
                    "org.freedesktop.DBus.Error.FileExists: File exists\n") ==
                1;
            const bool waits = stillWaits(started);
            // Nothing can be published without the name.
            const bool published = publish(0, 8) != 1;
            leave(ended && closed && logged && waits && !published ? 42 : 1);
        },
        testing::ExitedWithCode(42), "");
    sd_bus_flush_close_unref(owner);
}

TEST_F(ServerStart, TakesTheNameFromOneWhoAllowsIt)
{
    sd_bus* owner = nullptr;
    ASSERT_GE(sd_bus_open_system(&owner), 0);
    ASSERT_GE(sd_bus_request_name(owner, "xyz.openbmc_project.mctp",
                                  SD_BUS_NAME_ALLOW_REPLACEMENT),
              0);
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    sd_bus_flush_close_unref(owner);
}

TEST_F(ServerStart, LetsAnotherTakeTheName)
{
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    sd_bus* other = nullptr;
    ASSERT_GE(sd_bus_open_system(&other), 0);
    EXPECT_GE(sd_bus_request_name(other, "xyz.openbmc_project.mctp",
                                  SD_BUS_NAME_REPLACE_EXISTING),
              0);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    sd_bus_flush_close_unref(other);
}

TEST_F(ServerStart, NeverReturnsWithoutABus)
{
    broker.kill();
    EXPECT_EXIT(startAndExpectNoReturn(threadExits),
                testing::ExitedWithCode(42), "");
}

/** Puts a plain file, which can't be polled for, in the place of the stop pipe
 *  before the server thread watches it. */
void makeThePipeUnwatchable()
{
    record::when("log 4 morrow_server: createMorrowEventLoop - Enter",
                 []
                 {
                     serverSignalPipe[0] =
                         open("/run/file", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
                 });
}

TEST_F(ServerStart, NeverReturnsWhenThePipeCannotBeWatched)
{
    EXPECT_EXIT(
        {
            makeThePipeUnwatchable();
            startAndExpectNoReturn("log 1 morrow_server: createMorrowEventLoop "
                                   "-sd_event_add_io sig pipe failed: "
                                   "Operation not permitted\n");
        },
        testing::ExitedWithCode(42), "");
}

/** Starts the server without descriptors for its loop; ends the process with
 *  42 when the thread has logged what it should. */
[[noreturn]] void startWithoutALoop()
{
    record::when("log 4 morrow_server: createMorrowEventLoop - Enter",
                 []
                 {
                     static const limits::NoNewDescriptors none;
                 });
    std::thread(
        []
        {
            morrow_dbus_server_init();
        })
        .detach();
    const bool ended = record::waitFor(threadExits);
    const Texts wanted{
        "log 4 morrow_server: morrowDBusMgrHandler - Enter\n",
        "log 4 morrow_server: createMorrowEventLoop - Enter\n",
        "log 1 morrow_server: createMorrowEventLoop -sd_event_default "
        "failed:Too many open files\n",
        "log 1 morrow_server: createMorrowEventLoop -sd_event_add_io bus "
        "failed:Invalid argument\n",
        "log 1 morrow_server: createMorrowEventLoop -sd_event_add_io sig pipe "
        "failed: Invalid argument\n",
        threadExits};
    const auto told = record::textsOf(threadOf(threadExits));
    EXPECT_EQ(told, wanted);
    leave(ended && told == wanted ? 42 : 1);
}

TEST_F(ServerStart, LoopThatCannotBeMadeIsLoggedStepByStep)
{
    EXPECT_EXIT(startWithoutALoop(), testing::ExitedWithCode(42), "");
}

TEST_F(ServerStart, WithoutALoopTheNameGoes)
{
    EXPECT_EXIT(
        {
            makeThePipeUnwatchable();
            const auto before = sockets();
            const auto started =
                std::async(std::launch::async, morrow_dbus_server_init);
            const bool ended = record::waitFor(threadExits);
            const bool closed = sockets() == before;
            const bool owned = busctl::hasOwner("xyz.openbmc_project.mctp");
            leave(ended && closed && !owned && stillWaits(started) ? 42 : 1);
        },
        testing::ExitedWithCode(42), "");
}

TEST_F(ServerStart, HandshakeThatIsCutIsLogged)
{
    EXPECT_EXIT(
        {
            BusProxy proxy;
            proxy.pass(proxy.authenticationBytes() + 1, BusProxy::Then::close);
            std::thread(
                []
                {
                    morrow_dbus_server_init();
                })
                .detach();
            const bool ended = record::waitFor(threadExits);
            const auto told = record::textsOf(threadOf(threadExits));
            EXPECT_THAT(
                told, ElementsAre("log 4 morrow_server: morrowDBusMgrHandler - "
                                  "Enter\n",
                                  StartsWith("log 1 morrow_server: "
                                             "morrowDBusMgrHandler -Error:"
                                             "sd_bus_get_unique_name: "),
                                  threadExits));
            leave(ended && !HasFailure() ? 42 : 1);
        },
        testing::ExitedWithCode(42), "");
}

TEST_F(ServerStart, WatchesTheBusAndThePipeForInputAlone)
{
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    auto watched = event_loop::watchedBy(serverEvent);
    EXPECT_EQ(watched.size(), 2U);
    for (const auto& [fd, events] : watched)
    {
        EXPECT_EQ(events, static_cast<uint32_t>(EPOLLIN)) << fd;
    }
    EXPECT_TRUE(watched.contains(serverSignalPipe[0]));
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStart, BusThatCannotBeReachedIsLogged)
{
    broker.kill();
    EXPECT_EXIT(
        {
            std::thread(
                []
                {
                    morrow_dbus_server_init();
                })
                .detach();
            const bool ended = record::waitFor(threadExits);
            const auto told = record::textsOf(threadOf(threadExits));
            EXPECT_EQ(told.size(), 3U);
            EXPECT_THAT(told.at(1),
                        StartsWith("log 1 morrow_server: morrowDBusMgrHandler "
                                   "-Error:sd_bus_default_system: "));
            std::_Exit(ended && !HasFailure() ? 42 : 1);
        },
        testing::ExitedWithCode(42), "");
}

TEST_F(ServerStart, WithoutAPipeOrAThreadTheSemaphoreGoes)
{
    {
        const limits::NoNewDescriptors none;
        EXPECT_EQ(morrow_dbus_server_init(), 1);
    }
    EXPECT_EQ(fake::semaphore(&serverReadySemaphore).destroyed, 1);
    const limits::NoNewThreads none;
    EXPECT_EQ(morrow_dbus_server_init(), 4);
    EXPECT_EQ(fake::semaphore(&serverReadySemaphore).destroyed, 1);
}

TEST_F(ServerStart, StopWithoutAThreadLeavesThePipeOpen)
{
    {
        const limits::NoNewThreads none;
        EXPECT_EQ(morrow_dbus_server_init(), 4);
    }
    const auto start = here();
    EXPECT_EQ(server().stop_morrow_dbus_server(), 1);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_server: stop_morrow_dbus_server - Enter\n",
                    "log 1 morrow_server: stop_morrow_dbus_server -Failed to "
                    "terminate thread: Invalid argument\n"));
    EXPECT_NE(fcntl(serverSignalPipe[0], F_GETFD), -1);
    EXPECT_NE(fcntl(serverSignalPipe[1], F_GETFD), -1);
}

TEST_F(ServerStart, ProcessThatEndsWithoutAStopIsAborted)
{
    EXPECT_EXIT(
        {
            morrow_dbus_server_init();
            std::exit(0);
        },
        testing::KilledBySignal(SIGABRT), "");
}

// The registry

TEST_F(ServerWithoutBus, CreatesNothing)
{
    (void)server();
    const auto start = here();
    EXPECT_EQ(publish(0, 8), 1);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre(
            "log 4 morrow_server: createEndpointObject - Enter\n",
            "log 1 morrow_server: createEndpointObject - Error: Bus pointer "
            "not present\n",
            "trace 1 morrow_server: createEndpointObject - Error: Bus pointer "
            "not present\n",
            "log 4 morrow_server: createEndpointObject - Exit\n"));
}

TEST_F(ServerWithoutBus, ChecksTheBusBeforeTheNetwork)
{
    EXPECT_EQ(publish(3, 8), 1);
}

TEST_F(Registry, PublishesAnEndpoint)
{
    const auto start = here();
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre(
            "log 4 morrow_server: createEndpointObject - Enter\n",
            "log 4 morrow_server: createEndpointObject "
            "-[/xyz/openbmc_project/mctp/0/8] object created successful\n",
            "trace 4 morrow_server: createEndpointObject "
            "-[/xyz/openbmc_project/mctp/0/8] object created successful\n",
            "log 4 morrow_server: createEndpointObject - Exit\n"));
    EXPECT_THAT(busctl::managedObjects(manager0),
                ElementsAre("/xyz/openbmc_project/mctp/0/8"));
    EXPECT_EQ(busctl::getAll("/xyz/openbmc_project/mctp/0/8"),
              " DevicePath=/dev/i3c-mctp-0 EID=8 EndpointType=1 NetworkId=0 "
              "Slot=2 SupportedMessageTypes=[126,5]");
}

TEST_F(Registry, PathEndsInTheDecimalEid)
{
    for (const uint8_t eid : {0, 9, 255})
    {
        EXPECT_EQ(publish(0, eid), 0);
    }
    EXPECT_THAT(busctl::managedObjects(manager0),
                ElementsAre("/xyz/openbmc_project/mctp/0/0",
                            "/xyz/openbmc_project/mctp/0/255",
                            "/xyz/openbmc_project/mctp/0/9"));
}

TEST_F(Registry, KeepsTheNetworksApart)
{
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(publish(1, 8), 0);
    EXPECT_EQ(publish(2, 8), 0);
    EXPECT_THAT(busctl::managedObjects(manager0),
                ElementsAre("/xyz/openbmc_project/mctp/0/8"));
    EXPECT_THAT(busctl::managedObjects(manager1),
                ElementsAre("/xyz/openbmc_project/mctp/1/8"));
    EXPECT_THAT(busctl::managedObjects(manager2),
                ElementsAre("/xyz/openbmc_project/mctp/2/8"));
    EXPECT_EQ(server().deleteAllEndpointObject(1), 0);
    EXPECT_THAT(busctl::managedObjects(manager1), IsEmpty());
    EXPECT_THAT(busctl::managedObjects(manager2),
                ElementsAre("/xyz/openbmc_project/mctp/2/8"));
}

TEST_F(Registry, PublishesTheLow16BitsOfTheEndpointType)
{
    EXPECT_EQ(server().createEndpointObject(0, 8, {}, 0xABCD0001, 0xFFFF, ""),
              0);
    EXPECT_EQ(busctl::getAll("/xyz/openbmc_project/mctp/0/8"),
              " DevicePath= EID=8 EndpointType=1 NetworkId=0 Slot=65535 "
              "SupportedMessageTypes=[]");
}

TEST_F(Registry, SecondOfTheSamePathFailsAndTheFirstStays)
{
    EXPECT_EQ(publish(0, 8), 0);
    const auto start = here();
    EXPECT_EQ(server().createEndpointObject(0, 8, {}, 9, 9, "other"), 5);
    const std::string error =
        "createEndpointObject -Type:0,EID:8,Error:sd_bus_add_object_vtable: "
        "org.freedesktop.DBus.Error.FileExists: File exists\n";
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_server: createEndpointObject - Enter\n",
                    "log 1 morrow_server: " + error,
                    "trace 1 morrow_server: " + error,
                    "log 4 morrow_server: createEndpointObject - Exit\n"));
    EXPECT_THAT(busctl::getAll("/xyz/openbmc_project/mctp/0/8"),
                HasSubstr("DevicePath=/dev/i3c-mctp-0"));
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
}

TEST_F(Registry, Network3IsNotInThePathTable)
{
    const auto start = here();
    EXPECT_EQ(publish(3, 8), 2);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_server: createEndpointObject - Enter\n",
                    "log 1 morrow_server: createEndpointObject - Error: "
                    "Network ID 3 not present in map\n",
                    "log 4 morrow_server: createEndpointObject - Exit\n"));
    observer.catchUp();
    EXPECT_THAT(observer.seen(), IsEmpty());
}

TEST_F(Registry, NetworkBeyondTheSignedNumbersIsNotInThePathTable)
{
    EXPECT_EQ(publish(0xFFFFFFFF, 8), 2);
    EXPECT_EQ(record::count("log 1 morrow_server: createEndpointObject - "
                            "Error: Network ID -1 not present in map\n"),
              1);
}

TEST_F(Registry, PropertiesThatCannotBeBuiltEndWithoutAnExitLine)
{
    constexpr std::size_t large = 1U << 20U;
    const std::vector<uint8_t> types(large);
    const auto start = here();
    {
        const heap::NoMemoryFrom none(large);
        EXPECT_EQ(server().createEndpointObject(0, 8, types, 1, 2, "node"), 6);
    }
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_server: createEndpointObject - Enter\n",
                    "log 1 morrow_server: EID:8-Failed to init:"
                    "std::bad_alloc\n"));
    EXPECT_EQ(publish(0, 8), 0) << "the mutex must be free";
}

TEST_F(Registry, ObjectWithoutMemoryIsRememberedAsNoneAndReportedAsCreated)
{
    {
        const heap::NoMemoryFrom none(sizeof(endpoint_object));
        EXPECT_EQ(publish(0, 8), 0);
    }
    EXPECT_EQ(record::count("log 4 morrow_server: createEndpointObject "
                            "-[/xyz/openbmc_project/mctp/0/8] object created "
                            "successful\n"),
              1);
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_EQ(record::count("log 4 morrow_server: deleteAllEndpointObject - "
                            "EID 8: object deleted successfully\n"),
              1);
}

TEST_F(Registry, UnloadingPassesOverAnObjectThatIsNone)
{
    {
        const heap::NoMemoryFrom none(sizeof(endpoint_object));
        EXPECT_EQ(publish(0, 8), 0);
    }
    server().UnloadDBusObjects();
    EXPECT_EQ(publish(0, 8), 0);
}

TEST_F(Registry, WithdrawsInAscendingOrder)
{
    for (const uint8_t eid : {20, 9, 12})
    {
        EXPECT_EQ(publish(0, eid), 0);
    }
    observer.catchUp();
    const auto seenBefore = observer.seen().size();
    const auto start = here();
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_server: deleteAllEndpointObject - Enter\n",
                    "log 4 morrow_server: deleteAllEndpointObject - EID 9: "
                    "object deleted successfully\n",
                    "trace 4 morrow_server: deleteAllEndpointObject - EID 9: "
                    "object deleted successfully\n",
                    "log 4 morrow_server: deleteAllEndpointObject - EID 12: "
                    "object deleted successfully\n",
                    "trace 4 morrow_server: deleteAllEndpointObject - EID 12: "
                    "object deleted successfully\n",
                    "log 4 morrow_server: deleteAllEndpointObject - EID 20: "
                    "object deleted successfully\n",
                    "trace 4 morrow_server: deleteAllEndpointObject - EID 20: "
                    "object deleted successfully\n",
                    "log 4 morrow_server: deleteAllEndpointObject - Exit\n"));
    observer.catchUp();
    auto seen = observer.seen();
    seen.erase(seen.begin(),
               seen.begin() + static_cast<std::ptrdiff_t>(seenBefore));
    EXPECT_THAT(seen,
                ElementsAre("InterfacesRemoved /xyz/openbmc_project/mctp/0/9" +
                                std::string(removedInterfaces),
                            "InterfacesRemoved /xyz/openbmc_project/mctp/0/12" +
                                std::string(removedInterfaces),
                            "InterfacesRemoved /xyz/openbmc_project/mctp/0/20" +
                                std::string(removedInterfaces)));
}

TEST_F(Registry, WithdrawingAnEmptyNetworkLogsOnlyEntryAndExit)
{
    const auto start = here();
    EXPECT_EQ(server().deleteAllEndpointObject(1), 0);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_server: deleteAllEndpointObject - Enter\n",
                    "log 4 morrow_server: deleteAllEndpointObject - Exit\n"));
}

TEST_F(Registry, WithdrawingNetwork7IsRefusedWithoutAnExitLine)
{
    for (const int32_t network : {7, -1, 3})
    {
        const auto start = here();
        EXPECT_EQ(server().deleteAllEndpointObject(network), 3);
        EXPECT_THAT(
            storyFrom(start),
            ElementsAre(
                "log 4 morrow_server: deleteAllEndpointObject - Enter\n",
                "log 1 morrow_server: deleteAllEndpointObject - Error: "
                "NetworkID " +
                    std::to_string(network) + " not supported\n"));
    }
}

TEST_F(Registry, RefusedWithdrawalLeavesTheMutexFree)
{
    EXPECT_EQ(server().deleteAllEndpointObject(7), 3);
    EXPECT_EQ(publish(0, 8), 0);
}

TEST_F(Registry, PublishesAgainWhatWasWithdrawn)
{
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_THAT(busctl::managedObjects(manager0),
                ElementsAre("/xyz/openbmc_project/mctp/0/8"));
}

TEST_F(Registry, UnloadingWithdrawsAllNetworksWithoutALineForEach)
{
    EXPECT_EQ(publish(2, 1), 0);
    EXPECT_EQ(publish(0, 7), 0);
    EXPECT_EQ(publish(0, 3), 0);
    EXPECT_EQ(publish(1, 5), 0);
    observer.catchUp();
    const auto seenBefore = observer.seen().size();
    const auto start = here();
    server().UnloadDBusObjects();
    EXPECT_THAT(storyFrom(start),
                ElementsAre("log 4 morrow_server: UnloadDBusObjects - Enter\n",
                            "log 4 morrow_server: UnloadDBusObjects - Exit\n"));
    observer.catchUp();
    auto seen = observer.seen();
    seen.erase(seen.begin(),
               seen.begin() + static_cast<std::ptrdiff_t>(seenBefore));
    EXPECT_THAT(seen,
                ElementsAre(StartsWith("InterfacesRemoved "
                                       "/xyz/openbmc_project/mctp/0/3 "),
                            StartsWith("InterfacesRemoved "
                                       "/xyz/openbmc_project/mctp/0/7 "),
                            StartsWith("InterfacesRemoved "
                                       "/xyz/openbmc_project/mctp/1/5 "),
                            StartsWith("InterfacesRemoved "
                                       "/xyz/openbmc_project/mctp/2/1 ")));
}

TEST_F(Registry, WaitsForTheMutex)
{
    std::unique_lock lock(server_mutex);
    std::thread creator(
        []
        {
            EXPECT_EQ(publish(0, 8), 0);
        });
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_server: createEndpointObject - Enter\n"));
    EXPECT_EQ(record::count("log 4 morrow_server: createEndpointObject - "
                            "Exit\n"),
              0);
    lock.unlock();
    creator.join();
}

/** Expects an operation, of which this is the first line, to wait for the
 *  mutex.
 *  @param meanwhile  called while it waits */
void expectWaitsForTheMutex(
    const std::string& enters, const std::function<void()>& operation,
    const std::function<void()>& meanwhile = [] {})
{
    std::unique_lock lock(server_mutex);
    auto done = std::async(std::launch::async, operation);
    ASSERT_TRUE(record::waitFor(enters));
    EXPECT_EQ(done.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    meanwhile();
    lock.unlock();
    done.get();
}

/** Whether another thread than the calling one can have the mutex now. */
bool othersCanHaveTheMutex()
{
    return std::async(std::launch::async,
                      []
                      {
                          const std::unique_lock lock(server_mutex,
                                                      std::try_to_lock);
                          return lock.owns_lock();
                      })
        .get();
}

TEST_F(Registry, LogsItsExitsWithTheMutexFree)
{
    std::vector<bool> free;
    for (const std::string& name : {std::string("createEndpointObject"),
                                    std::string("deleteAllEndpointObject"),
                                    std::string("UnloadDBusObjects")})
    {
        record::when("log 4 morrow_server: " + name + " - Exit",
                     [&free]
                     {
                         // The server's thread may have it for a while.
                         free.push_back(
                             record::waitUntil(othersCanHaveTheMutex));
                     });
    }
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    server().UnloadDBusObjects();
    EXPECT_THAT(free, ElementsAre(true, true, true));
}

TEST_F(Registry, WithdrawalWaitsForTheMutex)
{
    expectWaitsForTheMutex(
        "log 4 morrow_server: deleteAllEndpointObject - Enter\n",
        []
        {
            EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
        });
}

TEST_F(Registry, UnloadingWaitsForTheMutex)
{
    EXPECT_EQ(publish(0, 8), 0);
    observer.catchUp();
    const auto announced = observer.seen().size();
    std::size_t seenMeanwhile = 0;
    expectWaitsForTheMutex(
        "log 4 morrow_server: UnloadDBusObjects - Enter\n",
        []
        {
            server().UnloadDBusObjects();
        },
        [&]
        {
            seenMeanwhile = observer.seen().size();
        });
    EXPECT_EQ(seenMeanwhile, announced);
}

TEST_F(Registry, UnloadingIsDoneWhenItLogsItsExit)
{
    EXPECT_EQ(publish(0, 8), 0);
    std::vector<std::string> left{"not looked at"};
    record::when("log 4 morrow_server: UnloadDBusObjects - Exit",
                 [&left]
                 {
                     left = busctl::managedObjects(manager0);
                 });
    server().UnloadDBusObjects();
    EXPECT_THAT(left, IsEmpty());
}

TEST_F(Registry, WithdrawsUnderTheMutex)
{
    EXPECT_EQ(publish(0, 8), 0);
    bool free = true;
    record::when("trace 4 morrow_server: deleteAllEndpointObject - EID 8",
                 [&free]
                 {
                     free = othersCanHaveTheMutex();
                 });
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_FALSE(free);
}

TEST_F(Registry, RequestsAreNotServedWhileTheMutexIsHeld)
{
    EXPECT_EQ(publish(0, 8), 0);
    std::unique_lock lock(server_mutex);
    auto answer = std::async(std::launch::async,
                             []
                             {
                                 return busctl::getArbitration(
                                     "/xyz/openbmc_project/mctp/0/8", 1);
                             });
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    lock.unlock();
    EXPECT_EQ(answer.get(), "0");
}

TEST_F(Registry, ServesRequestsWhileEndpointsComeAndGo)
{
    std::atomic<bool> finished{false};
    std::thread client(
        [&finished]
        {
            while (!finished)
            {
                (void)busctl::managedObjects(manager0);
                (void)busctl::getAll("/xyz/openbmc_project/mctp/0/8");
            }
        });
    for (int round = 0; round < 50; ++round)
    {
        EXPECT_EQ(publish(0, 8), 0);
        EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    }
    finished = true;
    client.join();
}

TEST_F(Registry, PropertiesAreBuiltBeforeTheNetworkIsLookedAt)
{
    constexpr std::size_t large = 1U << 20U;
    const std::vector<uint8_t> types(large);
    const heap::NoMemoryFrom none(large);
    EXPECT_EQ(server().createEndpointObject(3, 8, types, 1, 2, "node"), 6);
}

TEST_F(Registry, ObjectThatIsNoneGivesWayToTheNext)
{
    {
        const heap::NoMemoryFrom none(sizeof(endpoint_object));
        EXPECT_EQ(publish(0, 8), 0);
    }
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_EQ(record::count("log 4 morrow_server: deleteAllEndpointObject - "
                            "EID 8: object deleted successfully\n"),
              1);
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
}

TEST_F(Registry, SaysThatAnObjectIsWithdrawnBeforeItIs)
{
    EXPECT_EQ(publish(0, 8), 0);
    record::when("trace 4 morrow_server: deleteAllEndpointObject - EID 8",
                 []
                 {
                     bus_spy::watchThisThread();
                 });
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    // What an object lets go of when it goes.
    EXPECT_THAT(storyFrom(here() - 2),
                ElementsAre("lets go of the bus",
                            "log 4 morrow_server: deleteAllEndpointObject - "
                            "Exit\n"));
}

TEST_F(Registry, PublishingWaitsForTheMutex)
{
    expectWaitsForTheMutex(
        "log 4 morrow_server: createEndpointObject - Enter\n",
        []
        {
            EXPECT_EQ(publish(0, 8), 0);
        });
}

// The interface, as a client sees it

TEST_F(Interface, AnnouncesDefaultsThenEachValueByName)
{
    EXPECT_EQ(server().createEndpointObject(1, 0x9D, {0x7E, 0x05}, 1, 3,
                                            "/dev/i3c-mctp-1"),
              0);
    observer.catchUp();
    const std::string path = " /xyz/openbmc_project/mctp/1/157";
    EXPECT_THAT(
        observer.seen(),
        ElementsAre("InterfacesAdded" + path + defaults,
                    "PropertiesChanged" + path + " DevicePath=/dev/i3c-mctp-1",
                    "PropertiesChanged" + path + " EID=157",
                    "PropertiesChanged" + path + " EndpointType=1",
                    "PropertiesChanged" + path + " NetworkId=1",
                    "PropertiesChanged" + path + " Slot=3",
                    "PropertiesChanged" + path +
                        " SupportedMessageTypes=[126,5]"));
}

TEST_F(Interface, ValuesThatEqualTheirDefaultsAreNotAnnounced)
{
    EXPECT_EQ(server().createEndpointObject(0, 0, {0x7E, 0x05}, 1, 0,
                                            "/dev/i3c-mctp-0"),
              0);
    observer.catchUp();
    const std::string path = " /xyz/openbmc_project/mctp/0/0";
    EXPECT_THAT(
        observer.seen(),
        ElementsAre("InterfacesAdded" + path + defaults,
                    "PropertiesChanged" + path + " DevicePath=/dev/i3c-mctp-0",
                    "PropertiesChanged" + path + " EndpointType=1",
                    "PropertiesChanged" + path +
                        " SupportedMessageTypes=[126,5]"));
}

TEST_F(Interface, GetArbitrationAnswers0ToEveryByte)
{
    EXPECT_EQ(publish(0, 8), 0);
    for (const uint8_t eid : {0, 1, 255})
    {
        EXPECT_EQ(busctl::getArbitration("/xyz/openbmc_project/mctp/0/8", eid),
                  "0");
    }
}

TEST_F(Registry, WaitsAMillisecondForTheNextRequest)
{
    const auto thread = threadOf(initialised);
    // A byte that is ignored, to get hold of the thread.
    record::when("log 4 morrow_server: morrowProcessSig - signal: 7",
                 bus_spy::watchThisThread);
    ASSERT_EQ(write(serverSignalPipe[1], "\7", 1), 1);
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_server: morrowProcessSig - signal: 7\n"));
    (void)busctl::managedObjects(manager0);
    ASSERT_TRUE(record::waitFor("waits 1000 us for the bus"));
    auto waits = record::textsOf(thread);
    std::erase_if(waits,
                  [](const auto& text)
                  {
                      return !text.starts_with("waits ");
                  });
    EXPECT_EQ(waits, Texts(waits.size(), "waits 1000 us for the bus"));
}

TEST_F(Registry, MutexIsKeptInTheWaitForTheNextRequest)
{
    // A byte that is ignored, to get hold of the thread.
    record::when("log 4 morrow_server: morrowProcessSig - signal: 7",
                 bus_spy::watchThisThread);
    ASSERT_EQ(write(serverSignalPipe[1], "\7", 1), 1);
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_server: morrowProcessSig - signal: 7\n"));
    bool free = true;
    record::when("waits 1000 us for the bus",
                 [&free]
                 {
                     free = isFreeForAnother(server_mutex);
                 });
    (void)busctl::managedObjects(manager0);
    ASSERT_TRUE(record::waitFor("finds nothing more to do"));
    EXPECT_FALSE(free);
}

TEST_F(ServerWithoutBus, ServingRequestsEndsWith0)
{
    EXPECT_EQ(morrowProcessRequest(nullptr, -1, 0, nullptr), 0);
    EXPECT_TRUE(isFreeForAnother(server_mutex));
}

TEST_F(Registry, ServingRequestsAlwaysEndsWith0)
{
    EXPECT_EQ(morrowProcessRequest(nullptr, -1, 0, nullptr), 0);
}

TEST_F(Interface, SetIsRefused)
{
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_THAT(busctl::setEid("/xyz/openbmc_project/mctp/0/8", 9),
                StartsWith("org.freedesktop.DBus.Error.PropertyReadOnly: "));
    EXPECT_THAT(busctl::getAll("/xyz/openbmc_project/mctp/0/8"),
                HasSubstr(" EID=8 "));
}

TEST_F(Interface, IntrospectionListsTheMembersInOrder)
{
    EXPECT_EQ(publish(0, 8), 0);
    const auto xml = busctl::introspect("/xyz/openbmc_project/mctp/0/8");
    const std::string expected =
        R"( <interface name="xyz.openbmc_project.mctp.Endpoint">
  <method name="GetArbitration">
   <arg type="y" direction="in"/>
   <arg type="u" direction="out"/>
  </method>
  <signal name="ArbitrationUpdated">
   <arg type="y"/>
   <arg type="u"/>
   <arg type="u"/>
  </signal>
  <property name="NetworkId" type="u" access="read">
  </property>
  <property name="EID" type="y" access="read">
  </property>
  <property name="SupportedMessageTypes" type="ay" access="read">
  </property>
  <property name="EndpointType" type="q" access="read">
  </property>
  <property name="Slot" type="q" access="read">
  </property>
  <property name="DevicePath" type="s" access="read">
  </property>
 </interface>
)";
    EXPECT_THAT(xml, HasSubstr(expected));
}

TEST_F(Interface, GetAndManagedObjectsGiveEachValue)
{
    EXPECT_EQ(publish(0, 8), 0);
    const std::string path = manager0 + "/8";
    EXPECT_EQ(busctl::get(path, "NetworkId"), "0");
    EXPECT_EQ(busctl::get(path, "EID"), "8");
    EXPECT_EQ(busctl::get(path, "SupportedMessageTypes"), "[126,5]");
    EXPECT_EQ(busctl::get(path, "EndpointType"), "1");
    EXPECT_EQ(busctl::get(path, "Slot"), "2");
    EXPECT_EQ(busctl::get(path, "DevicePath"), "/dev/i3c-mctp-0");
    EXPECT_THAT(
        busctl::managedValues(manager0),
        ElementsAre(path + " DevicePath=/dev/i3c-mctp-0 EID=8 EndpointType=1 "
                           "NetworkId=0 Slot=2 SupportedMessageTypes=[126,5]"));
}

TEST_F(Interface, GetArbitrationWithAnotherArgumentIsAnError)
{
    EXPECT_EQ(publish(0, 8), 0);
    auto bus = sdbusplus::bus::new_system();
    auto call = bus.new_method_call(
        "xyz.openbmc_project.mctp", (manager0 + "/8").c_str(),
        "xyz.openbmc_project.mctp.Endpoint", "GetArbitration");
    call.append(uint32_t{8});
    try
    {
        (void)bus.call(call);
        FAIL();
    }
    catch (const sdbusplus::exception::SdBusError& error)
    {
        EXPECT_STREQ(error.name(), "org.freedesktop.DBus.Error.InvalidArgs");
    }
}

TEST_F(Interface, ArbitrationUpdatedIsNeverSent)
{
    sd_bus* bus = nullptr;
    ASSERT_GE(sd_bus_open_system(&bus), 0);
    int signals = 0;
    ASSERT_GE(sd_bus_match_signal(
                  bus, nullptr, "xyz.openbmc_project.mctp", nullptr,
                  "xyz.openbmc_project.mctp.Endpoint", nullptr,
                  [](sd_bus_message*, void* count, sd_bus_error*)
                  {
                      ++*static_cast<int*>(count);
                      return 0;
                  },
                  &signals),
              0);
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(busctl::getArbitration(manager0 + "/8", 1), "0");
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    // The answer comes behind all that the daemon has sent.
    ASSERT_GE(sd_bus_call_method(bus, "xyz.openbmc_project.mctp", "/",
                                 "org.freedesktop.DBus.Peer", "Ping", nullptr,
                                 nullptr, nullptr),
              0);
    while (sd_bus_process(bus, nullptr) > 0)
    {
    }
    EXPECT_EQ(signals, 0);
    sd_bus_flush_close_unref(bus);
}

// An endpoint object on its own

TEST_F(EndpointObject, SettingAValueAgainSendsNoSignal)
{
    endpoint_object object(bus, manager0 + "/8", {{"EID", uint8_t{8}}});
    EXPECT_EQ(object.eid(8), 8);
    EXPECT_EQ(object.eid(9, true), 9);
    EXPECT_EQ(object.eid(10), 10);
    EXPECT_THAT(announced(),
                ElementsAre("InterfacesAdded " + manager0 + "/8" + defaults,
                            "PropertiesChanged " + manager0 + "/8 EID=8",
                            "PropertiesChanged " + manager0 + "/8 EID=10"));
}

TEST_F(EndpointObject, WrongTypeIsRefusedAndNothingStays)
{
    try
    {
        const endpoint_object object(bus, manager0 + "/8",
                                     {{"EID", uint32_t{8}}});
        FAIL();
    }
    catch (const std::bad_variant_access& error)
    {
        EXPECT_STREQ(error.what(), "std::get: wrong index for variant");
    }
    EXPECT_THAT(announced(),
                ElementsAre("InterfacesAdded " + manager0 + "/8" + defaults,
                            "InterfacesRemoved " + manager0 + "/8" +
                                removedInterfaces));
}

TEST_F(EndpointObject, PathThatIsNoneIsRefused)
{
    EXPECT_THROW(endpoint_object(bus, "no path", {}), std::exception);
}

TEST_F(EndpointObject, ArbitrationIsAlways0)
{
    endpoint_object object(bus, manager0 + "/8", {});
    for (int eid = 0; eid < 256; ++eid)
    {
        EXPECT_EQ(object.getArbitration(static_cast<uint8_t>(eid)), 0U);
    }
}

// Stopping

TEST_F(ServerStop, IsTheWholeStoryOnBothThreads)
{
    ASSERT_TRUE(record::waitFor("log 4 morrow_server: createMorrowEventLoop - "
                                "Starting sd_event_loop\n"));
    const auto thread = threadOf(initialised);
    const auto started = record::textsOf(thread).size();
    const auto start = here();
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_server: stop_morrow_dbus_server - Enter\n",
                    "log 4 morrow_server: UnloadDBusObjects - Enter\n",
                    "log 4 morrow_server: UnloadDBusObjects - Exit\n",
                    "log 4 morrow_server: stop_morrow_dbus_server - Exit\n"));
    auto thread_story = record::textsOf(thread);
    thread_story.erase(thread_story.begin(),
                       thread_story.begin() +
                           static_cast<std::ptrdiff_t>(started));
    EXPECT_THAT(
        thread_story,
        ElementsAre("log 4 morrow_server: morrowProcessSig - signal: 1\n",
                    "log 4 morrow_server: createMorrowEventLoop - "
                    "sd_event_loop returned\n",
                    threadExits));
}

TEST_F(ServerStop, LetsGoOfTheBusAndThenOfTheManagersInReverseOrder)
{
    const auto thread = threadOf(initialised);
    record::when("log 4 morrow_server: morrowProcessSig - signal: 1",
                 []
                 {
                     bus_spy::watchThisThread();
                 });
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    const auto story = record::textsOf(thread);
    // The connection's own managers come before the loop's go.
    EXPECT_THAT(Texts(story.end() - 9, story.end()),
                ElementsAre("log 4 morrow_server: createMorrowEventLoop - "
                            "sd_event_loop returned\n",
                            "adds the manager " + manager0,
                            "adds the manager " + manager1,
                            "adds the manager " + manager2,
                            "lets go of the bus",
                            "lets go of the manager " + manager2,
                            "lets go of the manager " + manager1,
                            "lets go of the manager " + manager0, threadExits));
}

TEST_F(ServerStop, WithdrawsEveryEndpointAndLeavesTheBus)
{
    BusObserver observer;
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(publish(0, 9), 0);
    EXPECT_EQ(publish(1, 7), 0);
    observer.catchUp();
    const auto seenBefore = observer.seen().size();
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    ASSERT_TRUE(record::waitFor("NameOwnerChanged gone"));
    auto seen = observer.seen();
    seen.erase(seen.begin(),
               seen.begin() + static_cast<std::ptrdiff_t>(seenBefore));
    EXPECT_THAT(
        seen,
        ElementsAre("InterfacesRemoved " + manager0 + "/8" + removedInterfaces,
                    "InterfacesRemoved " + manager0 + "/9" + removedInterfaces,
                    "InterfacesRemoved " + manager1 + "/7" + removedInterfaces,
                    "NameOwnerChanged gone"));
    EXPECT_FALSE(busctl::hasOwner("xyz.openbmc_project.mctp"));
}

TEST_F(ServerStop, WithdrawalBetweenTheLoopsEndAndTheStopsIsAnnounced)
{
    BusObserver observer;
    EXPECT_EQ(publish(0, 8), 0);
    record::when(threadExits,
                 []
                 {
                     EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
                 });
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    ASSERT_TRUE(record::waitFor("NameOwnerChanged gone"));
    EXPECT_THAT(observer.seen(), Contains("InterfacesRemoved " + manager0 +
                                          "/8" + removedInterfaces));
}

TEST_F(ServerStop, EmptiesTheMapsAndTheBus)
{
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    const auto start = here();
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_EQ(storyFrom(start).size(), 2U) << "an object was left";
    EXPECT_EQ(publish(0, 8), 1);
}

TEST_F(ServerStop, LeavesThePipeClosedWithoutNumbers)
{
    const auto before = serverSignalPipe;
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    EXPECT_THAT(serverSignalPipe, ElementsAre(-1, -1));
    EXPECT_EQ(fcntl(before[0], F_GETFD), -1);
    EXPECT_EQ(fcntl(before[1], F_GETFD), -1);
}

TEST_F(ServerStop, ClosesThePipeBeforeItDestroysTheSemaphore)
{
    StopPipe whenDestroyed{};
    fake::onSemaphoreDestroy = [&whenDestroyed]
    {
        whenDestroyed = serverSignalPipe;
    };
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    fake::onSemaphoreDestroy = {};
    EXPECT_EQ(whenDestroyed, closedStopPipe);
}

TEST_F(ServerStop, SecondFailsToWriteAndToJoin)
{
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    const auto start = here();
    EXPECT_EQ(server().stop_morrow_dbus_server(), 1);
    EXPECT_THAT(
        storyFrom(start),
        ElementsAre("log 4 morrow_server: stop_morrow_dbus_server - Enter\n",
                    "log 1 morrow_server: stop_morrow_dbus_server -Signal pipe "
                    "write failed: Bad file descriptor\n",
                    "log 1 morrow_server: stop_morrow_dbus_server -Failed to "
                    "terminate thread: Invalid argument\n"));
}

TEST_F(ServerStop, SecondWritesIntoNothingThatHasTakenTheNumbers)
{
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    // Whatever is opened now takes the numbers that are free.
    std::vector<std::array<int, 2>> pipes(4);
    for (auto& pipe : pipes)
    {
        ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK), 0);
    }
    EXPECT_EQ(server().stop_morrow_dbus_server(), 1);
    for (auto& pipe : pipes)
    {
        char byte = 0;
        EXPECT_EQ(read(pipe[0], &byte, 1), -1);
        close(pipe[0]);
        close(pipe[1]);
    }
}

TEST_F(ServerStop, TwoAtATimeEndWellForOneAndWithoutAThreadForTheOther)
{
    int32_t other = -1;
    std::thread second(
        [&other]
        {
            other = server().stop_morrow_dbus_server();
        });
    const int32_t mine = server().stop_morrow_dbus_server();
    second.join();
    EXPECT_EQ(mine + other, 1);
}

TEST_F(ServerStop, SecondWaitsForTheFirst)
{
    const auto stop = []
    {
        return server().stop_morrow_dbus_server();
    };
    std::unique_lock lock(server_mutex);
    auto first = std::async(std::launch::async, stop);
    ASSERT_TRUE(record::waitFor("log 4 morrow_server: createMorrowEventLoop - "
                                "sd_event_loop returned\n"));
    auto second = std::async(std::launch::async, stop);
    ASSERT_TRUE(record::waitFor(
        "log 4 morrow_server: stop_morrow_dbus_server - Enter\n", 2));
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    lock.unlock();
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(second.get(), 1);
    EXPECT_EQ(record::count("log 1 morrow_server: stop_morrow_dbus_server "
                            "-Signal pipe write failed: Bad file "
                            "descriptor\n"),
              1);
}

TEST_F(ServerStop, LetsGoOfTheLoopsManagersUnderTheMutex)
{
    record::when("log 4 morrow_server: morrowProcessSig - signal: 1",
                 bus_spy::watchThisThread);
    bool free = true;
    record::when("lets go of the manager " + manager0,
                 [&free]
                 {
                     free = othersCanHaveTheMutex();
                 });
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    EXPECT_FALSE(free);
}

TEST_F(ServerStop, HasLeftTheBusWhenItLogsItsExit)
{
    bool left = false;
    record::when("log 4 morrow_server: stop_morrow_dbus_server - Exit",
                 [&left]
                 {
                     left = record::waitUntil(
                         []
                         {
                             return !busctl::hasOwner(
                                 "xyz.openbmc_project.mctp");
                         });
                 });
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    EXPECT_TRUE(left);
}

TEST_F(ServerStop, LetsGoOfItsObjectsUnderTheMutex)
{
    record::when("log 4 morrow_server: morrowProcessSig - signal: 1",
                 bus_spy::watchThisThread);
    std::unique_lock lock(server_mutex);
    auto stop = std::async(std::launch::async,
                           []
                           {
                               return server().stop_morrow_dbus_server();
                           });
    ASSERT_TRUE(record::waitFor("log 4 morrow_server: createMorrowEventLoop - "
                                "sd_event_loop returned\n"));
    EXPECT_EQ(stop.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    EXPECT_EQ(record::count(threadExits), 0);
    EXPECT_EQ(record::count("adds the manager " + manager0), 0);
    lock.unlock();
    EXPECT_EQ(stop.get(), 0);
}

/** Whether a thread waits in a system call. */
bool isAsleep(pid_t thread)
{
    std::ifstream status("/proc/self/task/" + std::to_string(thread) +
                         "/status");
    for (std::string line; std::getline(status, line);)
    {
        if (line.starts_with("State:"))
        {
            return line.find("S (sleeping)") != std::string::npos;
        }
    }
    return false;
}

TEST_F(ServerStop, PublicationThatWaitedForTheMutexFindsTheBusGone)
{
    const auto thread = threadOf(initialised);
    std::unique_lock lock(server_mutex);
    auto published = std::async(std::launch::async,
                                []
                                {
                                    return publish(0, 8);
                                });
    const std::string enters =
        "log 4 morrow_server: createEndpointObject - Enter\n";
    ASSERT_TRUE(record::waitFor(enters));
    // It waits for the mutex, and gets it first.
    ASSERT_TRUE(record::waitUntil(
        [&enters]
        {
            return isAsleep(threadOf(enters));
        }));
    ASSERT_EQ(write(serverSignalPipe[1], "\1", 1), 1);
    ASSERT_TRUE(record::waitFor("log 4 morrow_server: createMorrowEventLoop - "
                                "sd_event_loop returned\n"));
    // The server's thread has given the bus up and waits for the mutex, too.
    ASSERT_TRUE(record::waitUntil(
        [thread]
        {
            return isAsleep(thread);
        }));
    lock.unlock();
    EXPECT_EQ(published.get(), 1);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStop, PublicationUnderWayLetsGoOfTheBusBeforeTheMutexIsFree)
{
    const auto thread = threadOf(initialised);
    record::when("log 4 morrow_server: morrowProcessSig - signal: 1",
                 bus_spy::watchThisThread);
    // The loop ends while a publication has the mutex and a share of the bus,
    // and the thread ends before the publication has returned.
    record::when("trace 4 morrow_server: createEndpointObject -[",
                 []
                 {
                     ASSERT_EQ(write(serverSignalPipe[1], "\1", 1), 1);
                     ASSERT_TRUE(record::waitFor(
                         "log 4 morrow_server: createMorrowEventLoop - "
                         "sd_event_loop returned\n"));
                 });
    record::when("log 4 morrow_server: createEndpointObject - Exit",
                 []
                 {
                     ASSERT_TRUE(record::waitFor(threadExits));
                 });
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_THAT(record::textsOf(thread), Contains("lets go of the bus"));
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStart, StopSendsWhatTheBrokerHadNoRoomForBeforeItLeaves)
{
    const BusObserver observer;
    record::when("log 4 morrow_server: createMorrowEventLoop - Enter",
                 []
                 {
                     // As little room as the system lets a socket have.
                     sd_bus* own = nullptr;
                     ASSERT_GE(sd_bus_default_system(&own), 0);
                     const int size = 1;
                     ASSERT_EQ(setsockopt(sd_bus_get_fd(own), SOL_SOCKET,
                                          SO_SNDBUF, &size, sizeof(size)),
                               0);
                     sd_bus_unref(own);
                 });
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    for (uint8_t eid = 0; eid < 100; ++eid)
    {
        EXPECT_EQ(publish(0, eid), 0);
    }
    broker.pause();
    auto stop = std::async(std::launch::async,
                           []
                           {
                               return server().stop_morrow_dbus_server();
                           });
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_server: UnloadDBusObjects - Exit\n"));
    EXPECT_EQ(stop.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    broker.resume();
    EXPECT_EQ(stop.get(), 0);
    ASSERT_TRUE(record::waitFor("NameOwnerChanged gone"));
    const auto seen = observer.seen();
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(),
                            [](const auto& text)
                            {
                                return text.starts_with("InterfacesRemoved ");
                            }),
              100);
}

TEST_F(ServerStop, ByteOtherThan1IsLoggedAndIgnored)
{
    const uint8_t byte = 7;
    ASSERT_EQ(write(serverSignalPipe[1], &byte, 1), 1);
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_server: morrowProcessSig - signal: 7\n"));
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_THAT(busctl::managedObjects(manager0), ElementsAre(manager0 + "/8"));
}

TEST_F(ServerStop, PipeWithoutAWriterIsReadInVainAndWithoutAWord)
{
    {
        const HungUpPipe pipe(serverSignalPipe, threadOf(initialised));
        EXPECT_TRUE(pipe.keepsTheReaderBusy());
    }
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    const auto told = record::textsOf(threadOf(initialised));
    EXPECT_EQ(std::count_if(told.begin(), told.end(),
                            [](const auto& text)
                            {
                                return text.find("signal: ") !=
                                       std::string::npos;
                            }),
              1);
}

TEST_F(ServerStop, LogsTheByteBeforeTheLoopEndsAndEndsItWellMeant)
{
    int whenLogged = 0;
    int whenEnded = -1;
    record::when("log 4 morrow_server: morrowProcessSig - signal: 1",
                 [&whenLogged]
                 {
                     int code = 0;
                     whenLogged = sd_event_get_exit_code(serverEvent, &code);
                 });
    record::when("log 4 morrow_server: createMorrowEventLoop - sd_event_loop "
                 "returned",
                 [&whenEnded]
                 {
                     EXPECT_GE(sd_event_get_exit_code(serverEvent, &whenEnded),
                               0);
                 });
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    EXPECT_EQ(whenLogged, -ENODATA);
    EXPECT_EQ(whenEnded, 0);
}

TEST_F(ServerStop, IsOrderlyWhileEndpointsArePublished)
{
    const BusObserver observer;
    std::thread discovery(
        []
        {
            while (publish(0, 8) == 0)
            {
                EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
            }
        });
    ASSERT_TRUE(record::waitFor(
        "log 4 morrow_server: createEndpointObject - Exit\n", 5));
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    discovery.join();
    EXPECT_TRUE(record::waitFor("NameOwnerChanged gone"));
}

TEST_F(ServerStop, SemaphoreThatCannotBeDestroyedIsIgnored)
{
    fake::semaphoreDestroyError = EINVAL;
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStop, WithdrawsTheEndpointsWhenThePipeIsClosed)
{
    bool closed = false;
    bool threadEnded = false;
    int destroyed = 0;
    record::when("log 4 morrow_server: UnloadDBusObjects - Enter",
                 [&]
                 {
                     closed = serverSignalPipe == closedStopPipe;
                     threadEnded = record::count(threadExits) == 1;
                     destroyed =
                         fake::semaphore(&serverReadySemaphore).destroyed;
                 });
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    EXPECT_TRUE(closed);
    EXPECT_TRUE(threadEnded);
    EXPECT_EQ(destroyed, 2);
}

// When the broker goes

TEST_F(Server, RequestIsServedUntilNothingIsLeft)
{
    record::when("log 4 morrow_server: morrowProcessSig - signal: 7",
                 []
                 {
                     bus_spy::watchThisThread();
                 });
    const uint8_t byte = 7;
    ASSERT_EQ(write(serverSignalPipe[1], &byte, 1), 1);
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_server: morrowProcessSig - signal: 7\n"));
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
    EXPECT_TRUE(record::waitFor("finds nothing more to do"));
}

TEST_F(Server, MessageThatCannotBeProcessedIsLogged)
{
    broker.kill();
    ASSERT_TRUE(record::waitUntil(
        []
        {
            const auto all = record::texts();
            return std::any_of(all.begin(), all.end(),
                               [](const auto& text)
                               {
                                   return text.starts_with(
                                       "log 1 morrow_server: "
                                       "morrowProcessRequest -Error:");
                               });
        }));
    EXPECT_EQ(morrowProcessRequest(nullptr, -1, 0, nullptr), 0);
    EXPECT_THAT(storyFrom(0).back(),
                StartsWith("log 1 morrow_server: morrowProcessRequest "
                           "-Error:sd_bus_process discard: "));
}

TEST_F(Server, GoesOnAfterTheBrokerHasGone)
{
    record::when("log 1 morrow_server: morrowProcessRequest -Error:",
                 []
                 {
                     ASSERT_EQ(write(serverSignalPipe[1], "\1", 1), 1);
                 });
    broker.kill();
    ASSERT_TRUE(record::waitFor(threadExits));
    EXPECT_THAT(
        record::textsOf(threadOf(threadExits)),
        Contains("log 1 morrow_server: morrowProcessRequest -Error:sd_bus_wait:"
                 " System.Error.ENOTCONN: Transport endpoint is not "
                 "connected\n"));
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}
