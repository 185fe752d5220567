// SPDX-License-Identifier: Apache-2.0
#include "board/process/daemon.hpp"
#include "board/util/error.hpp"

#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace std::chrono_literals;

constexpr auto limit = 10s;
constexpr auto scriptPath = "/run/daemon";

/** A shell script plays the daemon. */
class RunDaemon : public testing::Test
{
  protected:
    static void play(const std::string& script)
    {
        std::ofstream(scriptPath) << "#!/bin/sh\n" << script << "\n";
        std::filesystem::permissions(scriptPath,
                                     std::filesystem::perms::owner_all);
    }

    /** What a script needs to say READY=1. */
    static constexpr auto ready = "systemd-notify --ready\n";
    /** What a script needs to stay until it is killed. */
    static constexpr auto stay = "while :; do sleep 0.01; done\n";

    template <typename Kind>
    std::vector<Kind> all()
    {
        std::vector<Kind> found;
        for (const auto& event : timeline.since())
        {
            if (const auto* const body = event.as<Kind>())
            {
                found.push_back(*body);
            }
        }
        return found;
    }

    Timeline timeline;
    Daemon daemon{timeline, scriptPath, {"PATH=/usr/bin:/bin", "WORLD=board"}};
};

TEST_F(RunDaemon, ReportsHowItEnded)
{
    play("exit 5");
    daemon.start();
    const auto exited = daemon.awaitExit(limit);
    EXPECT_EQ(exited.status, 5);
    EXPECT_EQ(exited.signal, 0);
    EXPECT_FALSE(daemon.running());
    play("kill -BUS $$");
    daemon.start();
    const auto killed = daemon.awaitExit(limit);
    EXPECT_EQ(killed.status, -1);
    EXPECT_EQ(killed.signal, SIGBUS);
}

TEST_F(RunDaemon, CollectsLogRecordsAndEverythingElse)
{
    play("echo 'dlog 4 324 morrow:57:Entry [main]' >&2\n"
         "echo 'trace 4 morrow:58:Common Morrow [main]' >&2\n"
         "echo \"hello $WORLD\"; printf 'no line end'");
    daemon.start();
    daemon.awaitExit(limit);
    const auto logs = all<event::Log>();
    ASSERT_EQ(logs.size(), 1U);
    EXPECT_EQ(logs[0].text, "Entry [main]");
    EXPECT_EQ(all<event::Trace>().size(), 1U);
    const auto outputs = all<event::Output>();
    ASSERT_EQ(outputs.size(), 2U);
    EXPECT_EQ(outputs[0].line, "hello board");
    EXPECT_EQ(outputs[1].line, "no line end");
}

TEST_F(RunDaemon, RecordsItsEndAfterAllThatItSaid)
{
    play("seq 1 5000");
    daemon.start();
    daemon.awaitExit(limit);
    const auto events = timeline.since();
    EXPECT_EQ(all<event::Output>().size(), 5000U);
    EXPECT_TRUE(events.back().as<event::Exited>());
}

TEST_F(RunDaemon, LogComesBeforeWhatHappensAfterIt)
{
    play("trap 'echo \"dlog 4 324 morrow:1:term\"; : > /run/logged' TERM\n" +
         std::string(ready) + stay);
    daemon.start();
    timeline.waitFor<event::Notified>("READY=1", limit);
    for (auto round = 1U; round <= 100; ++round)
    {
        std::filesystem::remove("/run/logged");
        daemon.terminate();
        while (!std::filesystem::exists("/run/logged"))
        {
        }
        timeline.record(event::Note{"after"});
        const auto logs = all<event::Log>();
        ASSERT_EQ(logs.size(), round);
        ASSERT_TRUE(timeline.since().back().as<event::Note>());
    }
}

TEST_F(RunDaemon, GetsEverySigterm)
{
    play("n=0\n"
         "trap 'n=$((n+1)); echo term $n; [ $n = 2 ] && exit 0' TERM\n" +
         std::string(ready) + stay);
    daemon.start();
    timeline.waitFor<event::Notified>("READY=1", limit);
    daemon.terminate();
    timeline.waitFor<event::Output>("first line", limit);
    EXPECT_TRUE(daemon.running());
    EXPECT_THROW(daemon.start(), Error);
    daemon.terminate();
    EXPECT_EQ(daemon.awaitExit(limit).status, 0);
    EXPECT_EQ(all<event::Signalled>().size(), 2U);
    EXPECT_EQ(all<event::Output>()[1].line, "term 2");
}

TEST_F(RunDaemon, SaysWhatCannotBeRun)
{
    Daemon other(timeline, "/no/such/daemon", {});
    EXPECT_THROW(other.start(), Error);
    EXPECT_FALSE(other.running());
    EXPECT_THROW(other.terminate(), Error);
}

} // namespace
