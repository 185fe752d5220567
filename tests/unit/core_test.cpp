// SPDX-License-Identifier: Apache-2.0
#include "morrow/event_source.hpp"
#include "morrow/morrow.hpp"
#include "morrow/morrow_signal.hpp"
#include "morrow/power_state.hpp"
#include "morrow/shared_bus.hpp"
#include "morrow/stop_pipe.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/record.hpp"
#include "tests/support/state_watch.hpp"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

std::vector<std::string> story()
{
    return record::textsOf(record::thisThread());
}

class ProbeCpuVendor : public testing::Test
{
};

class ChangeState : public testing::Test
{
  protected:
    ChangeState()
    {
        cpu_vendor = 0;
        cpu_vendor_status = 0;
    }
};

class WaitStateTick : public testing::Test
{
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
        daemon_state = untouched;
    }

    /** A state that no rule writes. */
    static constexpr uint32_t untouched = 77;

    static constexpr const char* changesToOff =
        "log 4 morrow: Change State to OFF\n";
    static constexpr const char* changesToOn =
        "log 4 morrow: Change State to ON\n";
    static constexpr const char* enters = "log 4 morrow: Entry change_State\n";
};

class StateAction : public testing::Test
{
};

/** Whole passes of a daemon without bus sides. */
class StatePass : public testing::Test
{
};

} // namespace

// What holds before main

TEST(InitialValues, AreAsTheStateLoopNeedsThem)
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

TEST(HostStates, AreSpelledAsTheHostSpellsThem)
{
    EXPECT_STREQ(hostStateRunning,
                 "xyz.openbmc_project.State.Host.HostState.Running");
    EXPECT_STREQ(hostStateOff, "xyz.openbmc_project.State.Host.HostState.Off");
}

// Reading the CPU vendor

TEST_F(ProbeCpuVendor, LogsAndTracesWhatItReads)
{
    fake::vendorReads = {{0, 7}};
    probe_cpu_vendor();
    EXPECT_EQ(cpu_vendor, 7);
    EXPECT_EQ(cpu_vendor_status, 0);
    EXPECT_THAT(story(), ElementsAre("ReadIO_Str_C CPU_VENDOR size 2",
                                     "log 4 morrow: CPU vendor : 7\n\n",
                                     "trace 4 morrow: CPU vendor : 7\n\n"));
}

TEST_F(ProbeCpuVendor, FailureIsLoggedBeforeItCountsAsIntel)
{
    cpu_vendor = 7;
    uint16_t whenTraced = 0;
    record::when("trace 2 morrow: Failed to get CPU type",
                 [&whenTraced]
                 {
                     whenTraced = cpu_vendor;
                 });
    fake::vendorReads = {{-5, 9}};
    probe_cpu_vendor();
    EXPECT_EQ(whenTraced, 7);
}

TEST_F(ProbeCpuVendor, FailureIsLoggedAndCountsAsIntel)
{
    cpu_vendor = 7;
    fake::vendorReads = {{-5, 9}};
    probe_cpu_vendor();
    EXPECT_EQ(cpu_vendor, 0);
    EXPECT_EQ(cpu_vendor_status, -5);
    EXPECT_THAT(
        story(),
        ElementsAre("ReadIO_Str_C CPU_VENDOR size 2",
                    "log 2 morrow: Failed to get CPU type, halStatus: -5\n\n",
                    "trace 2 morrow: Failed to get CPU type, halStatus: "
                    "-5\n\n"));
}

// Changing the state

TEST_F(ChangeState, Request1IsOn)
{
    change_State(1);
    EXPECT_EQ(daemon_state, MORROW_ON_EVENT);
    EXPECT_THAT(story(), ElementsAre("log 4 morrow: Entry change_State\n",
                                     "log 4 morrow: Change State to ON\n"));
}

TEST_F(ChangeState, Request0IsOff)
{
    daemon_state = MORROW_SLEEP_EVENT;
    change_State(0);
    EXPECT_EQ(daemon_state, MORROW_OFF_EVENT);
    EXPECT_THAT(story(), ElementsAre("log 4 morrow: Entry change_State\n",
                                     "log 4 morrow: Change State to OFF\n"));
}

TEST_F(ChangeState, AnyOtherRequestIsOnByDefault)
{
    for (const int request : {2, -1, 1000})
    {
        daemon_state = MORROW_SLEEP_EVENT;
        change_State(request);
        EXPECT_EQ(daemon_state, MORROW_ON_EVENT) << request;
    }
    EXPECT_EQ(record::count("log 4 morrow: Change State to Default-ON\n"), 3);
}

TEST_F(ChangeState, IsLoggedWhenItHasHappened)
{
    const StateWatch on("log 4 morrow: Change State to ON\n");
    const StateWatch off("log 4 morrow: Change State to OFF\n");
    const StateWatch byDefault("log 4 morrow: Change State to Default-ON\n");
    const StateWatch sleeping("log 4 morrow: Non Intel CPU : State "
                              "MORROW_SLEEP_EVENT\n");
    change_State(1);
    EXPECT_EQ(on.seen(), MORROW_ON_EVENT);
    change_State(0);
    EXPECT_EQ(off.seen(), MORROW_OFF_EVENT);
    change_State(2);
    EXPECT_EQ(byDefault.seen(), MORROW_ON_EVENT);
    cpu_vendor = 1;
    change_State(1);
    EXPECT_EQ(sleeping.seen(), MORROW_SLEEP_EVENT);
}

TEST_F(ChangeState, Vendors0AndFFFFAreIntel)
{
    for (const uint16_t vendor : {0x0000, 0xFFFF})
    {
        cpu_vendor = vendor;
        daemon_state = MORROW_SLEEP_EVENT;
        change_State(1);
        EXPECT_EQ(daemon_state, MORROW_ON_EVENT) << vendor;
    }
}

TEST_F(ChangeState, Vendors1AndFFFEAreNot)
{
    for (const uint16_t vendor : {0x0001, 0xFFFE})
    {
        for (const int request : {0, 1, 2})
        {
            cpu_vendor = vendor;
            daemon_state = MORROW_OFF_EVENT;
            change_State(request);
            EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT) << vendor;
        }
    }
    EXPECT_EQ(record::count("log 4 morrow: Non Intel CPU : State "
                            "MORROW_SLEEP_EVENT\n"),
              6);
    EXPECT_EQ(record::count("log 4 morrow: Change State to OFF\n"), 0);
}

TEST_F(ChangeState, ReadsTheVendorAgainAfterAFailedRead)
{
    cpu_vendor_status = -1;
    fake::vendorReads = {{0, 3}};
    change_State(1);
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_THAT(story(), ElementsAre("log 4 morrow: Entry change_State\n",
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

TEST_F(ChangeState, OnByDefaultIsLoggedAlone)
{
    change_State(2);
    EXPECT_THAT(story(),
                ElementsAre("log 4 morrow: Entry change_State\n",
                            "log 4 morrow: Change State to Default-ON\n"));
}

// The count-down

TEST_F(WaitStateTick, At0SwitchesAtOnceWithoutASleep)
{
    daemon_state = MORROW_WAIT_EVENT;
    wait_ticks = 0;
    state_after_wait = MORROW_PARTIAL_DISCOVERY_EVENT;
    wait_state_tick();
    EXPECT_EQ(daemon_state, MORROW_PARTIAL_DISCOVERY_EVENT);
    EXPECT_THAT(story(), IsEmpty());
}

TEST_F(WaitStateTick, Below0IsSetTo0AndSwitches)
{
    daemon_state = MORROW_WAIT_EVENT;
    wait_ticks = -3;
    wait_state_tick();
    EXPECT_EQ(wait_ticks, 0);
    EXPECT_EQ(daemon_state, MORROW_ON_EVENT);
}

TEST_F(WaitStateTick, CountsOneSecondATickAndSwitchesOnTheCallAfter)
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
    EXPECT_EQ(story(), std::vector<std::string>(10, "sleep 1000 ms"));
}

// The transition rules

TEST_F(TransitionRules, BothFlagsGiveOffAndClearOnlyTheFirst)
{
    power_down_pending = 1;
    await_host_running = 1;
    current_host_state = hostStateRunning;
    apply_transition_rules();
    EXPECT_EQ(power_down_pending, 0);
    EXPECT_EQ(await_host_running, 1);
    EXPECT_EQ(daemon_state, MORROW_OFF_EVENT);
    EXPECT_THAT(story(), ElementsAre(enters, changesToOff));
}

TEST_F(TransitionRules, BothFlagsGiveOffFromSleepToo)
{
    daemon_state = MORROW_SLEEP_EVENT;
    power_down_pending = 1;
    await_host_running = 1;
    current_host_state = hostStateOff;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, MORROW_OFF_EVENT);
}

TEST_F(TransitionRules, RunningWhileAwaitedGivesOnOnce)
{
    await_host_running = 1;
    current_host_state = hostStateRunning;
    apply_transition_rules();
    EXPECT_EQ(await_host_running, 0);
    EXPECT_EQ(daemon_state, MORROW_ON_EVENT);
    daemon_state = untouched;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, untouched);
    EXPECT_THAT(story(), ElementsAre(enters, changesToOn));
}

TEST_F(TransitionRules, RunningWhileAwaitedLeavesSleep)
{
    daemon_state = MORROW_SLEEP_EVENT;
    await_host_running = 1;
    current_host_state = hostStateRunning;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, MORROW_ON_EVENT);
}

TEST_F(TransitionRules, AnotherTextOf48CharactersChangesNothing)
{
    await_host_running = 1;
    current_host_state = hostStateRunning;
    current_host_state.back() = 'G';
    apply_transition_rules();
    EXPECT_EQ(daemon_state, untouched);
    EXPECT_EQ(await_host_running, 1);
    EXPECT_THAT(story(), IsEmpty());
}

TEST_F(TransitionRules, OffGivesOffInEveryPass)
{
    current_host_state = hostStateOff;
    for (int pass = 0; pass < 3; ++pass)
    {
        daemon_state = MORROW_WAIT_EVENT;
        apply_transition_rules();
        EXPECT_EQ(daemon_state, MORROW_OFF_EVENT);
    }
    EXPECT_EQ(record::count(changesToOff), 3);
}

TEST_F(TransitionRules, OffWhileRunningIsAwaitedGivesOffToo)
{
    await_host_running = 1;
    current_host_state = hostStateOff;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, MORROW_OFF_EVENT);
    EXPECT_EQ(await_host_running, 1);
}

TEST_F(TransitionRules, OffWithAPowerDownAloneGivesOffToo)
{
    power_down_pending = 1;
    current_host_state = hostStateOff;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, MORROW_OFF_EVENT);
    EXPECT_EQ(power_down_pending, 1);
    EXPECT_THAT(story(), ElementsAre(enters, changesToOff));
}

TEST_F(TransitionRules, OffDoesNotLeaveSleep)
{
    daemon_state = MORROW_SLEEP_EVENT;
    current_host_state = hostStateOff;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_THAT(story(), IsEmpty());
}

TEST_F(TransitionRules, TextsOfOtherLengthsChangeNothing)
{
    for (const uint8_t awaited : {0, 1})
    {
        for (const std::string& text :
             {std::string(), std::string("Running"), std::string("Off"),
              std::string(hostStateRunning) + "x",
              std::string(hostStateOff) + "x",
              std::string("xyz.openbmc_project.State.Host.HostState."
                          "Quiesced")})
        {
            await_host_running = awaited;
            current_host_state = text;
            apply_transition_rules();
            EXPECT_EQ(daemon_state, untouched) << text;
            EXPECT_EQ(await_host_running, awaited) << text;
        }
    }
    EXPECT_THAT(story(), IsEmpty());
}

TEST_F(TransitionRules, OtherTextOf44CharactersChangesNothing)
{
    current_host_state = hostStateOff;
    current_host_state.back() = 'F';
    apply_transition_rules();
    EXPECT_EQ(daemon_state, untouched);
}

TEST_F(TransitionRules, PowerDownAloneDoesNothingByItself)
{
    power_down_pending = 1;
    current_host_state = hostStateRunning;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, untouched);
    EXPECT_EQ(power_down_pending, 1);
}

TEST_F(TransitionRules, OnlyBit0OfTheFlagsCounts)
{
    power_down_pending = 2;
    await_host_running = 0xFE;
    current_host_state = hostStateRunning;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, untouched);
    power_down_pending = 3;
    await_host_running = 0xFF;
    apply_transition_rules();
    EXPECT_EQ(daemon_state, MORROW_OFF_EVENT);
}

// What a pass does

TEST_F(StateAction, SleepingSleepsOneSecond)
{
    daemon_state = MORROW_SLEEP_EVENT;
    run_state_action();
    EXPECT_THAT(story(), ElementsAre("sleep 1000 ms"));
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
}

TEST_F(StateAction, AnUnknownStateSleepsOneSecond)
{
    daemon_state = 5;
    run_state_action();
    EXPECT_THAT(story(), ElementsAre("sleep 1000 ms"));
    EXPECT_EQ(daemon_state, 5U);
}

TEST_F(StateAction, WaitingCountsDown)
{
    daemon_state = MORROW_WAIT_EVENT;
    wait_ticks = 2;
    run_state_action();
    EXPECT_EQ(wait_ticks, 1);
    EXPECT_THAT(story(), ElementsAre("sleep 1000 ms"));
}

TEST_F(StateAction, WaitingWithNoTicksSwitchesAtOnce)
{
    daemon_state = MORROW_WAIT_EVENT;
    wait_ticks = 0;
    state_after_wait = MORROW_SLEEP_EVENT;
    run_state_action();
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_THAT(story(), IsEmpty());
}

TEST_F(StateAction, OffCleansUp)
{
    daemon_state = MORROW_OFF_EVENT;
    run_state_action();
    EXPECT_EQ(daemon_state, MORROW_SLEEP_EVENT);
    EXPECT_EQ(record::count("sleep 100 ms"), 1);
}

TEST_F(StateAction, OnDiscovers)
{
    daemon_state = MORROW_ON_EVENT;
    run_state_action();
    EXPECT_EQ(daemon_state, MORROW_WAIT_EVENT);
    EXPECT_EQ(record::count("sleep 2000 ms"), 1);
}

TEST_F(StateAction, SleepsAreTakenUpAgainAfterASignal)
{
    for (const uint32_t state : {MORROW_WAIT_EVENT, MORROW_SLEEP_EVENT})
    {
        daemon_state = state;
        wait_ticks = 1;
        fake::interruptedSleeps = 1;
        run_state_action();
    }
    EXPECT_THAT(story(), ElementsAre("sleep 1000 ms", "sleep 500 ms",
                                     "sleep 1000 ms", "sleep 500 ms"));
}

TEST_F(StatePass, StopIsSeenAfterTheActionOfEveryState)
{
    ASSERT_EQ(morrow_init_signal(), 0U);
    auto& signal = morrow_signal::get_instance();
    signal.post_stop();
    signal.wait_stop();
    for (const uint32_t state : {0U, 1U, 2U, 3U, 4U, 5U})
    {
        daemon_state = state;
        wait_ticks = 1;
        const auto before = story().size();
        EXPECT_FALSE(run_state_iteration(signal)) << state;
        EXPECT_GT(story().size(), before) << state;
    }
    EXPECT_EQ(
        record::count("log 11 morrow_client: Entry [getcurrentpowerstate]\n"),
        0);
}

TEST_F(StatePass, SleepAfterAFailedReadIsTakenUpAgainAfterASignal)
{
    daemon_state = MORROW_WAIT_EVENT; // over at once, without a sleep
    fake::interruptedSleeps = 1;
    EXPECT_TRUE(run_state_iteration(morrow_signal::get_instance()));
    const auto told = story();
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
