// SPDX-License-Identifier: Apache-2.0

/**
 * The installed daemon on the simulated board: one story per test.
 */

#include "tests/scenario/scenario.hpp"
#include "tests/support/other_user.hpp"
#include "tests/support/wrapper.hpp"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

using board::event::DriverWrite;
using board::event::EndpointAdded;
using board::event::EndpointChanged;
using board::event::EndpointRemoved;
using board::event::Packet;

/** The number of System V objects of a kind in this sandbox. */
std::size_t ipcObjects(const std::string& kind)
{
    std::ifstream table("/proc/sysvipc/" + kind);
    const auto lines = std::count(std::istreambuf_iterator<char>(table),
                                  std::istreambuf_iterator<char>(), '\n');
    return static_cast<std::size_t>(lines) - 1; // the heading
}

/** What a command prints. */
std::string outputOf(const std::string& command)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(
        popen(command.c_str(), "r"), pclose);
    std::string text;
    std::array<char, 4096> buffer{};
    for (std::size_t got = 0;
         (got = fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0;)
    {
        text.append(buffer.data(), got);
    }
    return text;
}

/** The timeline in README.md, a line each, without the times. */
std::vector<std::string> excerptOfReadme()
{
    const std::regex event(R"( +\d+\.\d{3}(  .*))");
    std::ifstream readme(README_FILE);
    std::vector<std::string> lines;
    std::smatch match;
    for (std::string line; std::getline(readme, line);)
    {
        if (std::regex_match(line, match, event))
        {
            lines.push_back(match[1].str() + '\n');
        }
    }
    return lines;
}

class HostPower : public Scenario
{
};

class Stopping : public Scenario
{
};

class Crash : public Scenario
{
};

class Bus : public Scenario
{
};

class Installed : public Scenario
{
};

} // namespace

// Following the host

TEST_F(HostPower, OnAtStartPublishesBothEndpointsWithTheirProperties)
{
    startToBothEndpoints();
    const std::vector<uint8_t> types{0x7E, 0x05};
    EXPECT_THAT(
        board().bus().endpoints(),
        UnorderedElementsAre(board::EndpointObject{endpoint0, 0, 0x1D, types, 1,
                                                   0, "/dev/i3c-mctp-0"},
                             board::EndpointObject{endpoint1, 0, 0x9D, types, 1,
                                                   1, "/dev/i3c-mctp-1"}));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostPower, OffAtStartUnbindsAndPublishesNothing)
{
    board().daemon().start();
    board().daemon().awaitReady(board::Board::usualLimit);
    logs("Change State to OFF");
    const auto from = now();
    logs("Change State to OFF", from);
    EXPECT_THAT(endpointPaths(), IsEmpty());
    EXPECT_EQ(board().controller(0).node(), std::nullopt);
    EXPECT_EQ(board().controller(1).node(), std::nullopt);
    for (const auto& write : all<DriverWrite>(booted))
    {
        EXPECT_FALSE(write.bind);
    }
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostPower, GoingOffBySignalWithdrawsAndUnbinds)
{
    startToBothEndpoints();
    const auto from = now();
    board().host().goesTo("Off");
    board().host().entersPowerState("StateS5");
    withdraws(endpoint0, from);
    withdraws(endpoint1, from);
    logs("signalHandler_internalpowerstate:Power state is StateS5", from);
    logs("Change State to OFF", from);
    board().await(
        "unbinding of both",
        [](const board::Event& event)
        {
            const auto* write = event.as<DriverWrite>();
            return write != nullptr && !write->bind &&
                   write->controller == "fff11000.i3c";
        },
        from);
    EXPECT_THAT(endpointPaths(), IsEmpty());
    EXPECT_EQ(board().controller(0).node(), std::nullopt);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostPower, WarmResetDiscoversBothAgain)
{
    startToBothEndpoints();
    const auto from = now();
    board().host().isReset("WarmReset");
    withdraws(endpoint0, from);
    withdraws(endpoint1, from);
    publishes(endpoint0, from);
    publishes(endpoint1, from);
    logs("Discovery complete", from);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostPower, ComingBackAfterOffDiscoversBothAgain)
{
    startToBothEndpoints();
    auto from = now();
    board().host().goesTo("Off");
    withdraws(endpoint1, from);
    from = now();
    board().host().goesTo("Running");
    publishes(endpoint0, from);
    publishes(endpoint1, from);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostPower, CpuOfAnotherVendorIsLeftAlone)
{
    options.hostState = "Running";
    board().setPlatformValue("CPU_VENDOR", "1");
    board().daemon().start();
    board().daemon().awaitReady(board::Board::usualLimit);
    logs("CPU vendor : 1");
    logs("Non Intel CPU : State MORROW_SLEEP_EVENT");
    EXPECT_EQ(stop().status, 0);
    for (const auto& write : all<DriverWrite>(booted))
    {
        EXPECT_FALSE(write.bind);
    }
    EXPECT_THAT(all<EndpointAdded>(), IsEmpty());
    EXPECT_THAT(all<Packet>(), IsEmpty());
}

// What happens on the board

TEST_F(HostPower, DiscoveryUnbindsBothAndThenBindsOneAfterTheOther)
{
    startToBothEndpoints();
    // The first two are the cleanup of a daemon that has just started.
    EXPECT_THAT(driverWrites(booted),
                ElementsAre("unbind fff10000.i3c", "unbind fff11000.i3c",
                            "unbind fff10000.i3c", "unbind fff11000.i3c",
                            "bind fff10000.i3c", "bind fff11000.i3c"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostPower, EachEndpointIsAskedOnceAndAnswersOnce)
{
    startToBothEndpoints();
    std::vector<std::string> directions;
    for (const auto& packet : all<Packet>())
    {
        directions.push_back(packet.node +
                             (packet.toEndpoint ? " asked" : " answers"));
        if (packet.toEndpoint)
        {
            EXPECT_THAT(std::vector<uint8_t>(packet.bytes.begin() + 4,
                                             packet.bytes.end()),
                        ElementsAre(0x00, 0x81, 0x0D));
        }
    }
    EXPECT_THAT(directions,
                ElementsAre("i3c-mctp-0 asked", "i3c-mctp-0 answers",
                            "i3c-mctp-1 asked", "i3c-mctp-1 answers"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(HostPower, EachDeviceGetsALockAndSharedMemory)
{
    startToBothEndpoints();
    EXPECT_EQ(ipcObjects("sem"), 2U);
    EXPECT_EQ(ipcObjects("shm"), 2U);
    const auto from = now();
    board().host().goesTo("Off");
    withdraws(endpoint1, from);
    logs("Change State to OFF", now());
    EXPECT_EQ(ipcObjects("sem"), 0U);
    EXPECT_EQ(ipcObjects("shm"), 0U);
    EXPECT_EQ(stop().status, 0);
}

// On the bus

TEST_F(Bus, EndpointIsAnnouncedAndThenItsValuesOneByOne)
{
    options.hostState = "Running";
    board().endpoint(0).hasEid(0x5D);
    board().daemon().start();
    const std::string path = "/xyz/openbmc_project/mctp/0/93";
    publishes(path);
    logs("Discovery complete");
    std::vector<std::string> announced;
    for (const auto& event : timeline.since())
    {
        if (const auto* added = event.as<EndpointAdded>();
            added != nullptr && added->path == path)
        {
            announced.emplace_back("added");
        }
        if (const auto* changed = event.as<EndpointChanged>();
            changed != nullptr && changed->path == path)
        {
            announced.push_back(changed->property);
        }
    }
    // The network is 0, as by default.
    EXPECT_THAT(announced,
                ElementsAre("added", "DevicePath", "EID", "EndpointType",
                            "Slot", "SupportedMessageTypes"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Bus, AnotherUserMayReadAndAskButNotOwnTheName)
{
    startToBothEndpoints();
    if (!other_user::isThere())
    {
        GTEST_SKIP() << "only root can play another user";
    }
    EXPECT_EQ(other_user::getArbitration(endpoint0, 29), "0");
    EXPECT_EQ(other_user::getEid(endpoint0), "29");
    EXPECT_THAT(other_user::getMachineId(endpoint0),
                testing::MatchesRegex("[0-9a-f]{32}"));
    EXPECT_THAT(other_user::setEid(endpoint0, 8),
                testing::StartsWith("org.freedesktop.DBus.Error.AccessDenied"));
    EXPECT_EQ(other_user::requestName("xyz.openbmc_project.mctp"),
              "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Bus, PowerSignalsOfAnotherUserDoNotReachTheDaemon)
{
    startToBothEndpoints();
    if (!other_user::isThere())
    {
        GTEST_SKIP() << "only root can play another user";
    }
    const auto from = now();
    const std::string host = "/xyz/openbmc_project/control/host0/";
    const std::string power = host + "internal_power_state";
    const std::string reset = host + "reset_cause";
    EXPECT_EQ(other_user::changes(power, "InternalPowerState", 5), "");
    EXPECT_EQ(other_user::changes(reset, "ResetCause", 5), "");
    EXPECT_EQ(other_user::changes(power, "InternalPowerState", ".StateS5"), "");
    EXPECT_EQ(other_user::changes(reset, "ResetCause", ".WarmReset"), "");
    // Those of the host do, and come after what was sent before.
    board().host().entersPowerState("OffPendingS0");
    board().host().isReset("PowerButton");
    logs("signalHandler_warmreset:Path:[" + reset + "]", from);
    EXPECT_EQ(
        logged("signalHandler_internalpowerstate:Path:[" + power + "]", from),
        1U);
    EXPECT_EQ(logged("signalHandler_warmreset:Path:[" + reset + "]", from), 1U);
    EXPECT_THAT(endpointPaths(),
                testing::UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

// Stopping

TEST_F(Stopping, FirstTerminationWithdrawsTheSecondEndsTheProcess)
{
    startToBothEndpoints();
    const auto from = now();
    board().daemon().terminate();
    leavesTheBus(from);
    EXPECT_EQ(all<EndpointRemoved>(from).size(), 2U);
    logs("Stop initialization", from);
    EXPECT_TRUE(board().daemon().running());
    board().daemon().terminate();
    const auto end = board().daemon().awaitExit(board::Board::usualLimit);
    EXPECT_EQ(end.signal, 0);
    EXPECT_EQ(end.status, 0);
}

TEST_F(Stopping, TwoTerminationsBackToBackEndTheProcess)
{
    startToBothEndpoints();
    const auto from = now();
    board().daemon().terminate();
    logs("Got signal Stopping MORROW", from);
    board().daemon().terminate();
    const auto end = board().daemon().awaitExit(board::Board::usualLimit);
    EXPECT_EQ(end.status, 0);
    leavesTheBus(from);
    EXPECT_EQ(all<EndpointRemoved>(from).size(), 2U);
}

/** Terminations that arrive when the daemon has just logged a text: any time
 *  after its handlers were installed, just before the first of these. */
class TerminationAt :
    public Scenario,
    public testing::WithParamInterface<const char*>
{
};

TEST_P(TerminationAt, EndsWell)
{
    options.hostState = "Running";
    board().daemon().start();
    const std::string text = GetParam();
    board().await("log of \"" + text + '"',
                  [&text](const board::Event& event)
                  {
                      const auto* log = event.as<board::event::Log>();
                      return log != nullptr && log->text == text;
                  });
    const auto end = stop();
    EXPECT_EQ(end.signal, 0);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(logged("Exit [main]"), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Points, TerminationAt,
    testing::Values(
        "morrow_dbus_client_init - Enter", "morrowClientDBusHandler - Enter",
        "morrow_dbus_server_init - Enter", "morrowDBusMgrHandler - Enter",
        "createMorrowEventLoop - morrow DBus Server Initialization Completed.",
        "Initialization successful", "Entry [getcurrentpowerstate]",
        "GetProperty - Enter", "deleteAllEndpointObject - Enter",
        "Found i3c device: /dev/i3c-mctp-0", "createEndpointObject - Enter",
        "Discovery complete"),
    [](const auto& point)
    {
        std::string name = std::to_string(point.index) + "_";
        for (const char letter : std::string(point.param))
        {
            if (isalnum(static_cast<unsigned char>(letter)) != 0)
            {
                name += letter;
            }
        }
        return name;
    });

// Crashing

TEST_F(Crash, KilledInTheMiddleOfADiscoveryAndStartedAgainEndsWithBoth)
{
    options.hostState = "Running";
    board().daemon().start();
    publishes(endpoint0);
    board().daemon().signal(SIGKILL);
    EXPECT_EQ(board().daemon().awaitExit(board::Board::usualLimit).signal,
              SIGKILL);
    leavesTheBus();

    const auto from = now();
    board().daemon().start();
    publishes(endpoint0, from);
    publishes(endpoint1, from);
    logs("Discovery complete", from);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(ipcObjects("sem"), 2U);
    EXPECT_EQ(ipcObjects("shm"), 2U);
    EXPECT_EQ(stop().status, 0);
}

// What is installed

TEST_F(Installed, ProgramPlaysTheDefaultScenarioAndEndsWith0)
{
    const auto told = outputOf(std::string(BOARD_PROGRAM) + "; echo status $?");
    EXPECT_THAT(told, testing::HasSubstr("\nPASS power-cycle ("));
    EXPECT_THAT(told, testing::EndsWith("\nstatus 0\n"));
    for (const char* property : {"NetworkId ", "EID ", "SupportedMessageTypes ",
                                 "EndpointType ", "Slot ", "DevicePath "})
    {
        EXPECT_THAT(told, testing::HasSubstr(property));
    }
    const auto excerpt = excerptOfReadme();
    EXPECT_FALSE(excerpt.empty());
    std::size_t at = 0;
    for (const auto& line : excerpt)
    {
        at = told.find(line, at);
        ASSERT_NE(at, std::string::npos) << "update README.md: " << line;
    }
}

TEST_F(Installed, NeedsTheBusItsPlatformAndTheRuntimeAndNothingElse)
{
    const auto dynamic =
        outputOf("readelf -d " + options.installation.daemon.string());
    std::vector<std::string> needed;
    for (std::size_t at = 0;
         (at = dynamic.find("Shared library: [", at)) != std::string::npos;)
    {
        at += std::string("Shared library: [").size();
        const auto name = dynamic.substr(at, dynamic.find(']', at) - at);
        const bool sanitizer = name.find("san.so") != std::string::npos;
        const bool wrapper = !wrapper::bundled && name == "libsdbusplus.so.1";
        if (!sanitizer && !wrapper && name != "libm.so.6")
        {
            needed.push_back(name);
        }
    }
    EXPECT_THAT(needed, UnorderedElementsAre(
                            "libsystemd.so.0", "libplatform-log.so.1",
                            "libplatform-hal.so.1", "libplatform-lock.so.1",
                            "libplatform-mctp.so.1", "libstdc++.so.6",
                            "libgcc_s.so.1", "libc.so.6"));
}
