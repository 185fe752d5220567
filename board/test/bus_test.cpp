// SPDX-License-Identifier: Apache-2.0
#include "board/bus/bus.hpp"
#include "board/bus/sd.hpp"
#include "board/test/bus_client.hpp"
#include "board/test/files.hpp"

#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace board::test;
using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr auto limit = 10s;
constexpr auto service = "xyz.openbmc_project.mctp";
constexpr auto hostService = "xyz.openbmc_project.State.Host0";

class PrivateBus : public testing::Test
{
  protected:
    Timeline timeline;
    Bus bus{timeline, POLICY_FILE};
};

TEST_F(PrivateBus, IsASystemBusAtItsUsualPlace)
{
    EXPECT_EQ(Bus::address(), "unix:path=/run/dbus/system_bus_socket");
    const Client client;
    EXPECT_EQ(sd_bus_request_name(client.get(), "org.example.Other", 0),
              -EACCES);
    EXPECT_EQ(
        sd_bus_request_name(client.get(), "xyz.openbmc_project.mctp.Other", 0),
        -EACCES);
    EXPECT_EQ(sd_bus_request_name(client.get(), service, 0), 1);
}

TEST_F(PrivateBus, LetsNoOtherUserOwnAName)
{
    const auto refused = asNobody(
        []
        {
            const Client client;
            return sd_bus_request_name(client.get(), service, 0) == -EACCES &&
                   sd_bus_request_name(client.get(), hostService, 0) == -EACCES;
        });
    if (!refused)
    {
        GTEST_SKIP() << "the sandbox has no other user";
    }
    EXPECT_TRUE(*refused);
}

TEST_F(PrivateBus, HasThePolicyOfTheDaemon)
{
    const Client daemon;
    ASSERT_EQ(sd_bus_request_name(daemon.get(), service, 0), 1);
    EXPECT_EQ(Client().call(service, "/xyz/openbmc_project/mctp/0/29",
                            "org.freedesktop.DBus.Properties", "Set"),
              "org.freedesktop.DBus.Error.AccessDenied");
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
    void suffers(const std::string& action)
    {
        commands::run(busActions(), bus, action);
    }

    /** What becomes of a daemon that takes its name as a daemon does. */
    static int takesName(const Client& client)
    {
        return sd_bus_request_name(client.get(), service,
                                   SD_BUS_NAME_REPLACE_EXISTING |
                                       SD_BUS_NAME_ALLOW_REPLACEMENT);
    }
};

TEST_F(TroubledBus, NameCanBeTakenFromADaemonForGoodAndGivenUp)
{
    const Client daemon;
    ASSERT_EQ(takesName(daemon), 1);
    suffers("name-taken");
    EXPECT_EQ(takesName(daemon), -EEXIST);
    suffers("name-given-up");
    EXPECT_EQ(takesName(daemon), 1);
    suffers("name-given-up");
}

TEST_F(TroubledBus, NameCanBeTakenReplaceably)
{
    const Client daemon;
    suffers("name-taken replaceable");
    EXPECT_EQ(takesName(daemon), 1);
    suffers("name-given-up");
    EXPECT_EQ(sd_bus_request_name(daemon.get(), service, 0), -EALREADY);
}

TEST_F(TroubledBus, NameIsNotTakenFromWhoKeepsIt)
{
    const Client daemon;
    ASSERT_EQ(sd_bus_request_name(daemon.get(), service, 0), 1);
    EXPECT_THROW(suffers("name-taken"), Error);
}

TEST_F(TroubledBus, BrokerCanDieAndComeBack)
{
    Client before;
    suffers("broker-dies");
    EXPECT_LT(sd_bus_call_method(before.get(), service, "/", "a.b", "C",
                                 nullptr, nullptr, ""),
              0);
    EXPECT_THROW(static_cast<void>(bus.endpoints()), Error);
    suffers("broker-comes-back");
    EXPECT_THROW(suffers("broker-comes-back"), Error);
    const auto from = timeline.size();
    const Client after;
    EXPECT_EQ(takesName(after), 1);
    EXPECT_EQ(timeline.waitFor<event::NameOwner>("owner", limit, from).name,
              service);
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
