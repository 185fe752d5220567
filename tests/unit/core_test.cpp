// SPDX-License-Identifier: Apache-2.0
#include "morrow/event_source.hpp"
#include "morrow/morrow.hpp"
#include "morrow/morrow_signal.hpp"
#include "morrow/power_state.hpp"
#include "morrow/shared_bus.hpp"
#include "morrow/stop_pipe.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/record.hpp"
#include "tests/support/transcript.hpp"
#include "tests/support/watch.hpp"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace transcript;

namespace
{

std::vector<std::string> trace()
{
    return traceFrom(0);
}

class ChangeState : public testing::Test
{
  protected:
    ChangeState()
    {
        cpu_vendor = 0;
        cpu_vendor_status = 0;
    }
};

/** The transition rules on their own, on a known Intel CPU. */
class TransitionRules : public testing::Test
{
  protected:
    TransitionRules()
    {
        cpu_vendor = 0;
        cpu_vendor_status = 0;
        power_down_pending = 0;
        await_host_running = 0;
    }

    static constexpr const char* changesToOff =
        "log 4 morrow: Change State to OFF\n";
    static constexpr const char* changesToOn =
        "log 4 morrow: Change State to ON\n";
    static constexpr const char* enters = "log 4 morrow: Entry change_State\n";
};

} // namespace

// Initial values

TEST(InitialValues, AreAsTheStateLoopExpects)
{
    EXPECT_EQ(daemon_state, MORROW_OFF_EVENT);
    EXPECT_EQ(init_state, 0U);
    EXPECT_EQ(wait_ticks, 0);
    EXPECT_EQ(state_after_wait, 0U);
    EXPECT_EQ(power_down_pending, 0);
    EXPECT_EQ(await_host_running, 1);
    EXPECT_EQ(current_host_state, "");
    EXPECT_EQ(cpu_vendor, 0xFFFF);
    EXPECT_EQ(cpu_vendor_status, -1);
    EXPECT_THAT(i3c_device_map, IsEmpty());
    EXPECT_THAT(i3c_discovered_map, IsEmpty());
    EXPECT_THAT(i3c_device_notify_map, IsEmpty());
}

TEST(StateValues, AreNumberedAsGiven)
{
    EXPECT_EQ(MORROW_ON_EVENT, 0U);
    EXPECT_EQ(MORROW_OFF_EVENT, 1U);
    EXPECT_EQ(MORROW_PARTIAL_DISCOVERY_EVENT, 2U);
    EXPECT_EQ(MORROW_WAIT_EVENT, 3U);
    EXPECT_EQ(MORROW_SLEEP_EVENT, 4U);
}

TEST(HostStates, HaveTheTextsOfTheHost)
{
    EXPECT_STREQ(hostStateRunning,
                 "xyz.openbmc_project.State.Host.HostState.Running");
    EXPECT_STREQ(hostStateOff, "xyz.openbmc_project.State.Host.HostState.Off");
}

// Reading the CPU vendor

TEST(ProbeCpuVendor, LogsAndTracesWhatItReads)
{
    fake::vendorReads = {{0, 7}};
    probe_cpu_vendor();
    EXPECT_EQ(cpu_vendor, 7);
    EXPECT_EQ(cpu_vendor_status, 0);
    EXPECT_THAT(trace(), ElementsAre("ReadIO_Str_C CPU_VENDOR size 2",
                                     "log 4 morrow: CPU vendor : 7\n\n",
                                     "trace 4 morrow: CPU vendor : 7\n\n"));
}

TEST(ProbeCpuVendor, FailureIsLoggedBeforeItCountsAsIntel)
{
    cpu_vendor = 7;
    const Watch whenTraced("trace 2 morrow: Failed to get CPU type",
                           cpu_vendor);
    fake::vendorReads = {{-5, 9}};
    probe_cpu_vendor();
    EXPECT_EQ(whenTraced.seen(), 7);
    EXPECT_EQ(cpu_vendor, 0);
    EXPECT_EQ(cpu_vendor_status, -5);
    EXPECT_THAT(
        trace(),
        ElementsAre("ReadIO_Str_C CPU_VENDOR size 2",
                    "log 2 morrow: Failed to get CPU type, halStatus: -5\n\n",
                    "trace 2 morrow: Failed to get CPU type, halStatus: "
                    "-5\n\n"));
}

// Changing the state

TEST_F(ChangeState, DependsOnRequestAndVendorAndIsLoggedAfterIt)
{
    struct Row
    {
        int request;
        uint16_t vendor;
        uint32_t state;
        const char* logged;
    };
    const char* const notIntel = "Non Intel CPU : State MORROW_SLEEP_EVENT";
    for (const Row& row :
         {Row{1, 0, MORROW_ON_EVENT, "Change State to ON"},
          Row{1, 0xFFFF, MORROW_ON_EVENT, "Change State to ON"},
          Row{0, 0, MORROW_OFF_EVENT, "Change State to OFF"},
          Row{2, 0, MORROW_ON_EVENT, "Change State to Default-ON"},
          Row{-1, 0, MORROW_ON_EVENT, "Change State to Default-ON"},
          Row{1000, 0, MORROW_ON_EVENT, "Change State to Default-ON"},
          Row{0, 1, MORROW_SLEEP_EVENT, notIntel},
          Row{1, 1, MORROW_SLEEP_EVENT, notIntel},
          Row{2, 1, MORROW_SLEEP_EVENT, notIntel},
          Row{0, 0xFFFE, MORROW_SLEEP_EVENT, notIntel},
          Row{1, 0xFFFE, MORROW_SLEEP_EVENT, notIntel}})
    {
        SCOPED_TRACE(row.logged);
        const auto start = trace().size();
        const Watch whenLogged(std::string("log 4 morrow: ") + row.logged,
                               daemon_state);
        cpu_vendor = row.vendor;
        daemon_state = 77;
        change_State(row.request);
        EXPECT_EQ(daemon_state, row.state);
        EXPECT_EQ(whenLogged.seen(), row.state);
        EXPECT_THAT(
            traceFrom(start),
            ElementsAre("log 4 morrow: Entry change_State\n",
                        std::string("log 4 morrow: ") + row.logged + "\n"));
    }
}

TEST_F(ChangeState, ReadsTheVendorAgainAfterAFailedRead)
{
    cpu_vendor_status = -1;
    fake::vendorReads = {{0, 3}};
    change_State(1);
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_THAT(trace(), ElementsAre("log 4 morrow: Entry change_State\n",
                                     "ReadIO_Str_C CPU_VENDOR size 2",
                                     "log 4 morrow: CPU vendor : 3\n\n",
                                     "trace 4 morrow: CPU vendor : 3\n\n",
                                     "log 4 morrow: Non Intel CPU : State "
                                     "MORROW_SLEEP_EVENT\n"));
}

TEST_F(ChangeState, ReadsTheVendorUntilAReadSucceedsAndThenNeverAgain)
{
    cpu_vendor_status = -1;
    fake::vendorReads = {{4, 0}, {0, 0}};
    change_State(1);
    EXPECT_EQ(daemon_state, MORROW_ON_EVENT);
    change_State(0);
    change_State(0);
    EXPECT_EQ(record::count("ReadIO_Str_C CPU_VENDOR size 2"), 2);
}

// The count-down

TEST(WaitStateTick, Below1IsSetTo0AndSwitchesAtOnceWithoutASleep)
{
    for (const int32_t ticks : {0, -3})
    {
        daemon_state = MORROW_WAIT_EVENT;
        wait_ticks = ticks;
        state_after_wait = MORROW_PARTIAL_DISCOVERY_EVENT;
        wait_state_tick();
        EXPECT_EQ(wait_ticks, 0);
        EXPECT_EQ(daemon_state, MORROW_PARTIAL_DISCOVERY_EVENT);
        EXPECT_THAT(trace(), IsEmpty());
    }
}

TEST(WaitStateTick, CountsOneSecondATickAndSwitchesOnTheCallAfter)
{
    daemon_state = MORROW_WAIT_EVENT;
    wait_ticks = 10;
    state_after_wait = MORROW_PARTIAL_DISCOVERY_EVENT;
    int32_t whenSlept = 0;
    fake::onSleep = [&whenSlept](int64_t)
    {
        whenSlept = wait_ticks;
    };
    for (int32_t left = 9; left >= 0; --left)
    {
        wait_state_tick();
        EXPECT_EQ(whenSlept, left);
        EXPECT_EQ(wait_ticks, left);
        EXPECT_EQ(daemon_state, MORROW_WAIT_EVENT);
    }
    fake::onSleep = {};
    wait_state_tick();
    EXPECT_EQ(daemon_state, MORROW_PARTIAL_DISCOVERY_EVENT);
    EXPECT_EQ(trace(), std::vector<std::string>(10, "sleep 1000 ms"));
}

// The transition rules

TEST_F(TransitionRules, FollowTheTable)
{
    struct Flags
    {
        int pending;
        int awaited;
    };
    struct Row
    {
        Flags before;
        std::string host;
        uint32_t state;
        Flags after;
        uint32_t newState;
    };
    constexpr uint32_t other = 77;
    constexpr uint32_t sleep = MORROW_SLEEP_EVENT;
    constexpr uint32_t off = MORROW_OFF_EVENT;
    constexpr uint32_t on = MORROW_ON_EVENT;
    const std::string running = hostStateRunning;
    const std::string isOff = hostStateOff;
    const std::string prefix = "xyz.openbmc_project.State.Host.HostState.";
    for (const Row& row : std::vector<Row>{
             // Both flags
             {{1, 1}, running, other, {0, 1}, off},
             {{1, 1}, isOff, sleep, {0, 1}, off},
             {{3, 0xFF}, running, other, {0, 0xFF}, off},
             // Running while it is awaited
             {{0, 1}, running, other, {0, 0}, on},
             {{0, 1}, running, sleep, {0, 0}, on},
             {{0, 0}, running, other, {0, 0}, other},
             {{1, 0}, running, other, {1, 0}, other},
             {{2, 0xFE}, running, other, {2, 0xFE}, other},
             // Off
             {{0, 0}, isOff, other, {0, 0}, off},
             {{0, 0}, isOff, MORROW_WAIT_EVENT, {0, 0}, off},
             {{0, 1}, isOff, other, {0, 1}, off},
             {{1, 0}, isOff, other, {1, 0}, off},
             {{0, 0}, isOff, sleep, {0, 0}, sleep},
             {{0, 1}, isOff, sleep, {0, 1}, sleep},
             // Other texts, of the same and of other lengths
             {{0, 1}, prefix + "RunninG", other, {0, 1}, other},
             {{0, 0}, prefix + "OfF", other, {0, 0}, other},
             {{0, 0}, "", other, {0, 0}, other},
             {{0, 1}, "", other, {0, 1}, other},
             {{0, 1}, "Running", other, {0, 1}, other},
             {{0, 0}, "Off", other, {0, 0}, other},
             {{0, 1}, running + "x", other, {0, 1}, other},
             {{0, 0}, isOff + "x", other, {0, 0}, other},
             {{0, 1}, isOff + "x", other, {0, 1}, other},
             {{0, 0}, prefix + "Quiesced", other, {0, 0}, other},
             {{0, 1}, prefix + "Quiesced", other, {0, 1}, other},
         })
    {
        SCOPED_TRACE(std::to_string(row.before.pending) + " " +
                     std::to_string(row.before.awaited) + " " + row.host);
        const auto start = trace().size();
        power_down_pending = static_cast<uint8_t>(row.before.pending);
        await_host_running = static_cast<uint8_t>(row.before.awaited);
        current_host_state = row.host;
        daemon_state = row.state;
        apply_transition_rules();
        EXPECT_EQ(power_down_pending, row.after.pending);
        EXPECT_EQ(await_host_running, row.after.awaited);
        EXPECT_EQ(daemon_state, row.newState);
        const std::vector<std::string> changed{
            enters, row.newState == on ? changesToOn : changesToOff};
        EXPECT_EQ(traceFrom(start), row.newState == row.state
                                        ? std::vector<std::string>()
                                        : changed);
    }
}

TEST_F(TransitionRules, FlagIsClearedBeforeTheStateChanges)
{
    std::vector<int> flags;
    for (int change = 0; change < 2; ++change)
    {
        record::when(enters,
                     [&flags]
                     {
                         flags.push_back(power_down_pending);
                         flags.push_back(await_host_running);
                     });
    }
    power_down_pending = 1;
    await_host_running = 1;
    current_host_state = hostStateRunning;
    apply_transition_rules();
    apply_transition_rules();
    EXPECT_THAT(flags, ElementsAre(0, 1, 0, 0));
}

// The action of a state

TEST(StateAction, WaitsAndSleeps)
{
    struct Row
    {
        uint32_t state;
        int32_t ticks;
        uint32_t newState;
        int32_t newTicks;
        std::size_t sleeps;
    };
    for (const Row& row : {Row{MORROW_SLEEP_EVENT, 2, MORROW_SLEEP_EVENT, 2, 1},
                           Row{5, 2, 5, 2, 1}, // an unknown state
                           Row{MORROW_WAIT_EVENT, 2, MORROW_WAIT_EVENT, 1, 1},
                           Row{MORROW_WAIT_EVENT, 0, MORROW_SLEEP_EVENT, 0, 0}})
    {
        SCOPED_TRACE(row.state);
        const auto start = trace().size();
        daemon_state = row.state;
        wait_ticks = row.ticks;
        state_after_wait = MORROW_SLEEP_EVENT;
        run_state_action();
        EXPECT_EQ(daemon_state, row.newState);
        EXPECT_EQ(wait_ticks, row.newTicks);
        EXPECT_EQ(traceFrom(start),
                  std::vector<std::string>(row.sleeps, "sleep 1000 ms"));
    }
}

TEST(StateAction, OffCleansUp)
{
    daemon_state = MORROW_OFF_EVENT;
    run_state_action();
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_EQ(record::count("sleep 100 ms"), 1);
}

TEST(StateAction, OnDiscovers)
{
    daemon_state = MORROW_ON_EVENT;
    run_state_action();
    EXPECT_EQ(daemon_state, MORROW_WAIT_EVENT);
    EXPECT_EQ(record::count("sleep 2000 ms"), 1);
}

TEST(StateAction, SleepsAreResumedAfterASignal)
{
    for (const uint32_t state : {MORROW_WAIT_EVENT, MORROW_SLEEP_EVENT})
    {
        daemon_state = state;
        wait_ticks = 1;
        fake::interruptedSleeps = 1;
        run_state_action();
    }
    EXPECT_THAT(trace(), ElementsAre("sleep 1000 ms", "sleep 500 ms",
                                     "sleep 1000 ms", "sleep 500 ms"));
}

TEST(Iteration, StopIsSeenAfterTheActionOfEveryState)
{
    ASSERT_EQ(morrow_init_signal(), 0U);
    auto& signal = morrow_signal::get_instance();
    signal.post_stop();
    signal.wait_stop();
    for (const uint32_t state : {0U, 1U, 2U, 3U, 4U, 5U})
    {
        daemon_state = state;
        wait_ticks = 1;
        const auto before = trace().size();
        EXPECT_FALSE(run_state_iteration(signal)) << state;
        EXPECT_GT(trace().size(), before) << state;
    }
    EXPECT_EQ(
        record::count("log 11 morrow_client: Entry [getcurrentpowerstate]\n"),
        0);
}

TEST(Iteration, SleepAfterAFailedReadIsResumedAfterASignal)
{
    daemon_state = MORROW_WAIT_EVENT; // over at once, without a sleep
    fake::interruptedSleeps = 1;
    EXPECT_TRUE(run_state_iteration(morrow_signal::get_instance()));
    const auto told = trace();
    EXPECT_THAT(std::vector<std::string>(told.end() - 3, told.end()),
                ElementsAre("log 2 morrow: Failed to get current powerevent\n",
                            "sleep 1000 ms", "sleep 500 ms"));
}

// The sources of an event loop

TEST(WatchInput, SourceIsServedUntilItsOwnerGoes)
{
    sd_event* loop = nullptr;
    ASSERT_GE(sd_event_new(&loop), 0);
    StopPipe pipe = closedStopPipe;
    ASSERT_TRUE(openStopPipe(pipe));
    ASSERT_TRUE(writeStopByte(pipe));
    static int served = 0;
    {
        EventSource source;
        EXPECT_GE(watchInput(source, loop, pipe[0],
                             [](sd_event_source*, int, uint32_t, void*)
                             {
                                 return ++served;
                             }),
                  0);
        EXPECT_NE(source, nullptr);
        EXPECT_GT(sd_event_run(loop, 0), 0);
        EXPECT_EQ(served, 1);
    }
    EXPECT_EQ(sd_event_run(loop, 0), 0);
    EXPECT_EQ(served, 1);
    closeStopPipe(pipe);
    sd_event_unref(loop);
}

// The shared pointer to a bus

TEST(SharedBus, IsSharedAndExchangedByManyAtATime)
{
    SharedBus bus;
    std::atomic<int> living{0};
    const auto make = [&living]
    {
        ++living;
        // What is pointed to does not matter, only who owns it.
        const std::shared_ptr<void> owner(nullptr,
                                          [&living](void*)
                                          {
                                              --living;
                                          });
        return SharedBus::Pointer(owner, nullptr);
    };
    std::atomic<bool> finished{false};
    const auto share = [&bus, &finished]
    {
        while (!finished)
        {
            const auto mine = bus.share();
        }
    };
    std::thread first(share);
    std::thread second(share);
    for (int round = 0; round < 20000; ++round)
    {
        (void)bus.exchange(make());
    }
    finished = true;
    first.join();
    second.join();
    EXPECT_EQ(living, 1);
    EXPECT_EQ(bus.exchange({}).use_count(), 1);
    EXPECT_EQ(living, 0);
}
