// SPDX-License-Identifier: Apache-2.0
#include "morrow/morrow.hpp"
#include "morrow/morrow_client.hpp"
#include "morrow/power_state.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/bus_spy.hpp"
#include "tests/support/event_loop.hpp"
#include "tests/support/handshake_broker.hpp"
#include "tests/support/heap.hpp"
#include "tests/support/host_service.hpp"
#include "tests/support/leave.hpp"
#include "tests/support/mutex_look.hpp"
#include "tests/support/record.hpp"
#include "tests/support/transcript.hpp"
#include "tests/support/watch.hpp"
#include "tests/support/wrapper.hpp"
#include "tests/unit/bus_trace.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;
using namespace bus_trace;

namespace
{

constexpr const char* initialised =
    "log 4 morrow_client: createMorrowEventLoop - morrow DBus Client "
    "Initialization Completed.\n";
constexpr const char* starting =
    "log 4 morrow_client: createMorrowEventLoop - Starting sd_event_loop\n";
constexpr const char* threadExits =
    "log 4 morrow_client: morrowClientDBusHandler - Exit\n";

morrow_dbus_client& client()
{
    return morrow_dbus_client::get_instance();
}

class WithBroker : public testing::Test
{
  protected:
    Broker broker;
};

using ClientStart = WithBroker;

/** Tests with a client that runs. */
class Client : public WithBroker
{
  protected:
    Client()
    {
        EXPECT_EQ(morrow_dbus_client_init(), 0);
        EXPECT_TRUE(record::waitFor(starting));
        thread = threadOf(initialised);
        skipped = record::textsOf(thread).size();
    }

    ~Client() override
    {
        if (record::count(threadExits) == 0)
        {
            EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
        }
    }

    /** The client thread's events since start-up. */
    Texts threadTrace() const
    {
        return traceOf(thread, skipped);
    }

    pid_t thread = 0;
    std::size_t skipped = 0;
};

using ClientStop = Client;

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
        const auto before = record::count(logged);
        control.changes(path, {});
        EXPECT_TRUE(record::waitFor(logged, before + 1));
        auto trace = threadTrace();
        trace.pop_back();
        return trace;
    }

    /** How much of what has been sent the client has not read. */
    static int waitingBytes()
    {
        auto watched = event_loop::watchedBy(clientEvent);
        watched.erase(clientSignalPipe[0]);
        int waiting = 0;
        (void)ioctl(watched.begin()->first, FIONREAD, &waiting);
        return waiting;
    }

    static void clearFlags()
    {
        shared_word::store<uint8_t>(power_down_pending, 0);
        shared_word::store<uint8_t>(await_host_running, 0);
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
};

/** Announces a property that is no text. */
void sendNumber(HostControl& control, const char* path, const char* property)
{
    control.signals(path, "org.freedesktop.DBus.Properties",
                    "PropertiesChanged",
                    [property](sd_bus_message* message)
                    {
                        return sd_bus_message_append(message, "sa{sv}as", "a",
                                                     1, property, "u", 5, 0);
                    });
}

/** What the handler logs of a property, before it looks at its value. */
Texts logsPowerState(const std::string& value)
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

TEST_F(ClientStart, SubscribesToPowerStateThenToResetCauseThenFillsItsMaps)
{
    record::when("log 4 morrow_client: morrowClientDBusHandler - Enter",
                 bus_spy::watchThisThread);
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    auto texts = record::textsOf(threadOf(initialised));
    std::erase_if(texts,
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
    EXPECT_THAT(texts,
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

TEST_F(ClientStart, WithoutABusRunsItsLoopAnywayAndStops)
{
    broker.kill();
    EXPECT_EQ(morrow_dbus_client_init(), 0);
    ASSERT_TRUE(record::waitFor(starting));
    const auto trace = record::textsOf(threadOf(initialised));
    EXPECT_THAT(trace.at(1),
                StartsWith("log 1 morrow_client: morrowClientDBusHandler "
                           "-Error: sd_bus_default_system: "));
    EXPECT_THAT(trace.at(1), EndsWith("\n"));
    EXPECT_EQ(Texts(trace.begin() + 2, trace.end()),
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
    HandshakeBroker handshake;
    for (std::size_t bytes = 0; bytes <= HandshakeBroker::answers.size();
         ++bytes)
    {
        // The daemon frees its event loop at its end. Here there are many, and
        // each is freed on the thread that created it.
        record::when(threadExits,
                     []
                     {
                         sd_event_unref(clientEvent);
                     });
        handshake.send(bytes, HandshakeBroker::Then::close);
        const auto start = record::texts().size();
        ASSERT_EQ(morrow_dbus_client_init(), 0);
        ASSERT_EQ(client().stop_morrow_dbus_client(), 0);
        auto trace = record::texts();
        trace.erase(trace.begin(),
                    trace.begin() + static_cast<std::ptrdiff_t>(start));
        ASSERT_THAT(
            startingWith(failed, trace),
            ElementsAre(StartsWith(failed + "sd_bus_get_unique_name: ")))
            << bytes;
    }
}

// The maps

TEST(ClientMaps, AKeyThatIsThereKeepsItsEntry)
{
    client().FillobjectMap();
    client().FillStaticObject("currenthoststate", "a", "b", "c");
    client().FillMethodMap();
    client().FillMethodMap();
    const auto start = here();
    client().ReadObjectMap();
    client().ReadMethodMap();
    EXPECT_EQ(traceFrom(start),
              Texts(fillsItsMaps.begin() + 3, fillsItsMaps.begin() + 7) +
                  Texts(fillsItsMaps.begin() + 9, fillsItsMaps.end()));
}

TEST(ClientMaps, AreFilledBetweenEntryAndExit)
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
        traceFrom(start),
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

TEST(ClientMaps, AreListedInTheOrderOfTheirKeys)
{
    client().FillStaticObject("b", "sb", "ob", "ib");
    client().FillStaticObject("a", "sa", "oa", "ia");
    const auto start = here();
    client().ReadObjectMap();
    EXPECT_THAT(
        traceFrom(start),
        ElementsAre("log 4 morrow_client: ReadObjectMap - Enter\n",
                    "log 4 morrow_client: ReadObjectMap-Key:a,Ser:sa,Obj:oa\n",
                    "log 4 morrow_client: ReadObjectMap-Key:a,Int:ia\n",
                    "log 4 morrow_client: ReadObjectMap-Key:b,Ser:sb,Obj:ob\n",
                    "log 4 morrow_client: ReadObjectMap-Key:b,Int:ib\n",
                    "log 4 morrow_client: ReadObjectMap - Exit\n"));
}

TEST(ClientMaps, EmptyMapMakesEveryReadFailAsNotFound)
{
    current_host_state = "before";
    EXPECT_EQ(getcurrentpowerstate(), 1);
    EXPECT_THAT(
        traceFrom(0),
        ElementsAre(
            "log 4 morrow_client: morrow_dbus_client - Default constructor\n",
            "log 11 morrow_client: Entry [getcurrentpowerstate]\n",
            "log 4 morrow_client: GetProperty - Enter\n",
            "log 1 morrow_client: GetProperty -'currenthoststate' not found\n",
            "log 4 morrow_client: GetProperty - Exit\n",
            "log 2 morrow_client: Failed to set read property\n"));
    EXPECT_EQ(current_host_state, "before");
}

TEST(ClientMaps, KeyThatIsNotThereGives2)
{
    client().FillobjectMap();
    EXPECT_EQ(client().GetProperty("other", "CurrentHostState", {}), 2);
}

// Reading the host's state

TEST_F(ReadsHostState, AnyTextButRunningSetsBothFlags)
{
    struct Row
    {
        std::string text;
        uint8_t before;
        uint8_t after;
    };
    const std::string prefix = "xyz.openbmc_project.State.Host.HostState.";
    for (const Row& row :
         {Row{prefix + "Running", 0, 0}, Row{prefix + "Running", 1, 1},
          Row{prefix + "Off", 0, 1}, Row{prefix + "Quiesced", 0, 1},
          Row{prefix + "RunninG", 0, 1}, Row{prefix + "Running2", 0, 1},
          Row{"a." + prefix + "Running", 0, 1}, Row{"a.Running", 0, 1},
          Row{"Running", 0, 1}, Row{"", 0, 1}})
    {
        SCOPED_TRACE(row.text);
        power_down_pending = row.before;
        await_host_running = row.before;
        host.answersText(row.text);
        const auto start = here();
        EXPECT_EQ(getcurrentpowerstate(), 0);
        EXPECT_EQ(traceFrom(start), reads(row.text));
        EXPECT_EQ(current_host_state, row.text);
        EXPECT_EQ(power_down_pending, row.after);
        EXPECT_EQ(await_host_running, row.after);
    }
    EXPECT_EQ(host.lastRead(),
              "xyz.openbmc_project.State.Host CurrentHostState");
}

TEST_F(ReadsHostState, OffIsLoggedBeforeTheFlagsAreSet)
{
    const Watch whenLogged(
        "log 4 morrow_client: readproperty:Power State is off",
        power_down_pending);
    host.goesTo("Off");
    EXPECT_EQ(getcurrentpowerstate(), 0);
    EXPECT_EQ(whenLogged.seen(), 0);
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
    EXPECT_EQ(traceFrom(start), readFails);
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
    EXPECT_THAT(traceFrom(start),
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
    HandshakeBroker handshake;
    for (std::size_t bytes = 0; bytes <= HandshakeBroker::answers.size();
         ++bytes)
    {
        handshake.send(bytes, HandshakeBroker::Then::close);
        const auto start = here();
        ASSERT_EQ(getcurrentpowerstate(), 1) << bytes;
        ASSERT_THAT(
            traceFrom(start),
            ElementsAre("log 11 morrow_client: Entry [getcurrentpowerstate]\n",
                        "log 4 morrow_client: GetProperty - Enter\n",
                        StartsWith(failed + "sd_bus_get_unique_name: "),
                        "log 4 morrow_client: GetProperty - Exit\n",
                        "log 2 morrow_client: Failed to set read property\n"))
            << bytes;
    }
    EXPECT_EQ(current_host_state, "before");
    EXPECT_EQ(power_down_pending, 0);
    EXPECT_EQ(await_host_running, 0);
}

TEST_F(ReadsHostState, HandshakeThatIsNeverAnsweredIsABusError)
{
    setenv("SYSTEMD_BUS_TIMEOUT", "100ms", 1); // otherwise 25 seconds
    HandshakeBroker handshake;
    handshake.send(HandshakeBroker::answers.size(),
                   HandshakeBroker::Then::silence);
    const auto start = here();
    EXPECT_EQ(getcurrentpowerstate(), 1);
    EXPECT_THAT(traceFrom(start).at(2),
                StartsWith("log 1 morrow_client: GetProperty "
                           "-SdBusError:sd_bus_get_unique_name: "));
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
    EXPECT_THAT(traceFrom(start).at(2),
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
    EXPECT_THAT(traceFrom(0),
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
    using List = std::vector<std::string>;
    EXPECT_EQ(read(
                  [](sd_bus_message* reply)
                  {
                      return sd_bus_message_append(reply, "v", "as", 2, "a",
                                                   "b");
                  }),
              PropertyValue(List{"a", "b"}));
    // Other types become an empty list.
    EXPECT_EQ(of("o", "/a"), PropertyValue(List()));
    EXPECT_EQ(of("ai", 0), PropertyValue(List()));
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

// Power-state signals

TEST_F(PowerSignals, FirstMatchingRowOfTheTableDecides)
{
    struct Entry
    {
        std::string value;
        std::string state{}; //!< the recognised one, or empty
        std::string name = "InternalPowerState";
    };
    struct Row
    {
        std::vector<Entry> entries;
        bool sets;
    };
    const Texts states{"S0InReset",    "PreStandby",     "StateS6",
                       "StateS5Early", "StateS5S3Mbusy", "StateS5",
                       "S5OnPending",  "OffPendingS0",   "Unknown"};
    std::vector<Row> rows;
    for (std::size_t index = 0; index < states.size(); ++index)
    {
        const auto& state = states[index];
        const bool sets = state != "OffPendingS0";
        rows.push_back({{{"some.State." + state, state}}, sets});
        rows.push_back({{{state}}, false}); // without the dot
        if (index > 0)
        {
            const auto& before = states[index - 1];
            rows.push_back({{{"." + state + "." + before, before}},
                            before != "OffPendingS0"});
        }
        // Without the last letter two of them still contain a third.
        const auto shorter = "." + state.substr(0, state.size() - 1);
        const bool isStateS5 = shorter.starts_with(".StateS5");
        rows.push_back({{{shorter, isStateS5 ? "StateS5" : ""}}, isStateS5});
    }
    rows.push_back({{{"a.Unknown.OffPendingS0.StateS6", "StateS6"}}, true});
    rows.push_back({{}, false});
    rows.push_back(
        {{{"a.StateS5", "StateS5"}, {"a.Unknown", "Unknown"}}, true});
    // What does not match does not end the walk.
    rows.push_back(
        {{{"x", "", "Other"}, {"a.Unheard"}, {"a.StateS5", "StateS5"}}, true});
    // Other properties
    rows.push_back({{{"a.StateS5", "", "Other"}}, false});
    rows.push_back({{{".Unknown", "", "internalPowerState"}}, false});
    rows.push_back({{{"a.WarmReset", "", "ResetCause"}}, false});
    for (const auto& row : rows)
    {
        clearFlags();
        skipped = record::textsOf(thread).size();
        std::vector<Change> changes;
        Texts expected{powerPath};
        for (const auto& entry : row.entries)
        {
            changes.push_back({entry.name, entry.value});
            if (entry.name == "InternalPowerState")
            {
                expected =
                    expected + logsPowerState(entry.value) +
                    (entry.state.empty() ? Texts() : recognises(entry.state));
            }
        }
        control.changes(HostControl::powerState, changes);
        EXPECT_EQ(handled(), expected);
        EXPECT_EQ(flagsAreSet(), row.sets) << expected.back();
    }
    // Each state has a format of its own.
    for (const auto& event : record::events())
    {
        for (const auto& state : states)
        {
            if (event.text.ends_with(":Power state is " + state + "\n"))
            {
                EXPECT_EQ(event.format, "%s:Power state is " + state + "\n");
            }
        }
    }
}

TEST_F(PowerSignals, FlagsAreSetAfterTheTraceAndNothingElseIs)
{
    daemon_state = 77;
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
    clearFlags();
    control.changes(HostControl::resetCause, {{"ResetCause", "a.WarmReset"}});
    (void)handledResets();
    EXPECT_TRUE(flagsAreSet());
    EXPECT_THAT(setWhenTraced, ElementsAre(false, false));
    EXPECT_EQ(shared_word::load(daemon_state), 77U);
}

TEST_F(PowerSignals, OtherPropertiesMayBeOfAnyType)
{
    sendNumber(control, HostControl::powerState, "Other");
    EXPECT_THAT(handled(), ElementsAre(powerPath));
    skipped = record::textsOf(thread).size();
    sendNumber(control, HostControl::resetCause, "Other");
    EXPECT_THAT(handledResets(), ElementsAre(resetPath));
    EXPECT_FALSE(flagsAreSet());
}

TEST_F(PowerSignals, TwoSignalsThatWaitAreServedInTheirOrderInOneCall)
{
    // The client's thread is held where it does not serve the bus.
    const std::string gotByte =
        "log 1 morrow_client: morrowProcessSig - signal: 7\n";
    std::promise<void> go;
    record::when(gotByte,
                 [held = go.get_future().share()]
                 {
                     held.wait();
                 });
    ASSERT_EQ(write(clientSignalPipe[1], "\7", 1), 1);
    ASSERT_TRUE(record::waitFor(gotByte));
    for (const auto* const state : {"a.StateS6", "a.PreStandby"})
    {
        const int before = waitingBytes();
        control.changes(HostControl::powerState,
                        {{"InternalPowerState", state}});
        ASSERT_TRUE(record::waitUntil(
            [before]
            {
                return waitingBytes() > before;
            }));
    }
    bool free = true;
    record::when("log 4 morrow_client: signalHandler_internalpowerstate:Power "
                 "state is PreStandby",
                 [&free]
                 {
                     free = isFreeForAnother(clientBusMutex);
                 });
    const auto start = here();
    EXPECT_EQ(morrowClientProcessRequest(nullptr, -1, 0, nullptr), 0);
    EXPECT_EQ(traceFrom(start), Texts{powerPath} + logsPowerState("a.StateS6") +
                                    recognises("StateS6") + Texts{powerPath} +
                                    logsPowerState("a.PreStandby") +
                                    recognises("PreStandby"));
    EXPECT_FALSE(free);
    go.set_value();
}

TEST_F(PowerSignals, BurstIsServedUntilNothingIsLeft)
{
    // While the first is handled, the second arrives.
    record::when(
        "trace 4 morrow_client: signalHandler_internalpowerstate:Power state "
        "is StateS6",
        [&]
        {
            HostControl().changes(HostControl::powerState,
                                  {{"InternalPowerState", "a.PreStandby"}});
            EXPECT_TRUE(record::waitUntil(
                []
                {
                    return waitingBytes() > 0;
                }));
            bus_spy::watchThisThread();
        });
    control.changes(HostControl::powerState,
                    {{"InternalPowerState", "a.StateS6"}});
    ASSERT_TRUE(record::waitFor("finds nothing more to do"));
    auto texts = threadTrace();
    texts.erase(
        std::find(texts.begin(), texts.end(), "finds nothing more to do"),
        texts.end());
    EXPECT_THAT(texts, Contains("trace 4 morrow_client: "
                                "signalHandler_internalpowerstate:Power state "
                                "is PreStandby\n"));
}

TEST_F(PowerSignals, WarmResetAloneSetsTheFlags)
{
    for (const auto& changes : std::vector<std::vector<Change>>{
             {{"ResetCause", "a.ColdReset"}},
             {{"ResetCause", "WarmReset"}},
             {{"ResetCause", "a.warmreset"}},
             {{"ResetCause", "a.WarmRese"}},
             {{"InternalPowerState", "a.WarmReset"}},
             {{"ResetCause", "a.WarmReset"}},
             {{"Other", "x"},
              {"ResetCause", "a.ColdReset"},
              {"ResetCause", "a.WarmReset"}}})
    {
        clearFlags();
        skipped = record::textsOf(thread).size();
        Texts expected{resetPath};
        bool sets = false;
        for (const auto& [name, value] : changes)
        {
            const std::string handler =
                "morrow_client: signalHandler_warmreset:";
            if (name == "ResetCause")
            {
                expected.push_back("log 4 " + handler +
                                   "Property name is [ResetCause]\n");
                expected.push_back("log 4 " + handler + "Property value is [" +
                                   value + "]\n");
                sets = value == "a.WarmReset";
            }
            if (sets)
            {
                expected.push_back("log 4 " + handler +
                                   " Power State is WarmReset\n");
                expected.push_back("trace 4 " + handler +
                                   " Power State is WarmReset\n");
            }
        }
        control.changes(HostControl::resetCause, changes);
        EXPECT_EQ(handledResets(), expected);
        EXPECT_EQ(flagsAreSet(), sets) << expected.back();
    }
}

TEST_F(PowerSignals, AreTakenByMemberInterfaceAndPathFromAnySender)
{
    const char* const properties = "org.freedesktop.DBus.Properties";
    const auto fill = [](sd_bus_message* message)
    {
        return sd_bus_message_append(message, "sa{sv}as", "some.Other", 1,
                                     "InternalPowerState", "s", "x.StateS5", 0);
    };
    control.signals(HostControl::powerState, properties, "Other", fill);
    control.signals(HostControl::powerState, "some.Other", "PropertiesChanged",
                    fill);
    control.signals("/xyz/openbmc_project/control/host1/internal_power_state",
                    properties, "PropertiesChanged", fill);
    EXPECT_THAT(handled(), IsEmpty());
    EXPECT_FALSE(flagsAreSet());
    HostControl().signals(HostControl::powerState, properties,
                          "PropertiesChanged", fill);
    EXPECT_TRUE(record::waitUntil(flagsAreSet));
}

TEST_F(PowerSignals, MalformedBodyIsLoggedAndChangesNothing)
{
    const std::string noDictionary =
        "sd_bus_message_enter_container emplace_back_container: ";
    const std::string noText = "sd_bus_message_read_basic string: ";
    const std::vector<
        std::pair<std::function<int(sd_bus_message*)>, std::string>>
        rows{
            {[](sd_bus_message*)
             {
                 return 0;
             },
             noText},
            {[](sd_bus_message* message)
             {
                 return sd_bus_message_append(message, "su", "a", 1);
             },
             noDictionary},
            {[](sd_bus_message* message)
             {
                 return sd_bus_message_append(message, "sa{ss}as", "a", 1,
                                              "InternalPowerState", ".StateS5",
                                              0);
             },
             noDictionary},
        };
    for (const auto& [fill, error] : rows)
    {
        for (const char* path :
             {HostControl::powerState, HostControl::resetCause})
        {
            const bool isReset = path == HostControl::resetCause;
            skipped = record::textsOf(thread).size();
            control.signals(path, "org.freedesktop.DBus.Properties",
                            "PropertiesChanged", fill);
            EXPECT_THAT(isReset ? handledResets() : handled(),
                        ElementsAre(isReset ? resetPath : powerPath,
                                    "log 2 morrow_client: Exception: " + error +
                                        "System.Error.ENXIO: No such device "
                                        "or address\n"));
        }
    }
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
    EXPECT_EQ(handled(), Texts{powerPath} + logsPowerState("a.StateS5") +
                             recognises("StateS5"));
    EXPECT_TRUE(flagsAreSet());
}

// The handlers on their own, for what the bus never delivers to them

using Handlers = WithBroker;

TEST_F(Handlers, MethodErrorIsLoggedAlone)
{
    sdbusplus::message_t none;
    signalHandler_internalpowerstate(none);
    signalHandler_warmreset(none);
    EXPECT_THAT(
        traceFrom(0),
        ElementsAre("log 1 morrow_client: signalHandler_internalpowerstate - "
                    "method Error \n",
                    "log 1 morrow_client: signalHandler_warmreset - method "
                    "Error \n"));
}

TEST_F(Handlers, OtherMemberIsLoggedByItsPathAlone)
{
    auto bus = sdbusplus::bus::new_system();
    auto other = bus.new_signal("/a/path", "org.freedesktop.DBus.Properties",
                                "PropertiesChange");
    signalHandler_internalpowerstate(other);
    signalHandler_warmreset(other);
    EXPECT_THAT(
        traceFrom(0),
        ElementsAre(
            "log 1 morrow_client: signalHandler_internalpowerstate:Path:"
            "[/a/path]\n",
            "log 1 morrow_client: signalHandler_warmreset:Path:[/a/path]\n"));
}

// An exception that leaves a handler

/** Starts the client and sends a property that is no text; a client that logs
 *  its name or survives it ends the process with 1. */
[[noreturn]] void sendANumberFor(const char* path, const char* property)
{
    for (const char* logged :
         {"log 4 morrow_client: signalHandler_internalpowerstate:Property",
          "log 4 morrow_client: signalHandler_warmreset:Property"})
    {
        record::when(logged,
                     []
                     {
                         leave(1);
                     });
    }
    morrow_dbus_client_init();
    HostControl control;
    sendNumber(control, path, property);
    (void)record::waitFor("never");
    leave(1);
}

TEST_F(ClientStart, ValueThatIsNoTextEndsTheProcess)
{
    EXPECT_EXIT(sendANumberFor(HostControl::powerState, "InternalPowerState"),
                testing::KilledBySignal(SIGABRT), "std::bad_variant_access");
    EXPECT_EXIT(sendANumberFor(HostControl::resetCause, "ResetCause"),
                testing::KilledBySignal(SIGABRT), "std::bad_variant_access");
}

// Stopping

TEST_F(ClientStop, ReleasesTheBusAndThenTheSecondAndTheFirstMatch)
{
    record::when("log 1 morrow_client: morrowProcessSig - signal: 1",
                 bus_spy::watchThisThread);
    EXPECT_EQ(client().stop_morrow_dbus_client(), 0);
    const std::string rule = "type='signal',member='PropertiesChanged',"
                             "path='/xyz/openbmc_project/control/host0/";
    const std::string interface =
        "',interface='org.freedesktop.DBus.Properties',";
    EXPECT_THAT(
        threadTrace(),
        ElementsAre("log 1 morrow_client: morrowProcessSig - signal: 1\n",
                    "log 4 morrow_client: createMorrowEventLoop - "
                    "sd_event_loop returned\n",
                    "releases the bus",
                    "releases the match " + rule + "reset_cause" + interface,
                    "releases the match " + rule + "internal_power_state" +
                        interface,
                    threadExits));
}
