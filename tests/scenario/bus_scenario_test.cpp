// SPDX-License-Identifier: Apache-2.0

/**
 * A bus and a platform that are not as the daemon wants them: the name is
 * taken, the broker dies, the CPU's vendor cannot be read.
 */

#include "tests/scenario/scenario.hpp"

#include <string>

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

class BusName : public ScenarioOfARunningHost
{
};

class BrokerDeath : public ScenarioOfARunningHost
{
};

class CpuVendor : public ScenarioOfARunningHost
{
};

} // namespace

TEST_F(BusName, HeldByAnotherWhoKeepsItHoldsUpTheStart)
{
    board().bus().takesDaemonsName(false);
    board().daemon().start();
    const auto failed = board().await(
        "log of the name's refusal",
        [](const board::Event& event)
        {
            const auto* log = event.as<board::event::Log>();
            return log != nullptr &&
                   log->text.starts_with(
                       "morrowDBusMgrHandler -Error:sd_bus_request_name: ");
        });
    EXPECT_EQ(failed.as<board::event::Log>()->level, 1);
    // Not without its server: it is never ready, and it does not leave.
    board().daemon().terminate();
    logs("Stopped MORROW");
    EXPECT_EQ(logged("Stopping Dbus"), 0U);
    EXPECT_TRUE(board().daemon().running());
    EXPECT_THAT(all<board::event::Notified>(), IsEmpty());
}

TEST_F(BusName, HeldByAnotherWhoAllowsItIsTaken)
{
    board().bus().takesDaemonsName(true);
    startToBothEndpoints();
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(BusName, CanBeTakenFromTheDaemonWhichGoesOn)
{
    startToBothEndpoints();
    const auto from = now();
    board().bus().takesDaemonsName(true);
    board().bus().givesUpDaemonsName();
    leavesTheBus(from);
    // It does not come back to the daemon, which discovers all the same.
    board().host().isReset("WarmReset");
    logs("Discovery complete", from);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(BrokerDeath, IsLoggedByBothSidesAndTheStopStillWorks)
{
    startToBothEndpoints();
    const auto from = now();
    board().bus().dies();
    const auto logsErrorOf = [this, from](const std::string& file)
    {
        const auto error = board().await(
            "error of " + file,
            [&file](const board::Event& event)
            {
                const auto* log = event.as<board::event::Log>();
                return log != nullptr && log->file == file && log->level == 1 &&
                       log->text.starts_with(
                           file == "morrow_client"
                               ? "morrowClientProcessRequest -Error:"
                               : "morrowProcessRequest -Error:");
            },
            from);
        return error.index;
    };
    logsErrorOf("morrow_client");
    logsErrorOf("morrow_server");
    logs("Failed to get current powerevent", from);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(CpuVendor, ThatIsMissingIsTakenForIntelAndReadAgain)
{
    board().platformValues().remove("CPU_VENDOR");
    startToBothEndpoints();
    // At the start, and with the change to ON.
    std::size_t failures = 0;
    for (const auto& log : all<board::event::Log>())
    {
        if (log.text.starts_with("Failed to get CPU type, halStatus: "))
        {
            EXPECT_EQ(log.level, 2);
            ++failures;
        }
    }
    EXPECT_EQ(failures, 2U);
    board().platformValues().set("CPU_VENDOR", "0");
    const auto from = now();
    board().host().isReset("WarmReset");
    logs("CPU vendor : 0", from);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(CpuVendor, ThatIsMalformedIsTakenForIntel)
{
    board().platformValues().set("CPU_VENDOR", "Intel, perhaps");
    startToBothEndpoints();
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(CpuVendor, OfAnotherMakerLeavesTheHostAlone)
{
    board().platformValues().set("CPU_VENDOR", "0xFFFE");
    board().daemon().start();
    logs("CPU vendor : 65534");
    logs("Non Intel CPU : State MORROW_SLEEP_EVENT");
    EXPECT_THAT(all<board::event::EndpointAdded>(), IsEmpty());
    EXPECT_THAT(driverWrites(booted),
                ElementsAre("unbind fff10000.i3c", "unbind fff11000.i3c"));
    EXPECT_EQ(stop().status, 0);
}
