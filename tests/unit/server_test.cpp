// SPDX-License-Identifier: Apache-2.0
#include "morrow/endpoint_object.hpp"
#include "morrow/morrow_server.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/bus_observer.hpp"
#include "tests/support/bus_spy.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/handshake_broker.hpp"
#include "tests/support/heap.hpp"
#include "tests/support/leave.hpp"
#include "tests/support/mutex_look.hpp"
#include "tests/support/record.hpp"
#include "tests/support/served_connection.hpp"
#include "tests/support/thread_status.hpp"
#include "tests/support/transcript.hpp"
#include "tests/unit/bus_trace.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::StartsWith;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace bus_trace;

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

/** The interfaces that InterfacesRemoved lists. */
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

/** Tests with a broker, but without a started server. */
class WithBroker : public testing::Test
{
  protected:
    Broker broker;
};

using ServerStart = WithBroker;

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

using Interface = Registry;

using ServerStop = Server;

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
        // The answer to a call follows the signals.
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

/** Whether start-up has not returned, looked at for as long as a return would
 *  take. */
bool stillWaits(const std::future<int32_t>& started)
{
    return started.wait_for(std::chrono::milliseconds(100)) ==
           std::future_status::timeout;
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

TEST_F(ServerStart, ReplacesAnOwnerThatAllowsIt)
{
    const ServedConnection owner;
    ASSERT_GE(sd_bus_request_name(owner.get(), "xyz.openbmc_project.mctp",
                                  SD_BUS_NAME_ALLOW_REPLACEMENT),
              0);
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStart, LetsAnotherTakeTheName)
{
    EXPECT_EQ(morrow_dbus_server_init(), 0);
    const ServedConnection other;
    EXPECT_GE(sd_bus_request_name(other.get(), "xyz.openbmc_project.mctp",
                                  SD_BUS_NAME_REPLACE_EXISTING),
              0);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
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

/** Starts the server in a child that exits with 42 if the thread has ended with
 *  this error and without a connection, the start has not returned and nothing
 *  can be published.
 *  @param inChild what is there only in the child, which may start threads */
template <typename Made>
void expectNoStart(const std::string& error, Made inChild)
{
    EXPECT_EXIT(
        {
            [[maybe_unused]] const auto made = inChild();
            const auto before = sockets();
            const auto started =
                std::async(std::launch::async, morrow_dbus_server_init);
            EXPECT_TRUE(record::waitFor(threadExits));
            EXPECT_EQ(sockets(), before);
            EXPECT_THAT(
                record::textsOf(threadOf(threadExits)),
                ElementsAre("log 4 morrow_server: morrowDBusMgrHandler - "
                            "Enter\n",
                            StartsWith("log 1 morrow_server: "
                                       "morrowDBusMgrHandler -Error:" +
                                       error),
                            threadExits));
            EXPECT_TRUE(stillWaits(started));
            EXPECT_EQ(publish(0, 8), 1);
            leave(testing::Test::HasFailure() ? 1 : 42);
        },
        testing::ExitedWithCode(42), "");
}

int nothing()
{
    return 0;
}

TEST_F(ServerStart, NeverReturnsWithoutABus)
{
    broker.kill();
    expectNoStart("sd_bus_default_system: ", nothing);
}

TEST_F(ServerStart, NeverReturnsWhileAnotherOwnsTheName)
{
    const ServedConnection owner;
    ASSERT_GE(sd_bus_request_name(owner.get(), "xyz.openbmc_project.mctp", 0),
              0);
    expectNoStart("sd_bus_request_name: "
                  "org.freedesktop.DBus.Error.FileExists: File exists\n",
                  nothing);
}

TEST_F(ServerStart, NeverReturnsAfterABrokenHandshake)
{
    expectNoStart("sd_bus_get_unique_name: ",
                  []
                  {
                      auto handshake = std::make_unique<HandshakeBroker>();
                      handshake->send(HandshakeBroker::answers.size(),
                                      HandshakeBroker::Then::close);
                      return handshake;
                  });
}

// The registry

TEST(ServerWithoutBus, CreatesNothing)
{
    (void)server();
    const auto start = here();
    EXPECT_EQ(publish(0, 8), 1);
    EXPECT_EQ(traceFrom(start), publishesWithoutBus);
    EXPECT_EQ(publish(3, 8), 1) << "the network is checked later";
}

TEST_F(Registry, PublishesAnEndpoint)
{
    const auto start = here();
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(traceFrom(start), publishes(8));
    EXPECT_THAT(busctl::managedObjects(manager0), ElementsAre(manager0 + "/8"));
    EXPECT_EQ(busctl::getAll(manager0 + "/8"),
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
    EXPECT_THAT(busctl::managedObjects(manager0), ElementsAre(manager0 + "/8"));
    EXPECT_THAT(busctl::managedObjects(manager1),
                ElementsAre("/xyz/openbmc_project/mctp/1/8"));
    EXPECT_THAT(busctl::managedObjects(manager2),
                ElementsAre("/xyz/openbmc_project/mctp/2/8"));
    EXPECT_EQ(server().deleteAllEndpointObject(1), 0);
    EXPECT_THAT(busctl::managedObjects(manager1), IsEmpty());
    EXPECT_THAT(busctl::managedObjects(manager2),
                ElementsAre("/xyz/openbmc_project/mctp/2/8"));
    EXPECT_EQ(server().deleteAllEndpointObject(2), 0);
    EXPECT_THAT(busctl::managedObjects(manager2), IsEmpty());
    EXPECT_THAT(busctl::managedObjects(manager0), ElementsAre(manager0 + "/8"));
}

TEST_F(Registry, PublishesTheLow16BitsOfTheEndpointType)
{
    EXPECT_EQ(server().createEndpointObject(0, 8, {}, 0xABCD0001, 0xFFFF, ""),
              0);
    EXPECT_EQ(busctl::getAll(manager0 + "/8"),
              " DevicePath= EID=8 EndpointType=1 NetworkId=0 Slot=65535 "
              "SupportedMessageTypes=[]");
}

TEST_F(Registry, SecondOfTheSamePathFailsAndTheFirstStays)
{
    EXPECT_EQ(publish(0, 8), 0);
    observer.catchUp();
    const auto seenBefore = observer.seen().size();
    const auto start = here();
    EXPECT_EQ(server().createEndpointObject(0, 8, {}, 9, 9, "other"), 5);
    const std::string error =
        "createEndpointObject -Type:0,EID:8,Error:sd_bus_add_object_vtable: "
        "org.freedesktop.DBus.Error.FileExists: File exists\n";
    EXPECT_THAT(
        traceFrom(start),
        ElementsAre("log 4 morrow_server: createEndpointObject - Enter\n",
                    "log 1 morrow_server: " + error,
                    "trace 1 morrow_server: " + error,
                    "log 4 morrow_server: createEndpointObject - Exit\n"));
    EXPECT_THAT(busctl::getAll(manager0 + "/8"),
                HasSubstr("DevicePath=/dev/i3c-mctp-0"));
    observer.catchUp();
    EXPECT_THAT(observer.seen(seenBefore), IsEmpty());
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
}

TEST_F(Registry, OtherNetworksAreNotInThePathTable)
{
    for (const auto& [network, logged] :
         {std::pair{3U, "3"}, {0xFFFFFFFFU, "-1"}})
    {
        const auto start = here();
        EXPECT_EQ(publish(network, 8), 2);
        EXPECT_THAT(
            traceFrom(start),
            ElementsAre("log 4 morrow_server: createEndpointObject - Enter\n",
                        "log 1 morrow_server: createEndpointObject - Error: "
                        "Network ID " +
                            std::string(logged) + " not present in map\n",
                        "log 4 morrow_server: createEndpointObject - Exit\n"));
    }
    observer.catchUp();
    EXPECT_THAT(observer.seen(), IsEmpty());
}

TEST_F(Registry, PropertiesThatCannotBeBuiltEndWithoutAnExitLine)
{
    constexpr std::size_t large = 1U << 20U;
    const std::vector<uint8_t> types(large);
    for (const uint32_t network : {0U, 3U}) // which is not checked yet
    {
        const auto start = here();
        {
            const heap::NoMemoryFrom none(large);
            EXPECT_EQ(
                server().createEndpointObject(network, 8, types, 1, 2, "node"),
                6);
        }
        EXPECT_THAT(
            traceFrom(start),
            ElementsAre("log 4 morrow_server: createEndpointObject - Enter\n",
                        "log 1 morrow_server: EID:8-Failed to init:"
                        "std::bad_alloc\n"));
    }
    EXPECT_EQ(publish(0, 8), 0) << "the mutex must be free";
}

TEST_F(Registry, ObjectWithoutMemoryIsStoredAsNullAndLoggedAsCreated)
{
    const auto publishWithoutMemory = []
    {
        const heap::NoMemoryFrom none(sizeof(endpoint_object));
        EXPECT_EQ(publish(0, 8), 0);
    };
    const auto logged = [](const std::string& text)
    {
        return record::count("log 4 morrow_server: " + text + "\n");
    };
    const std::string created = "createEndpointObject "
                                "-[/xyz/openbmc_project/mctp/0/8] object "
                                "created successful";
    const std::string deleted = "deleteAllEndpointObject - EID 8: object "
                                "deleted successfully";
    publishWithoutMemory();
    EXPECT_EQ(logged(created), 1);
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_EQ(logged(deleted), 1);

    publishWithoutMemory();
    EXPECT_EQ(publish(0, 8), 0) << "it is replaced";
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_EQ(logged(deleted), 2);
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());

    publishWithoutMemory();
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
    EXPECT_EQ(traceFrom(start), withdraws({9, 12, 20}));
    observer.catchUp();
    EXPECT_THAT(observer.seen(seenBefore),
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
    EXPECT_EQ(traceFrom(start), withdraws({}));
}

TEST_F(Registry, WithdrawingNetwork7IsRefusedWithoutAnExitLine)
{
    for (const int32_t network : {7, -1, 3})
    {
        const auto start = here();
        EXPECT_EQ(server().deleteAllEndpointObject(network), 3);
        EXPECT_THAT(
            traceFrom(start),
            ElementsAre(
                "log 4 morrow_server: deleteAllEndpointObject - Enter\n",
                "log 1 morrow_server: deleteAllEndpointObject - Error: "
                "NetworkID " +
                    std::to_string(network) + " not supported\n"));
    }
    EXPECT_EQ(publish(0, 8), 0) << "the mutex must be free";
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
    EXPECT_THAT(traceFrom(start),
                ElementsAre("log 4 morrow_server: UnloadDBusObjects - Enter\n",
                            "log 4 morrow_server: UnloadDBusObjects - Exit\n"));
    observer.catchUp();
    EXPECT_THAT(observer.seen(seenBefore),
                ElementsAre(StartsWith("InterfacesRemoved "
                                       "/xyz/openbmc_project/mctp/0/3 "),
                            StartsWith("InterfacesRemoved "
                                       "/xyz/openbmc_project/mctp/0/7 "),
                            StartsWith("InterfacesRemoved "
                                       "/xyz/openbmc_project/mctp/1/5 "),
                            StartsWith("InterfacesRemoved "
                                       "/xyz/openbmc_project/mctp/2/1 ")));
}

TEST_F(Registry, OperationsAndRequestsWaitForTheMutex)
{
    EXPECT_EQ(publish(0, 8), 0);
    observer.catchUp();
    const auto announced = observer.seen().size();
    const std::vector<std::function<void()>> operations{
        []
        {
            EXPECT_EQ(publish(0, 9), 0);
        },
        []
        {
            EXPECT_EQ(busctl::getArbitration(manager0 + "/8", 1), "0");
        },
        []
        {
            EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
        },
        []
        {
            server().UnloadDBusObjects();
        },
    };
    for (const auto& operation : operations)
    {
        const auto before = observer.seen().size();
        const auto logged = record::texts().size();
        std::unique_lock lock(server_mutex);
        auto done = std::async(std::launch::async, operation);
        EXPECT_EQ(done.wait_for(std::chrono::milliseconds(100)),
                  std::future_status::timeout);
        // Nothing but the line at the entry.
        EXPECT_LE(record::texts().size(), logged + 1);
        EXPECT_EQ(observer.seen().size(), before);
        lock.unlock();
        done.get();
        observer.catchUp();
    }
    EXPECT_GT(observer.seen().size(), announced);
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
                         // The server's thread may use it for a while.
                         free.push_back(record::waitUntil(
                             []
                             {
                                 return isFreeForAnother(server_mutex);
                             }));
                     });
    }
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    server().UnloadDBusObjects();
    EXPECT_THAT(free, ElementsAre(true, true, true));
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

TEST_F(Registry, ServesRequestsWhileEndpointsComeAndGo)
{
    std::atomic<bool> finished{false};
    std::thread client(
        [&finished]
        {
            while (!finished)
            {
                (void)busctl::managedObjects(manager0);
                (void)busctl::getAll(manager0 + "/8");
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

TEST_F(Registry, LogsAWithdrawalBeforeItHappensUnderTheMutex)
{
    EXPECT_EQ(publish(0, 8), 0);
    bool free = true;
    record::when("trace 4 morrow_server: deleteAllEndpointObject - EID 8",
                 [&free]
                 {
                     free = isFreeForAnother(server_mutex);
                     bus_spy::watchThisThread();
                 });
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    EXPECT_FALSE(free);
    // The destructor of an object releases the bus.
    EXPECT_THAT(traceFrom(here() - 2),
                ElementsAre("releases the bus",
                            "log 4 morrow_server: deleteAllEndpointObject - "
                            "Exit\n"));
}

// The interface, as a client sees it

TEST_F(Interface, AnnouncesDefaultsThenEachOtherValueByName)
{
    const std::vector<uint8_t> types{0x7E, 0x05};
    EXPECT_EQ(server().createEndpointObject(1, 0x9D, types, 1, 3, "node"), 0);
    EXPECT_EQ(server().createEndpointObject(0, 0, types, 1, 0, "node"), 0);
    observer.catchUp();
    const auto path1 = " " + manager1 + "/157";
    const auto path0 = " " + manager0 + "/0";
    const std::string changed = "PropertiesChanged";
    EXPECT_THAT(
        observer.seen(),
        ElementsAre(
            "InterfacesAdded" + path1 + defaults,
            changed + path1 + " DevicePath=node", changed + path1 + " EID=157",
            changed + path1 + " EndpointType=1",
            changed + path1 + " NetworkId=1", changed + path1 + " Slot=3",
            changed + path1 + " SupportedMessageTypes=[126,5]",
            "InterfacesAdded" + path0 + defaults,
            changed + path0 + " DevicePath=node",
            changed + path0 + " EndpointType=1",
            changed + path0 + " SupportedMessageTypes=[126,5]"));
}

TEST_F(Interface, GetArbitrationAnswers0ToEveryByte)
{
    EXPECT_EQ(publish(0, 8), 0);
    for (int eid = 0; eid < 256; ++eid)
    {
        EXPECT_EQ(
            busctl::getArbitration(manager0 + "/8", static_cast<uint8_t>(eid)),
            "0");
    }
}

TEST_F(Interface, SetIsRefused)
{
    EXPECT_EQ(publish(0, 8), 0);
    const ServedConnection peer;
    sd_bus_error error{};
    EXPECT_LT(sd_bus_set_property(peer.get(), "xyz.openbmc_project.mctp",
                                  (manager0 + "/8").c_str(),
                                  "xyz.openbmc_project.mctp.Endpoint", "EID",
                                  &error, "y", 9),
              0);
    EXPECT_STREQ(error.name, "org.freedesktop.DBus.Error.PropertyReadOnly");
    sd_bus_error_free(&error);
    EXPECT_EQ(busctl::get(manager0 + "/8", "EID"), "8");
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
    auto bus = sdbusplus::bus::new_system();
    EXPECT_THAT(busctl::managed(bus, manager0),
                ElementsAre(Pair(path, busctl::getAll(path))));
}

TEST_F(Interface, GetArbitrationWithAnotherArgumentIsAnError)
{
    EXPECT_EQ(publish(0, 8), 0);
    auto bus = sdbusplus::bus::new_system();
    auto call = bus.new_method_call(
        "xyz.openbmc_project.mctp", (manager0 + "/8").c_str(),
        "xyz.openbmc_project.mctp.Endpoint", "GetArbitration");
    call.append(uint32_t{8});
    EXPECT_THAT(
        [&]
        {
            (void)bus.call(call);
        },
        ThrowsMessage<sdbusplus::exception::SdBusError>(
            HasSubstr("org.freedesktop.DBus.Error.InvalidArgs")));
}

TEST_F(Interface, ArbitrationUpdatedIsNeverSent)
{
    static_assert(
        std::is_same_v<decltype(&EndpointBinding::arbitrationUpdated),
                       void (EndpointBinding::*)(uint8_t, uint32_t, uint32_t)>);
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(busctl::getArbitration(manager0 + "/8", 1), "0");
    EXPECT_EQ(server().deleteAllEndpointObject(0), 0);
    observer.catchUp();
    EXPECT_THAT(observer.seen(),
                Not(Contains(StartsWith("ArbitrationUpdated"))));
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
    static_assert(std::is_same_v<EndpointBinding::PropertiesVariant,
                                 std::variant<std::string, std::vector<uint8_t>,
                                              uint16_t, uint32_t, uint8_t>>);
    EXPECT_THAT(
        [this]
        {
            const endpoint_object object(bus, manager0 + "/8",
                                         {{"EID", uint32_t{8}}});
        },
        ThrowsMessage<std::bad_variant_access>(
            StrEq("std::get: wrong index for variant")));
    EXPECT_THAT(announced(),
                ElementsAre("InterfacesAdded " + manager0 + "/8" + defaults,
                            "InterfacesRemoved " + manager0 + "/8" +
                                removedInterfaces));
}

TEST_F(EndpointObject, InvalidPathIsRefused)
{
    EXPECT_THROW(endpoint_object(bus, "no path", {}), std::exception);
}

// Stopping

TEST_F(ServerStop, ReleasesTheBusAndThenTheManagersInReverseOrder)
{
    const auto thread = threadOf(initialised);
    record::when("log 4 morrow_server: morrowProcessSig - signal: 1",
                 bus_spy::watchThisThread);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    const auto trace = record::textsOf(thread);
    // The managers of the connection are added before those of the loop go.
    EXPECT_THAT(Texts(trace.end() - 9, trace.end()),
                ElementsAre("log 4 morrow_server: createMorrowEventLoop - "
                            "sd_event_loop returned\n",
                            "adds the manager " + manager0,
                            "adds the manager " + manager1,
                            "adds the manager " + manager2, "releases the bus",
                            "releases the manager " + manager2,
                            "releases the manager " + manager1,
                            "releases the manager " + manager0, threadExits));
}

TEST_F(ServerStop, WithdrawsEveryEndpointAndLeavesTheBus)
{
    BusObserver observer;
    EXPECT_EQ(publish(0, 8), 0);
    EXPECT_EQ(publish(0, 9), 0);
    EXPECT_EQ(publish(1, 7), 0);
    EXPECT_EQ(publish(2, 6), 0);
    observer.catchUp();
    const auto seenBefore = observer.seen().size();
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
    ASSERT_TRUE(record::waitFor("NameOwnerChanged gone"));
    EXPECT_THAT(
        observer.seen(seenBefore),
        ElementsAre("InterfacesRemoved " + manager0 + "/8" + removedInterfaces,
                    "InterfacesRemoved " + manager0 + "/9" + removedInterfaces,
                    "InterfacesRemoved " + manager1 + "/7" + removedInterfaces,
                    "InterfacesRemoved " + manager2 + "/6" + removedInterfaces,
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
    EXPECT_EQ(traceFrom(start).size(), 2U) << "an object was left";
    EXPECT_EQ(publish(0, 8), 1);
}

TEST_F(ServerStop, ReleasesTheLoopsManagersUnderTheMutex)
{
    record::when("log 4 morrow_server: morrowProcessSig - signal: 1",
                 bus_spy::watchThisThread);
    bool free = true;
    record::when("releases the manager " + manager0,
                 [&free]
                 {
                     free = isFreeForAnother(server_mutex);
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

TEST_F(ServerStop, ReleasesItsObjectsUnderTheMutex)
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
            return thread_status::isAsleep(threadOf(enters));
        }));
    ASSERT_EQ(write(serverSignalPipe[1], "\1", 1), 1);
    ASSERT_TRUE(record::waitFor("log 4 morrow_server: createMorrowEventLoop - "
                                "sd_event_loop returned\n"));
    // The server's thread has given the bus up and waits for the mutex, too.
    ASSERT_TRUE(record::waitUntil(
        [thread]
        {
            return thread_status::isAsleep(thread);
        }));
    lock.unlock();
    EXPECT_EQ(published.get(), 1);
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

TEST_F(ServerStop, PublicationUnderWayReleasesTheBusBeforeTheMutexIsFree)
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
    EXPECT_THAT(record::textsOf(thread), Contains("releases the bus"));
    EXPECT_EQ(server().stop_morrow_dbus_server(), 0);
}

/** A server with a hundred endpoints and as little room as the system lets a
 *  socket have, whose broker reads nothing more when it is stopped. */
class FullSocket : public ServerStart
{
  protected:
    FullSocket()
    {
        record::when("log 4 morrow_server: createMorrowEventLoop - Enter",
                     []
                     {
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
        stop = std::async(std::launch::async,
                          [this]
                          {
                              thread = record::thisThread();
                              return server().stop_morrow_dbus_server();
                          });
        EXPECT_TRUE(
            record::waitFor("log 4 morrow_server: UnloadDBusObjects - Exit\n"));
    }

    void expectAllIsSent() const
    {
        ASSERT_TRUE(record::waitFor("NameOwnerChanged gone"));
        EXPECT_EQ(startingWith("InterfacesRemoved ", observer.seen()).size(),
                  100U);
    }

    const BusObserver observer;
    std::atomic<pid_t> thread{0};
    std::future<int32_t> stop;
};

TEST_F(FullSocket, StopSendsWhatTheBrokerHadNoRoomForBeforeItLeaves)
{
    EXPECT_EQ(stop.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    broker.resume();
    EXPECT_EQ(stop.get(), 0);
    expectAllIsSent();
}

TEST_F(FullSocket, SignalDuringTheStopLosesNothing)
{
    (void)std::signal(SIGTERM, [](int) {});
    ASSERT_TRUE(record::waitUntil(
        [this]
        {
            return thread_status::isAsleep(thread);
        }));
    ASSERT_EQ(tgkill(getpid(), thread, SIGTERM), 0);
    // Time enough for a stop that gives up to do so.
    EXPECT_EQ(stop.wait_for(std::chrono::milliseconds(100)),
              std::future_status::timeout);
    broker.resume();
    EXPECT_EQ(stop.get(), 0);
    expectAllIsSent();
}

TEST_F(FullSocket, StopEndsWithoutABrokerThatReadsNothingMore)
{
    EXPECT_EQ(stop.get(), 0);
}

TEST_F(FullSocket, StopEndsWhenTheBrokerDies)
{
    broker.kill();
    EXPECT_EQ(stop.get(), 0);
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

// Serving

TEST_F(Server, RequestIsServedUntilNothingIsLeft)
{
    record::when("log 4 morrow_server: morrowProcessSig - signal: 7",
                 bus_spy::watchThisThread);
    const uint8_t byte = 7;
    ASSERT_EQ(write(serverSignalPipe[1], &byte, 1), 1);
    ASSERT_TRUE(
        record::waitFor("log 4 morrow_server: morrowProcessSig - signal: 7\n"));
    EXPECT_THAT(busctl::managedObjects(manager0), IsEmpty());
    EXPECT_TRUE(record::waitFor("finds nothing more to do"));
}
