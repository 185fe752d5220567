// SPDX-License-Identifier: Apache-2.0

/**
 * The host and what speaks for it: power states, resets, and a host-state
 * service that comes late, vanishes, hangs or answers wrongly.
 */

#include "tests/scenario/scenario.hpp"

#include <poll.h>

#include <chrono>
#include <csignal>
#include <string>

#include <gmock/gmock.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

constexpr const char* handler = "signalHandler_internalpowerstate:";

class PowerEvents : public ScenarioOfARunningHost
{
  protected:
    /** Waits until the state loop has begun so many passes. */
    void passes(std::size_t count, std::size_t from)
    {
        for (std::size_t pass = 0; pass < count; ++pass)
        {
            from = logs("Entry [getcurrentpowerstate]", from).index + 1;
        }
    }
};

/** What an internal power state makes of an idle daemon. */
struct PowerState
{
    const char* value; //!< the short name
    const char* logged; //!< as it is told, or nullptr
    bool arms; //!< OFF and then ON are asked for
};

/** On a host whose CPU is left alone every request leads back to sleep, so
 *  that a row of the table takes two passes and no discovery. */
class PowerStateRow :
    public PowerEvents,
    public testing::WithParamInterface<PowerState>
{
};

class HostService : public PowerEvents
{
};

} // namespace

TEST_P(PowerStateRow, IsToldAndArmsOrNot)
{
    const auto& row = GetParam();
    board().setPlatformValue("CPU_VENDOR", "1");
    board().daemon().start();
    const auto idle = logs("Non Intel CPU : State MORROW_SLEEP_EVENT");
    board().host().entersPowerState(row.value);
    logs(std::string("Property value is "
                     "[xyz.openbmc_project.Control.Host."
                     "InternalPowerState.State.") +
             row.value + "]",
         idle.index);
    passes(3, now());
    EXPECT_EQ(logged("Entry change_State", idle.index + 1), row.arms ? 2U : 0U);
    std::vector<std::string> told;
    for (const auto& log : all<board::event::Log>(idle.index))
    {
        if (log.text.find("Power state is ") != std::string::npos)
        {
            told.push_back(log.text);
        }
    }
    if (row.logged == nullptr)
    {
        EXPECT_THAT(told, IsEmpty());
    }
    else
    {
        EXPECT_THAT(told, ElementsAre(std::string(handler) + "Power state is " +
                                      row.logged));
    }
    EXPECT_EQ(stop().status, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PowerStateRow,
    testing::Values(PowerState{"S0InReset", "S0InReset", true},
                    PowerState{"PreStandby", "PreStandby", true},
                    PowerState{"StateS6", "StateS6", true},
                    PowerState{"StateS5Early", "StateS5Early", true},
                    PowerState{"StateS5S3Mbusy", "StateS5S3Mbusy", true},
                    PowerState{"StateS5", "StateS5", true},
                    PowerState{"S5OnPending", "S5OnPending", true},
                    PowerState{"OffPendingS0", "OffPendingS0", false},
                    PowerState{"Unknown", "Unknown", true},
                    PowerState{"StateS0", nullptr, false}),
    [](const auto& row)
    {
        return std::string(row.param.value);
    });

TEST_F(PowerEvents, WarmResetDuringADiscoveryDiscoversOnceMore)
{
    // Slow enough for the reset to come while it is waited for.
    board().controller(1).comesUpAfter(std::chrono::milliseconds(2000));
    board().daemon().start();
    publishes(endpoint0);
    const auto from = now();
    board().host().isReset("WarmReset");
    // The discovery that runs is finished first.
    const auto complete = logs("Discovery complete", from);
    withdraws(endpoint0, complete.index);
    withdraws(endpoint1, complete.index);
    publishes(endpoint0, complete.index);
    publishes(endpoint1, complete.index);
    logs("Discovery complete", complete.index + 1);
    EXPECT_EQ(logged("signalHandler_warmreset: Power State is WarmReset"), 1U);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(PowerEvents, OtherResetCausesChangeNothing)
{
    startToBothEndpoints();
    const auto from = now();
    board().host().isReset("ColdReset");
    logs("signalHandler_warmreset:Property name is [ResetCause]", from);
    passes(2, now());
    EXPECT_EQ(logged("Entry change_State", from), 0U);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(PowerEvents, PowerOffDuringTheTenSecondWaitCancelsTheRetry)
{
    board().endpoint(1).staysSilent();
    board().daemon().start();
    const auto retry = logs("Partial discovery retry");
    board().host().goesTo("Off");
    withdraws(endpoint0, retry.index);
    board().host().goesTo("Running");
    board().endpoint(1).answers();
    logs("Discovery complete", retry.index);
    // A full discovery, not the redo that was waited for.
    EXPECT_EQ(
        logged("Going to discover i3c device: /dev/i3c-mctp-1", retry.index),
        0U);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(PowerEvents, FlappingHostThatEndsRunningEndsWithBoth)
{
    startToBothEndpoints();
    for (int flap = 0; flap < 5; ++flap)
    {
        board().host().goesTo("Off");
        board().host().entersPowerState("StateS5");
        board().host().goesTo("Running");
    }
    // As often as discoveries begin, until one is the last.
    auto from = now();
    withdraws(endpoint1);
    do
    {
        from = logs("Discovery complete", from).index + 1;
        passes(3, from);
    } while (logged("Entry change_State", from) > 0);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(PowerEvents, FlappingHostThatEndsOffEndsWithNone)
{
    startToBothEndpoints();
    for (int flap = 0; flap < 5; ++flap)
    {
        board().host().goesTo("Off");
        board().host().entersPowerState("StateS5");
        board().host().goesTo("Running");
    }
    board().host().goesTo("Off");
    const auto from = now();
    withdraws(endpoint0);
    withdraws(endpoint1);
    passes(3, from);
    EXPECT_THAT(endpointPaths(), IsEmpty());
    EXPECT_EQ(board().controller(0).node(), std::nullopt);
    EXPECT_EQ(board().controller(1).node(), std::nullopt);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(PowerEvents, FloodOfSignalsIsTakenInWhole)
{
    board().setPlatformValue("CPU_VENDOR", "1");
    board().daemon().start();
    const auto idle = logs("Non Intel CPU : State MORROW_SLEEP_EVENT");
    board().host().entersPowerState("OffPendingS0", 500);
    board().host().entersPowerState("StateS6");
    logs(std::string(handler) + "Power state is StateS6", idle.index);
    EXPECT_EQ(logged(std::string(handler) + "Power state is OffPendingS0",
                     idle.index),
              500U);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(PowerEvents, MalformedBodyIsToldAndChangesNothing)
{
    startToBothEndpoints();
    const auto from = now();
    board::ControlMessage message;
    message.body = "su";
    board().host().sends(message);
    const auto told = board().await(
        "log of an exception",
        [](const board::Event& event)
        {
            const auto* log = event.as<board::event::Log>();
            return log != nullptr && log->text.starts_with("Exception: ");
        },
        from);
    EXPECT_EQ(told.as<board::event::Log>()->level, 2);
    passes(2, now());
    EXPECT_EQ(logged("Entry change_State", from), 0U);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(PowerEvents, PowerStateOfAnotherTypeEndsTheProcess)
{
    expectsOutput = true;
    startToBothEndpoints();
    board::ControlMessage message;
    message.properties = {
        {.name = "InternalPowerState", .value = {}, .type = "u"}};
    board().host().sends(message);
    const auto end = board().daemon().awaitExit(board::Board::usualLimit);
    EXPECT_EQ(end.signal, SIGABRT);
    EXPECT_THAT(daemonOutput(),
                Contains(HasSubstr("std::get: wrong index for variant")));
}

// The host-state service

TEST_F(HostService, ThatComesLateIsFoundByTheNextRead)
{
    options.hasHostService = false;
    board().daemon().start();
    board().daemon().awaitReady(board::Board::usualLimit);
    logs("Failed to set read property");
    const auto failed = logs("Failed to get current powerevent");
    // The daemon's bus side is up all the time.
    EXPECT_THAT(endpointPaths(), IsEmpty());
    board().host().comes();
    logs("Discovery complete", failed.index);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostService, ThatVanishesLeavesTheEndpointsPublished)
{
    startToBothEndpoints();
    const auto from = now();
    board().host().leaves();
    const auto failed = logs("Failed to get current powerevent", from);
    logs("Failed to get current powerevent", failed.index + 1);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    board().host().comes();
    passes(2, logs("readproperty:Power State is on", now()).index);
    EXPECT_EQ(logged("Entry change_State", from), 0U);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostService, ThatVanishedIsNotAskedWhetherTheHostIsOff)
{
    startToBothEndpoints();
    board().host().leaves();
    board().host().entersPowerState("StateS5");
    logs(std::string(handler) + "Power state is StateS5");
    const auto from = now();
    logs("Failed to get current powerevent", from);
    // The event is kept until the state can be read again.
    EXPECT_EQ(logged("Change State to OFF", from), 0U);
    board().host().comes();
    withdraws(endpoint0, from);
    publishes(endpoint0, from);
    publishes(endpoint1, from);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostService, ThatHangsHoldsTheLoopUntilItAnswersAgain)
{
    startToBothEndpoints();
    board().host().neverAnswers();
    const auto from = now();
    // Signals are taken in meanwhile, and the endpoints stay published.
    board().host().entersPowerState("StateS5");
    logs(std::string(handler) + "Power state is StateS5", from);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    // A pass takes a second, so at most one more read begins, and none fails.
    (void)poll(nullptr, 0, 3500);
    EXPECT_LE(logged("Entry [getcurrentpowerstate]", from), 1U);
    EXPECT_EQ(logged("Failed to get current powerevent", from), 0U);
    // Its end is an answer to who waits: the call fails at once.
    board().host().leaves();
    board().host().answers();
    board().host().comes();
    withdraws(endpoint1, from);
    publishes(endpoint1, from);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostService, ThatAnswersWithAnErrorIsAskedAgain)
{
    startToBothEndpoints();
    board().host().answersWithError("org.freedesktop.DBus.Error.AccessDenied");
    const auto from = now();
    const auto failed = logs("Failed to get current powerevent", from);
    logs("Failed to get current powerevent", failed.index + 1);
    board().host().answers();
    passes(2, logs("readproperty:Power State is on", failed.index).index);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(logged("Entry change_State", from), 0U);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostService, ThatAnswersWithAnotherTypeEndsTheProcess)
{
    expectsOutput = true;
    startToBothEndpoints();
    board().host().answersWithType("u");
    const auto end = board().daemon().awaitExit(board::Board::usualLimit);
    EXPECT_EQ(end.signal, SIGABRT);
    EXPECT_THAT(daemonOutput(),
                Contains(HasSubstr("std::get: wrong index for variant")));
}

TEST_F(HostService, ThatAnswersWithAnyOtherTextIsOff)
{
    startToBothEndpoints();
    const auto from = now();
    board().host().says("");
    logs("readproperty:Power State is off", from);
    logs("readproperty:property value is []", from);
    withdraws(endpoint0, from);
    withdraws(endpoint1, from);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostService, TextThatOnlyBeginsLikeRunningIsOff)
{
    startToBothEndpoints();
    const auto from = now();
    board().host().says("xyz.openbmc_project.State.Host.HostState.RunningX");
    withdraws(endpoint0, from);
    board().host().says("xyz.openbmc_project.State.Host.HostState.Runnin_");
    const auto taken =
        logs("readproperty:property value is "
             "[xyz.openbmc_project.State.Host.HostState.Runnin_]",
             from);
    passes(2, taken.index);
    EXPECT_EQ(logged("Change State to ON", taken.index), 0U);
    EXPECT_THAT(endpointPaths(), IsEmpty());
    EXPECT_EQ(stop().status, 0);
}
