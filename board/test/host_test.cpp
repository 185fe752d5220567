// SPDX-License-Identifier: Apache-2.0
#include "board/host/host.hpp"
#include "board/test/bus_client.hpp"
#include "board/util/error.hpp"

#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace board::test;
using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr auto limit = 10s;
constexpr auto statePath = "/xyz/openbmc_project/state/host0";
constexpr auto powerPath =
    "/xyz/openbmc_project/control/host0/internal_power_state";
constexpr auto resetPath = "/xyz/openbmc_project/control/host0/reset_cause";
constexpr auto running = "xyz.openbmc_project.State.Host.HostState.Running";
constexpr auto off = "xyz.openbmc_project.State.Host.HostState.Off";
constexpr auto unknownService = "org.freedesktop.DBus.Error.ServiceUnknown";

class SimulatedHost : public testing::Test
{
  protected:
    void does(const std::string& action)
    {
        commands::run(hostActions(), host, action);
    }

    Timeline timeline;
    Bus bus{timeline, POLICY_FILE};
    Host host{timeline, Bus::address(), "Off"};
    Client client;
};

TEST_F(SimulatedHost, ServesAnnouncesAndRecordsItsState)
{
    EXPECT_EQ(client.hostState(), off);
    Listener listener(client, statePath);
    const auto before = timeline.size();
    host.goesTo("Running");
    EXPECT_EQ(client.hostState(), running);
    EXPECT_EQ(listener.heard(), std::string("CurrentHostState=") + running);
    EXPECT_EQ(timeline.waitFor<event::HostState>("state", limit, before).value,
              running);
}

TEST_F(SimulatedHost, AnnouncesPowerStatesAndResets)
{
    Listener power(client, powerPath);
    Listener reset(client, resetPath);
    host.entersPowerState("StateS5");
    EXPECT_EQ(power.heard(),
              "InternalPowerState=xyz.openbmc_project.Control.Host."
              "InternalPowerState.State.StateS5");
    host.isReset("WarmReset");
    EXPECT_EQ(reset.heard(),
              "ResetCause=xyz.openbmc_project.Control.Host.ResetCause.Cause."
              "WarmReset");
    EXPECT_EQ(timeline.waitFor<event::ControlSignal>("signal", limit).property,
              "InternalPowerState");
}

TEST_F(SimulatedHost, CannotBeThereTwice)
{
    EXPECT_THROW(Host(timeline, Bus::address(), "Off"), Error);
}

TEST_F(SimulatedHost, LeavesAndComesBack)
{
    does("host leaves");
    EXPECT_EQ(client.hostState(), unknownService);
    does("host Running");
    does("host comes");
    EXPECT_EQ(client.hostState(), running);
    does("host comes");
    EXPECT_EQ(client.hostState(), running);
    EXPECT_FALSE(
        timeline.waitFor<event::HostService>("service", limit).isThere);
}

TEST_F(SimulatedHost, AnnouncesPowerStatesWhileItsServiceIsAway)
{
    Listener power(client, powerPath);
    does("host leaves");
    does("power StateS5");
    EXPECT_THAT(power.heard(), HasSubstr(".StateS5"));
}

TEST_F(SimulatedHost, ComesBackAfterTheBroker)
{
    bus.dies();
    does("host Running");
    EXPECT_THROW(does("power StateS5"), Error);
    bus.comesBack();
    does("host comes");
    Client after;
    EXPECT_EQ(after.hostState(), running);
    Listener power(after, powerPath);
    does("power StateS5");
    EXPECT_THAT(power.heard(), HasSubstr(".StateS5"));
}

TEST(Host, IsAcceptedByTheBrokerOnBothConnectionsFromTheBeginning)
{
    Timeline timeline;
    const Bus bus(timeline, POLICY_FILE);
    Client client;
    const auto before = client.connections();
    const Host host(timeline, Bus::address(), "Off");
    EXPECT_EQ(client.connections(), before + 2);
}

TEST_F(SimulatedHost, SaysAnyText)
{
    does("host says");
    EXPECT_EQ(client.hostState(), "");
    const std::string asLong(48, 'x');
    does("host says " + asLong);
    EXPECT_EQ(client.hostState(), asLong);
    does("host says two words");
    EXPECT_EQ(client.hostState(), "two words");
}

TEST_F(SimulatedHost, AnswersWithErrors)
{
    does("host answers-error org.example.Error.Late not now");
    EXPECT_EQ(client.hostState(), "org.example.Error.Late");
    EXPECT_EQ(timeline.waitFor<event::HostAnswer>("answer", limit).what,
              "the error org.example.Error.Late");
    does("host answers");
    EXPECT_EQ(client.hostState(), off);
    EXPECT_THROW(host.answersWithError("no name"), Error);
}

TEST_F(SimulatedHost, AnswersWithOtherTypes)
{
    for (const auto* type :
         {"u", "b", "d", "o", "g", "as", "ay", "a{sv}", "(sa(ou))", "v"})
    {
        does(std::string("host answers-type ") + type);
        EXPECT_EQ(client.hostStateType(), type);
    }
    for (const auto* type :
         {"", "uu", "a", "(", "()", "a{vs}", "a{s}", "h", "{sv}", "z"})
    {
        EXPECT_THROW(host.answersWithType(type), Error) << type;
    }
    for (const auto* nested : {"a", "("})
    {
        std::string type;
        for (auto depth = 0; depth < 100'000; ++depth)
        {
            type += nested;
        }
        EXPECT_THROW(host.answersWithType(type + "y"), Error) << nested;
    }
}

TEST_F(SimulatedHost, LetsCallersWaitUntilTheServiceLeaves)
{
    does("host never-answers");
    auto answer = std::async(std::launch::async,
                             []
                             {
                                 return Client().hostState();
                             });
    EXPECT_EQ(timeline.waitFor<event::HostAnswer>("call", limit).what,
              "no answer");
    EXPECT_EQ(answer.wait_for(50ms), std::future_status::timeout);
    does("host leaves");
    ASSERT_EQ(answer.wait_for(limit), std::future_status::ready);
    EXPECT_EQ(answer.get(), "org.freedesktop.DBus.Error.NoReply");
}

TEST_F(SimulatedHost, AnnouncesOften)
{
    constexpr int times = 2000;
    Listener power(client, powerPath);
    does("power StateS5 " + std::to_string(times));
    for (int heard = 0; heard < times; ++heard)
    {
        ASSERT_THAT(power.heard(), HasSubstr(".StateS5")) << heard;
    }
    EXPECT_EQ(timeline.waitFor<event::ControlSignal>("signals", limit).times,
              static_cast<std::size_t>(times));
}

TEST_F(SimulatedHost, AnnouncesSeveralPropertiesAtOnce)
{
    Listener power(client, powerPath);
    host.sends({.properties = {{"InternalPowerState", ".StateS5"},
                               {"Other", "x"},
                               {"Number", "", "u"}}});
    EXPECT_EQ(power.heard(), "InternalPowerState=.StateS5 Other=x Number:u");
    does("host signal-values reset .WarmReset .Other");
    EXPECT_EQ(timeline.waitFor<event::ControlSignal>("signal", limit).path,
              resetPath);
}

TEST_F(SimulatedHost, SendsMalformedSignals)
{
    Listener power(client, powerPath);
    Listener reset(client, resetPath);
    does("host signal-type power u");
    EXPECT_EQ(power.heard(), "InternalPowerState:u");
    does("host signal-type reset o");
    EXPECT_EQ(reset.heard(), "ResetCause:o");
    does("host signal-property reset Other x");
    EXPECT_EQ(reset.heard(), "Other=x");
    does("host signal-body power ua{su}");
    EXPECT_EQ(power.heard(), "<body ua{su}>");
    does("host signal-body power");
    EXPECT_EQ(power.heard(), "<body >");
    does("host signal-changed power org.example.Other");
    EXPECT_EQ(power.heard(), "<org.example.Other> InternalPowerState=.StateS5");
    does("host signal-values power");
    EXPECT_EQ(power.heard(), "<none>");
    EXPECT_EQ(timeline.waitFor<event::MalformedSignal>("signal", limit).what,
              "org.freedesktop.DBus.Properties.PropertiesChanged, "
              "InternalPowerState of type \"u\"");
}

TEST_F(SimulatedHost, SendsOtherSignals)
{
    Listener member(client, powerPath, "org.freedesktop.DBus.Properties",
                    "Other");
    Listener interface(client, powerPath, "org.example.Other",
                       "PropertiesChanged");
    does("host signal-member power Other");
    EXPECT_EQ(member.heard(), "InternalPowerState=.StateS5");
    does("host signal-interface power org.example.Other");
    EXPECT_EQ(interface.heard(), "InternalPowerState=.StateS5");
    EXPECT_THROW(does("host signal-member power no-name"), Error);
    EXPECT_THROW(does("host signal-type power uu"), Error);
    EXPECT_THROW(does("host signal-body power a"), Error);
}

} // namespace
