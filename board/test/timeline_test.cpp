// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/timeline.hpp"

#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

namespace
{

using board::Event;
using board::Timeline;
namespace event = board::event;
using namespace std::chrono_literals;

constexpr auto limit = 10s;

bool isNote(const Event& event, const std::string& text)
{
    const auto* const note = event.as<event::Note>();
    return note != nullptr && note->text == text;
}

TEST(Timeline, KeepsEventsInOrderOnOneClock)
{
    Timeline timeline;
    timeline.record(event::Note{"one"});
    timeline.record(event::Note{"two"});
    const auto events = timeline.since();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_TRUE(isNote(events[0], "one"));
    EXPECT_TRUE(isNote(events[1], "two"));
    EXPECT_EQ(events[1].index, 1U);
    EXPECT_LE(events[0].at, events[1].at);
    EXPECT_LE(events[1].at, timeline.now());
}

TEST(Timeline, OrderHoldsWithManyWriters)
{
    Timeline timeline;
    const auto write = [&timeline]
    {
        for (auto count = 0; count < 1000; ++count)
        {
            timeline.record(event::Note{});
        }
    };
    std::thread other(write);
    write();
    other.join();
    const auto events = timeline.since();
    ASSERT_EQ(events.size(), 2000U);
    for (std::size_t index = 1; index < events.size(); ++index)
    {
        ASSERT_LE(events[index - 1].at, events[index].at);
        ASSERT_EQ(events[index].index, index);
    }
}

TEST(Timeline, WaitFindsALaterEvent)
{
    Timeline timeline;
    auto found =
        std::async(std::launch::async,
                   [&timeline]
                   {
                       return timeline.waitFor<event::Note>("note", limit).text;
                   });
    timeline.record(event::Started{});
    timeline.record(event::Note{"later"});
    EXPECT_EQ(found.get(), "later");
}

TEST(Timeline, WaitFindsAnEarlierEventFromAnIndexOn)
{
    Timeline timeline;
    timeline.record(event::Note{"old"});
    const auto mark = timeline.size();
    timeline.record(event::Note{"new"});
    EXPECT_EQ(timeline.waitFor<event::Note>("note", 0ms).text, "old");
    EXPECT_EQ(timeline.waitFor<event::Note>("note", 0ms, mark).text, "new");
}

TEST(Timeline, WaitThatFailsSaysForWhatAndHowLong)
{
    Timeline timeline;
    try
    {
        timeline.waitFor<event::Note>("signal from the host", 20ms);
        FAIL() << "found something";
    }
    catch (const board::WaitFailed& failure)
    {
        EXPECT_STREQ(failure.what(), "no signal from the host within 20 ms");
    }
    EXPECT_THROW(timeline.waitFor<event::Note>("x", 0ms), board::WaitFailed);
}

TEST(Timeline, InterruptEndsPresentAndLaterWaits)
{
    Timeline timeline;
    auto waiting = std::async(std::launch::async,
                              [&timeline]
                              {
                                  timeline.waitFor<event::Note>("note", limit);
                              });
    timeline.interrupt();
    EXPECT_THROW(waiting.get(), board::Interrupted);
    EXPECT_THROW(timeline.waitFor<event::Note>("note", limit),
                 board::Interrupted);
}

TEST(Timeline, CallsTheCollectorBeforeAnEntry)
{
    Timeline timeline;
    timeline.setCollector(
        [&timeline]
        {
            timeline.append(event::Note{"cause"});
        });
    timeline.record(event::Note{"effect"});
    timeline.setCollector({});
    timeline.record(event::Note{"alone"});
    const auto events = timeline.since();
    ASSERT_EQ(events.size(), 3U);
    EXPECT_TRUE(isNote(events[0], "cause"));
    EXPECT_TRUE(isNote(events[1], "effect"));
    EXPECT_TRUE(isNote(events[2], "alone"));
}

TEST(Timeline, FollowerGetsEverythingAndThenTheEnd)
{
    Timeline timeline;
    auto follower =
        std::async(std::launch::async,
                   [&timeline]
                   {
                       std::size_t seen = 0;
                       for (auto events = timeline.follow(seen);
                            !events.empty(); events = timeline.follow(seen))
                       {
                           seen += events.size();
                       }
                       return seen;
                   });
    for (auto count = 0; count < 100; ++count)
    {
        timeline.record(event::Note{});
    }
    timeline.close();
    EXPECT_EQ(follower.get(), 100U);
}

} // namespace
