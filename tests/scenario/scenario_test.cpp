// SPDX-License-Identifier: Apache-2.0

/**
 * The installed daemon on the simulated board: what needs the real processes,
 * the real libraries of the platform and the simulated kernel, and is neither a
 * file in scenarios/ nor a unit test.
 */

#include "tests/scenario/scenario.hpp"
#include "tests/support/wrapper.hpp"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

using board::event::Packet;

constexpr const char* node0 = "i3c-mctp-0";
constexpr const char* node1 = "i3c-mctp-1";

/** The number of System V objects of a kind in this sandbox. */
std::size_t ipcObjects(const std::string& kind)
{
    std::ifstream table("/proc/sysvipc/" + kind);
    const auto lines = std::count(std::istreambuf_iterator<char>(table),
                                  std::istreambuf_iterator<char>(), '\n');
    return static_cast<std::size_t>(lines) - 1; // the heading
}

/** The keys of the System V objects of a kind in this sandbox. */
std::vector<key_t> ipcKeys(const std::string& kind)
{
    std::ifstream table("/proc/sysvipc/" + kind);
    std::string line;
    std::getline(table, line); // the heading
    std::vector<key_t> keys;
    while (std::getline(table, line))
    {
        keys.push_back(static_cast<key_t>(std::stol(line)));
    }
    return keys;
}

/** As another user, makes a lock and shared memory of each key, which the
 * daemon could use, and holds the lock.
 *  @return what failed, none for nothing */
std::string makeAsNobody(const std::vector<key_t>& keys)
{
    constexpr uid_t nobody = 65534;
    constexpr int flags = IPC_CREAT | IPC_EXCL | 0666;
    const pid_t child = fork();
    if (child == 0)
    {
        // Not setuid(3), which the threads of the parent would have to answer.
        if (syscall(SYS_setuid, nobody) != 0)
        {
            _exit(1);
        }
        for (const auto key : keys)
        {
            sembuf hold{0, 1, 0};
            const int lock = semget(key, 1, flags);
            if (semop(lock, &hold, 1) != 0 || shmget(key, 1, flags) == -1)
            {
                _exit(2);
            }
        }
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status) == 0   ? "none"
           : WEXITSTATUS(status) == 1 ? "no second user"
                                      : "no objects";
}

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

/** The timeline in README.md, by lines, without the times. */
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

/** A text as a part of a test's name. */
std::string nameOf(const std::string& text)
{
    std::string name;
    for (const char letter : text)
    {
        name += isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
    }
    return name;
}

using Discovery = Scenario;
using Controllers = Scenario;
using Installed = Scenario;

} // namespace

// Discovery

TEST_F(Discovery, PublishesBothEndpointsWithTheirProperties)
{
    startToBothEndpoints();
    const std::vector<uint8_t> types{0x7E, 0x05};
    EXPECT_THAT(
        board().bus().endpoints(),
        UnorderedElementsAre(board::EndpointObject{endpoint0, 0, 0x1D, types, 1,
                                                   0, "/dev/i3c-mctp-0"},
                             board::EndpointObject{endpoint1, 0, 0x9D, types, 1,
                                                   1, "/dev/i3c-mctp-1"}));
    // The first two are the cleanup after the start.
    EXPECT_THAT(driverWrites(booted),
                ElementsAre("unbind fff10000.i3c", "unbind fff11000.i3c",
                            "unbind fff10000.i3c", "unbind fff11000.i3c",
                            "bind fff10000.i3c", "bind fff11000.i3c"));
    std::vector<std::string> directions;
    for (const auto& packet : all<Packet>())
    {
        directions.push_back((packet.toEndpoint ? "to " : "from ") +
                             packet.node);
        if (packet.toEndpoint)
        {
            EXPECT_THAT(std::vector<uint8_t>(packet.bytes.begin() + 4,
                                             packet.bytes.end()),
                        ElementsAre(0x00, 0x81, 0x0D));
        }
    }
    EXPECT_THAT(directions, ElementsAre("to i3c-mctp-0", "from i3c-mctp-0",
                                        "to i3c-mctp-1", "from i3c-mctp-1"));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Discovery, EachDeviceHasALockAndSharedMemoryUntilTheHostIsOff)
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

/** Anybody can guess a key and be first to make an object with it. */
TEST_F(Discovery, LocksAndSharedMemoryOfAnotherUserAreNotUsed)
{
    startToBothEndpoints();
    const auto keys = ipcKeys("sem");
    ASSERT_EQ(keys.size(), 2U);
    const auto off = now();
    board().host().goesTo("Off");
    withdraws(endpoint1, off);
    logs("Change State to OFF", now());
    const auto failure = makeAsNobody(keys);
    if (failure == "no second user")
    {
        GTEST_SKIP() << failure;
    }
    ASSERT_EQ(failure, "none");

    const auto from = now();
    board().host().goesTo("Running");
    publishes(endpoint0, from);
    publishes(endpoint1, from);
    std::vector<std::string> refused;
    for (const auto& trace : all<board::event::Trace>(from))
    {
        if (trace.file == "device_lock")
        {
            refused.push_back(std::regex_replace(
                trace.text, std::regex("0x[0-9a-f]+"), "KEY"));
        }
    }
    const std::string reason =
        " is not used: it cannot be made, or another user has made it";
    EXPECT_THAT(refused,
                ElementsAre("Lock KEY of /dev/i3c-mctp-0" + reason,
                            "Shared memory KEY of /dev/i3c-mctp-0" + reason,
                            "Lock KEY of /dev/i3c-mctp-1" + reason,
                            "Shared memory KEY of /dev/i3c-mctp-1" + reason));
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Discovery, AfterAKillDuringADiscoveryEndsWithBothEndpoints)
{
    board().daemon().start();
    publishes(endpoint0);
    board().daemon().signal(SIGKILL);
    EXPECT_EQ(board().daemon().awaitExit(timeout).signal, SIGKILL);
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

// Controllers and driver

TEST_F(Controllers, NodeThatCanOnlyBeReadIsFoundButNotNotified)
{
    board().controller(1).does("node-busy writers");
    board().daemon().start();
    logs("Start partial discovery");
    EXPECT_EQ(logged("Failed to open device node for fff11000.i3c"), 0U);
    EXPECT_EQ(logged("Number of elements in i3c_device_map: 2"), 1U);
    EXPECT_THAT(endpointPaths(), ElementsAre(endpoint0));
    EXPECT_EQ(stop().status, 0);
}

// Endpoints

namespace
{

/** A behaviour of the first endpoint in a full discovery, and its effect. */
struct Behaviour
{
    const char* words; //!< as in a scenario
    const char* published; //!< object path, or nullptr
    std::size_t requests; //!< that reached the endpoint
    std::size_t failures; //!< "Failed req_disc_notify ..." lines
    std::size_t invalid; //!< "Invalid req_disc_notify ..." lines
};

constexpr const char* eid1D = "/xyz/openbmc_project/mctp/0/29";
constexpr const char* eid42 = "/xyz/openbmc_project/mctp/0/66";

class EndpointThat :
    public Scenario,
    public testing::WithParamInterface<Behaviour>
{
};

using Endpoint = Scenario;

} // namespace

TEST_P(EndpointThat, IsPublishedOrNot)
{
    const auto& behaviour = GetParam();
    board().endpoint(0).behaves(behaviour.words);
    board().daemon().start();
    const auto published = behaviour.published != nullptr;
    logs(std::string("Number of elements in i3c_device_notify_map: ") +
         (published ? "2" : "1"));

    const auto paths = endpointPaths();
    EXPECT_EQ(paths.size(), published ? 2U : 1U);
    EXPECT_THAT(paths, Contains(endpoint1));
    if (published)
    {
        EXPECT_THAT(paths, Contains(behaviour.published));
    }
    EXPECT_EQ(requests(node0), behaviour.requests);
    EXPECT_EQ(requests(node1), 1U);
    const std::string device = " [/dev/i3c-mctp-0]";
    EXPECT_EQ(logged("Failed req_disc_notify to i3c device" + device),
              behaviour.failures);
    EXPECT_EQ(logged("Invalid req_disc_notify response" + device),
              behaviour.invalid);
    EXPECT_EQ(stop().status, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Behaviours, EndpointThat,
    testing::Values(Behaviour{"late 300", eid1D, 1, 0, 0},
                    // Answers after the second of the attempt.
                    Behaviour{"late 1500", nullptr, 3, 3, 0},
                    Behaviour{"short 1", nullptr, 1, 0, 1},
                    Behaviour{"short 2", nullptr, 1, 0, 1},
                    // Without the completion code, which is not evaluated.
                    Behaviour{"short 3", eid1D, 1, 0, 0},
                    Behaviour{"empty", nullptr, 1, 0, 1},
                    Behaviour{"long 160", eid1D, 1, 0, 0},
                    Behaviour{"long 161", nullptr, 3, 3, 0},
                    // Published after the third attempt.
                    Behaviour{"wrong-type 0x7F", eid1D, 3, 0, 0},
                    Behaviour{"wrong-command 0x0C", eid1D, 3, 0, 0},
                    Behaviour{"error 0x05", eid1D, 1, 0, 0},
                    Behaviour{"split 1", eid1D, 1, 0, 0},
                    Behaviour{"out-of-sequence", nullptr, 3, 3, 0},
                    Behaviour{"other-tag", nullptr, 3, 3, 0},
                    Behaviour{"other-owner", nullptr, 3, 3, 0},
                    Behaviour{"other-eid 0x42", eid42, 1, 0, 0},
                    Behaviour{"garbage", nullptr, 3, 3, 0},
                    // End of file on the node: no further attempt.
                    Behaviour{"nothing", nullptr, 1, 1, 0},
                    Behaviour{"flooding 100", eid1D, 1, 0, 0},
                    Behaviour{"first 2 silent", eid1D, 3, 2, 0}),
    [](const auto& behaviour)
    {
        return nameOf(behaviour.param.words);
    });

TEST_F(Endpoint, FirstThatVanishesLeavesItsNumberToTheSecond)
{
    board().endpoint(0).behaves("vanishing");
    board().daemon().start();
    const auto retry = logs("Retry discovering i3c devices:count = 0");
    EXPECT_EQ(board().controller(1).node(), node0);
    EXPECT_EQ(logged("Failed to open device node for fff11000.i3c"), 1U);
    board().endpoint(0).behaves("answering");
    logs("Discovery complete", retry.index);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));
    EXPECT_EQ(stop().status, 0);
}

// The host

namespace
{

class Host : public Scenario
{
  protected:
    /** Waits until the state loop has begun so many iterations.
     *  @return the place in the timeline behind the last */
    std::size_t iterations(std::size_t count, std::size_t from)
    {
        for (std::size_t iteration = 0; iteration < count; ++iteration)
        {
            from = logs("Entry [getcurrentpowerstate]", from).index + 1;
        }
        return from;
    }

    /** Goes off and comes back five times at once. A last signal, which the
     *  daemon only logs, shows that the others are handled. */
    void flap()
    {
        for (int times = 0; times < 5; ++times)
        {
            board().host().goesTo("Off");
            board().host().entersPowerState("StateS5");
            board().host().goesTo("Running");
        }
        board().host().entersPowerState("OffPendingS0");
    }

    /** Waits until the signals of flap() are handled.
     *  @return the place in the timeline behind the last */
    std::size_t handlesFlapping(std::size_t from)
    {
        return logs(std::string(handler) + "Power state is OffPendingS0", from)
                   .index +
               1;
    }

    static constexpr const char* handler = "signalHandler_internalpowerstate:";
};

} // namespace

TEST_F(Host, WarmResetDuringADiscoveryDiscoversOnceMore)
{
    // Slow enough for the reset to come during the wait for the node.
    board().controller(1).does("comes-up-after 2000");
    board().daemon().start();
    const auto from = publishes(endpoint0).index;
    board().host().isReset("WarmReset");
    // The current discovery is finished first.
    const auto complete = logs("Discovery complete", from);
    withdraws(endpoint0, complete.index);
    withdraws(endpoint1, complete.index);
    publishes(endpoint0, complete.index);
    publishes(endpoint1, complete.index);
    logs("Discovery complete", complete.index + 1);
    EXPECT_EQ(logged("signalHandler_warmreset: Power State is WarmReset"), 1U);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Host, FlappingEndsWithWhatTheHostEndsWith)
{
    startToBothEndpoints();
    auto from = now();
    flap();
    withdraws(endpoint1, from);
    auto handled = handlesFlapping(from);
    // Discoveries follow each other until no state change is pending.
    do
    {
        from = handled;
        handled = iterations(3, from);
    } while (logged("Entry change_State", from) > 0);
    EXPECT_THAT(endpointPaths(), UnorderedElementsAre(endpoint0, endpoint1));

    from = now();
    flap();
    board().host().goesTo("Off");
    const auto off = now();
    withdraws(endpoint0, from);
    withdraws(endpoint1, from);
    iterations(3, std::max(off, handlesFlapping(from)));
    EXPECT_THAT(endpointPaths(), IsEmpty());
    EXPECT_EQ(board().controller(0).node(), std::nullopt);
    EXPECT_EQ(board().controller(1).node(), std::nullopt);
    EXPECT_EQ(stop().status, 0);
}

TEST_F(Host, FloodOfSignalsIsHandledCompletely)
{
    board().platformValues().set("CPU_VENDOR", "1");
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

// Stopping

/** A stop when the daemon has just logged a text. The first text is logged
 *  right after the signal handlers are installed. */
class TerminationAt :
    public Scenario,
    public testing::WithParamInterface<const char*>
{
};

TEST_P(TerminationAt, EndsWith0)
{
    board().daemon().start();
    logs(GetParam());
    const auto end = stop();
    EXPECT_EQ(end.signal, 0);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(logged("Exit [main]"), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TerminationAt,
    testing::Values(
        "morrow_dbus_client_init - Enter", "morrowClientDBusHandler - Enter",
        "morrow_dbus_server_init - Enter", "morrowDBusMgrHandler - Enter",
        "createMorrowEventLoop - morrow DBus Server Initialization Completed.",
        "Initialization successful", "Entry [getcurrentpowerstate]",
        "GetProperty - Enter", "deleteAllEndpointObject - Enter",
        "Found i3c device: /dev/i3c-mctp-0", "createEndpointObject - Enter",
        "Discovery complete"),
    [](const auto& text)
    {
        return nameOf(text.param);
    });

// What is installed

TEST_F(Installed, ProgramRunsTheDefaultScenarioAndEndsWith0)
{
    const auto output =
        outputOf(std::string(BOARD_PROGRAM) + "; echo status $?");
    EXPECT_THAT(output, testing::EndsWith("\nstatus 0\n"));
    for (const char* property : {"NetworkId ", "EID ", "SupportedMessageTypes ",
                                 "EndpointType ", "Slot ", "DevicePath "})
    {
        EXPECT_THAT(output, testing::HasSubstr(property));
    }
    EXPECT_THAT(output, testing::HasSubstr("\nPASS power-cycle ("));
    const auto excerpt = excerptOfReadme();
    EXPECT_FALSE(excerpt.empty());
    std::size_t at = 0;
    for (const auto& line : excerpt)
    {
        at = output.find(line, at);
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
