// SPDX-License-Identifier: Apache-2.0
#include "board/bus/bus.hpp"
#include "board/bus/sd.hpp"
#include "board/test/bus_client.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace board::test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr auto limit = 10s;
constexpr auto service = "xyz.openbmc_project.mctp";
constexpr auto hostService = "xyz.openbmc_project.State.Host0";
constexpr auto accessDenied = "org.freedesktop.DBus.Error.AccessDenied";

class PrivateBus : public testing::Test
{
  protected:
    Timeline timeline;
    Bus bus{timeline, POLICY_FILE};
};

TEST_F(PrivateBus, TakesConnectionsAtOnce)
{
    const Client client;
    const char* name = nullptr;
    EXPECT_GE(sd_bus_get_unique_name(client.get(), &name), 0);
}

TEST_F(PrivateBus, IsAtTheSystemBusesPlace)
{
    EXPECT_TRUE(std::filesystem::is_socket("/run/dbus/system_bus_socket"));
    EXPECT_EQ(Bus::address(), "unix:path=/run/dbus/system_bus_socket");
}

TEST_F(PrivateBus, LetsNobodyOwnOtherNames)
{
    const Client client;
    EXPECT_EQ(sd_bus_request_name(client.get(), "org.example.Other", 0),
              -EACCES);
    EXPECT_EQ(
        sd_bus_request_name(client.get(), "xyz.openbmc_project.mctp.Other", 0),
        -EACCES);
}

TEST_F(PrivateBus, LetsRootOwnTheDaemonsName)
{
    const Client client;
    EXPECT_EQ(sd_bus_request_name(client.get(), service, 0), 1);
}

TEST_F(PrivateBus, LetsNoOtherUserOwnAName)
{
    const auto child = fork();
    if (child == 0)
    {
        constexpr uid_t nobody = 65534;
        if (setresuid(nobody, nobody, nobody) != 0)
        {
            _exit(77); // no other user in this sandbox
        }
        const Client client;
        const auto refused =
            sd_bus_request_name(client.get(), service, 0) == -EACCES &&
            sd_bus_request_name(client.get(), hostService, 0) == -EACCES;
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == 77)
    {
        GTEST_SKIP() << "the sandbox has no other user";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

/** One that answers every method call with UnknownMethod, as sd-bus does for
 *  objects that it does not have: what gets through is told from what the
 *  broker refuses. */
class PolicyTo : public PrivateBus
{
  public:
    PolicyTo(const PolicyTo&) = delete;
    PolicyTo& operator=(const PolicyTo&) = delete;
    PolicyTo(PolicyTo&&) = delete;
    PolicyTo& operator=(PolicyTo&&) = delete;

  protected:
    PolicyTo()
    {
        thread.run(
            [this](sd_event* loop)
            {
                server = sd::connect(Bus::address());
                sd::check(sd_bus_attach_event(server.get(), loop, 0), "attach");
                sd::check(sd_bus_request_name(server.get(), service, 0), "own");
            });
    }

    ~PolicyTo() override
    {
        thread.run(
            [this](sd_event*)
            {
                server.reset();
            });
    }

    bool getsThrough(const std::string& interface, const std::string& method)
    {
        return Client().call(service, "/xyz/openbmc_project/mctp/0/29",
                             interface, method) != accessDenied;
    }

  private:
    sd::Bus server;
    EventThread thread;
};

TEST_F(PolicyTo, TheDaemonLetsEverybodyRead)
{
    EXPECT_TRUE(getsThrough("org.freedesktop.DBus.Properties", "Get"));
    EXPECT_TRUE(getsThrough("org.freedesktop.DBus.Properties", "GetAll"));
    EXPECT_TRUE(
        getsThrough("org.freedesktop.DBus.Introspectable", "Introspect"));
    EXPECT_TRUE(
        getsThrough("org.freedesktop.DBus.ObjectManager", "GetManagedObjects"));
    EXPECT_TRUE(
        getsThrough("xyz.openbmc_project.mctp.Endpoint", "GetArbitration"));
    EXPECT_TRUE(getsThrough("org.freedesktop.DBus.Peer", "Ping"));
    EXPECT_TRUE(getsThrough("org.freedesktop.DBus.Peer", "GetMachineId"));
}

TEST_F(PolicyTo, TheDaemonRefusesEverythingElse)
{
    EXPECT_FALSE(getsThrough("org.freedesktop.DBus.Properties", "Set"));
    EXPECT_FALSE(getsThrough("org.freedesktop.DBus.Peer", "Other"));
    EXPECT_FALSE(getsThrough("xyz.openbmc_project.mctp.Endpoint", "Other"));
    EXPECT_FALSE(getsThrough("org.example.Other", "GetArbitration"));
}

TEST_F(PrivateBus, RecordsTheOwnerOfTheDaemonsName)
{
    std::string unique;
    {
        const Client client;
        const char* name = nullptr;
        ASSERT_GE(sd_bus_get_unique_name(client.get(), &name), 0);
        unique = name;
        ASSERT_EQ(sd_bus_request_name(client.get(), service, 0), 1);
        const auto taken = timeline.waitFor<event::NameOwner>("owner", limit);
        EXPECT_EQ(taken.name, service);
        EXPECT_EQ(taken.owner, unique);
    }
    const auto given = timeline.waitFor(
        "no owner",
        [](const Event& event)
        {
            const auto* const name = event.as<event::NameOwner>();
            return name != nullptr && name->owner.empty();
        },
        limit);
    EXPECT_EQ(given.as<event::NameOwner>()->name, service);
}

/** Publishes endpoint objects as the daemon does. */
class Publisher
{
  public:
    Publisher()
    {
        thread.run(
            [this](sd_event* loop)
            {
                bus = sd::connect(Bus::address());
                sd::check(sd_bus_attach_event(bus.get(), loop, 0), "attach");
                for (const auto* manager : {"/xyz/openbmc_project/mctp/0",
                                            "/xyz/openbmc_project/mctp/1",
                                            "/xyz/openbmc_project/mctp/2"})
                {
                    sd::check(
                        sd_bus_add_object_manager(bus.get(), nullptr, manager),
                        "manager");
                }
                sd::check(sd_bus_request_name(bus.get(), service, 0), "own");
            });
    }

    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
    Publisher(Publisher&&) = delete;
    Publisher& operator=(Publisher&&) = delete;

    ~Publisher()
    {
        thread.run(
            [this](sd_event*)
            {
                slot.reset();
                bus.reset();
            });
    }

    void publish()
    {
        thread.run(
            [this](sd_event*)
            {
                sd_bus_slot* made = nullptr;
                sd::check(sd_bus_add_object_vtable(
                              bus.get(), &made, path,
                              "xyz.openbmc_project.mctp.Endpoint",
                              members().data(), &values),
                          "publish");
                slot.reset(made);
                sd::check(sd_bus_emit_object_added(bus.get(), path),
                          "announce");
            });
    }

    void changeSlot()
    {
        thread.run(
            [this](sd_event*)
            {
                sd::check(sd_bus_emit_properties_changed(
                              bus.get(), path,
                              "xyz.openbmc_project.mctp.Endpoint", "Slot",
                              nullptr),
                          "change");
            });
    }

    void withdraw()
    {
        thread.run(
            [this](sd_event*)
            {
                sd::check(sd_bus_emit_object_removed(bus.get(), path),
                          "withdraw");
                slot.reset();
            });
    }

    static constexpr auto path = "/xyz/openbmc_project/mctp/0/29";

  private:
    /** What the bus library reads by its offsets. */
    struct Values
    {
        std::uint32_t networkId = 7;
        std::uint8_t eid = 29;
        std::uint16_t type = 1;
        std::uint16_t slotNumber = 3;
        const char* device = "/dev/i3c-mctp-0";
    };

    static int readTypes(sd_bus* /*bus*/, const char* /*path*/,
                         const char* /*interface*/, const char* /*property*/,
                         sd_bus_message* reply, void* /*self*/,
                         sd_bus_error* /*error*/)
    {
        constexpr std::array<std::uint8_t, 2> types{0x7E, 0x05};
        return sd_bus_message_append_array(reply, 'y', types.data(),
                                           types.size());
    }

    static const std::array<sd_bus_vtable, 8>& members()
    {
        constexpr auto change = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
        static const std::array<sd_bus_vtable, 8> table{
            sd_bus_vtable SD_BUS_VTABLE_START(0),
            SD_BUS_PROPERTY("NetworkId", "u", nullptr,
                            offsetof(Values, networkId), change),
            SD_BUS_PROPERTY("EID", "y", nullptr, offsetof(Values, eid), change),
            SD_BUS_PROPERTY("SupportedMessageTypes", "ay", readTypes, 0,
                            change),
            SD_BUS_PROPERTY("EndpointType", "q", nullptr,
                            offsetof(Values, type), change),
            SD_BUS_PROPERTY("Slot", "q", nullptr, offsetof(Values, slotNumber),
                            change),
            SD_BUS_PROPERTY("DevicePath", "s", nullptr,
                            offsetof(Values, device), change),
            SD_BUS_VTABLE_END};
        return table;
    }

    Values values;
    sd::Bus bus;
    sd::Slot slot;
    EventThread thread;
};

TEST_F(PrivateBus, RecordsWhatTheDaemonAnnounces)
{
    Publisher publisher;
    publisher.publish();
    EXPECT_EQ(timeline.waitFor<event::EndpointAdded>("added", limit).path,
              Publisher::path);
    publisher.changeSlot();
    const auto changed =
        timeline.waitFor<event::EndpointChanged>("changed", limit);
    EXPECT_EQ(changed.path, Publisher::path);
    EXPECT_EQ(changed.property, "Slot");
    publisher.withdraw();
    EXPECT_EQ(timeline.waitFor<event::EndpointRemoved>("removed", limit).path,
              Publisher::path);
}

TEST_F(PrivateBus, ReadsEndpointsWithTheirSixProperties)
{
    Publisher publisher;
    EXPECT_THAT(bus.endpoints(), IsEmpty());
    publisher.publish();
    const EndpointObject expected{Publisher::path,  7, 29, {0x7E, 0x05}, 1, 3,
                                  "/dev/i3c-mctp-0"};
    EXPECT_EQ(bus.endpoints(), std::vector{expected});
}

TEST_F(PrivateBus, SaysWhenTheDaemonDoesNotAnswer)
{
    try
    {
        static_cast<void>(bus.endpoints());
        FAIL() << "somebody answered";
    }
    catch (const Error& error)
    {
        EXPECT_THAT(error.what(), HasSubstr("cannot read the endpoints at "
                                            "/xyz/openbmc_project/mctp/0: "));
    }
}

class TroubledBus : public PrivateBus
{
  protected:
    void suffers(const Words& words)
    {
        busActions().understand(words)(bus);
    }

    /** What becomes of a daemon that takes its name as a daemon does. */
    static int takesName(const Client& client)
    {
        return sd_bus_request_name(client.get(), service,
                                   SD_BUS_NAME_REPLACE_EXISTING |
                                       SD_BUS_NAME_ALLOW_REPLACEMENT);
    }
};

TEST_F(TroubledBus, NameCanBeTakenForGoodAndGivenUp)
{
    const Client daemon;
    suffers({"name-taken"});
    EXPECT_NE(timeline.waitFor<event::NameOwner>("owner", limit).owner, "");
    EXPECT_EQ(takesName(daemon), -EEXIST);
    suffers({"name-given-up"});
    EXPECT_EQ(takesName(daemon), 1);
    suffers({"name-given-up"});
}

TEST_F(TroubledBus, NameCanBeTakenReplaceably)
{
    const Client daemon;
    suffers({"name-taken", "replaceable"});
    EXPECT_EQ(takesName(daemon), 1);
    suffers({"name-given-up"});
    EXPECT_EQ(sd_bus_request_name(daemon.get(), service, 0), -EALREADY);
}

TEST_F(TroubledBus, NameCanBeTakenFromADaemon)
{
    const Client daemon;
    ASSERT_EQ(takesName(daemon), 1);
    suffers({"name-taken"});
    EXPECT_EQ(takesName(daemon), -EEXIST);
    EXPECT_EQ(Client().call(service, "/", "org.freedesktop.DBus.Properties",
                            "GetAll"),
              "org.freedesktop.DBus.Error.UnknownObject");
}

TEST_F(TroubledBus, NameIsNotTakenFromWhoKeepsIt)
{
    const Client daemon;
    ASSERT_EQ(sd_bus_request_name(daemon.get(), service, 0), 1);
    EXPECT_THROW(suffers({"name-taken"}), Error);
    EXPECT_THROW(suffers({"name-taken", "twice"}), Error);
}

TEST_F(TroubledBus, BrokerCanDieAndComeBack)
{
    Client before;
    suffers({"broker-dies"});
    EXPECT_LT(sd_bus_call_method(before.get(), service, "/", "a.b", "C",
                                 nullptr, nullptr, ""),
              0);
    EXPECT_THROW(static_cast<void>(bus.endpoints()), Error);
    suffers({"broker-comes-back"});
    EXPECT_THROW(suffers({"broker-comes-back"}), Error);
    Publisher publisher;
    publisher.publish();
    EXPECT_EQ(timeline.waitFor<event::EndpointAdded>("added", limit).path,
              Publisher::path);
}

TEST_F(TroubledBus, HasWordsWithHelp)
{
    const auto phrases = busActions().phrases();
    EXPECT_THAT(phrases, testing::SizeIs(4));
    for (const auto& phrase : phrases)
    {
        EXPECT_THAT(phrase.help, testing::Not(IsEmpty())) << phrase.name;
    }
}

TEST(Bus, SaysWhyTheBrokerDoesNotStart)
{
    Timeline timeline;
    std::ofstream("/run/bad.conf") << "<busconfig><nonsense/></busconfig>";
    try
    {
        const Bus bus(timeline, "/run/bad.conf");
        FAIL() << "it started";
    }
    catch (const Error& error)
    {
        EXPECT_THAT(error.what(),
                    HasSubstr("the broker /usr/bin/dbus-daemon did not start"));
        EXPECT_THAT(error.what(), HasSubstr("nonsense"));
    }
    EXPECT_THROW(Bus(timeline, "/no/such/policy"), Error);
}

} // namespace
