// SPDX-License-Identifier: Apache-2.0
#include "board/process/interruption.hpp"
#include "board/process/process.hpp"
#include "board/util/error.hpp"
#include "board/util/line_reader.hpp"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace
{

using board::ExitStatus;
using board::Pipe;
using board::Process;

constexpr int limitMs = 10000;

/** Runs a shell script with its output in a pipe. */
class Script
{
  public:
    explicit Script(const std::string& text,
                    const std::vector<std::string>& environment = {}) :
        process({"/bin/sh", "-c", text}, environment,
                {{pipe.writeEnd.get(), STDOUT_FILENO},
                 {pipe.writeEnd.get(), STDERR_FILENO}}),
        reader(std::move(pipe.readEnd))
    {
        pipe.writeEnd.reset();
    }

    /** The next line it writes; "<end>" when it writes no more. */
    std::string line()
    {
        while (lines.empty())
        {
            pollfd source{reader.fd(), POLLIN, 0};
            if (poll(&source, 1, limitMs) <= 0)
            {
                return "<hangs>";
            }
            const auto more = reader.drain(
                [this](std::string_view text)
                {
                    lines.emplace_back(text);
                });
            if (!more && lines.empty())
            {
                return "<end>";
            }
        }
        auto first = lines.front();
        lines.erase(lines.begin());
        return first;
    }

    ExitStatus end()
    {
        pollfd source{process.endFd(), POLLIN, 0};
        EXPECT_EQ(poll(&source, 1, limitMs), 1);
        return process.ended().value_or(ExitStatus{-2, 0});
    }

    Process& get()
    {
        return process;
    }

  private:
    Pipe pipe;
    Process process;
    board::LineReader reader;
    std::vector<std::string> lines;
};

bool exists(pid_t process)
{
    return kill(process, 0) == 0;
}

TEST(Process, RunsUntilItIsSignalled)
{
    Script script("trap 'echo term; exit 3' TERM; echo up; "
                  "while :; do sleep 0.01; done");
    ASSERT_EQ(script.line(), "up");
    EXPECT_FALSE(script.get().ended());
    script.get().signal(SIGTERM);
    EXPECT_EQ(script.line(), "term");
    EXPECT_EQ(script.end().status, 3);
    script.get().signal(SIGTERM); // to nobody
}

TEST(Process, GetsItsEnvironmentAndNoOther)
{
    Script script("echo $ONE-$HOME-$TWO", {"ONE=1", "TWO=2"});
    EXPECT_EQ(script.line(), "1--2");
}

TEST(Process, InheritsOnlyTheListedDescriptors)
{
    // Unlike all that the board makes, it says that it is to be inherited.
    const board::Fd unasked(dup(STDOUT_FILENO));
    ASSERT_TRUE(unasked);
    Script script("ls /proc/self/fd | tr '\\n' ' '; echo",
                  {"PATH=/usr/bin:/bin"});
    // The last is the directory that ls reads.
    EXPECT_EQ(script.line(), "0 1 2 3 ");
}

TEST(Process, StartsWithSignalsAsInAFreshProcess)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    Script script("grep -E 'Sig(Blk|Ign)' /proc/self/status",
                  {"PATH=/usr/bin:/bin"});
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(script.line(), "SigBlk:\t0000000000000000");
    EXPECT_EQ(script.line(), "SigIgn:\t0000000000000000");
}

/** The group's new parent may still have to notice its end. */
bool ends(pid_t process)
{
    for (auto tries = 0; tries < 1000 && exists(process); ++tries)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return !exists(process);
}

TEST(Process, IsKilledWithItsWholeGroup)
{
    auto script = std::make_unique<Script>(
        "sleep 60 & echo $!; wait",
        std::vector<std::string>{"PATH=/usr/bin:/bin"});
    const auto leader = script->get().id();
    const auto follower = std::stoi(script->line());
    EXPECT_EQ(getpgid(follower), leader);
    script.reset();
    EXPECT_FALSE(exists(leader));
    EXPECT_TRUE(ends(follower));
}

TEST(Process, TakesTheRestOfItsGroupAlongWhenItEnds)
{
    Script script("sleep 60 & echo $!", {"PATH=/usr/bin:/bin"});
    const auto follower = std::stoi(script.line());
    EXPECT_EQ(script.end().status, 0);
    EXPECT_TRUE(ends(follower));
}

TEST(Process, DiesWithTheThreadThatStartedIt)
{
    std::unique_ptr<Script> script;
    std::thread starter(
        [&script]
        {
            script = std::make_unique<Script>(
                "exec sleep 60",
                std::vector<std::string>{"PATH=/usr/bin:/bin"});
        });
    starter.join();
    EXPECT_EQ(script->end().signal, SIGKILL);
}

TEST(Process, RunsNothingWhenItIsBrokenOffAtTheLastMoment)
{
    EXPECT_THROW(Process({"/bin/sh", "-c", ": >/run/ran"}, {}, {},
                         board::Sharing::everything,
                         []
                         {
                             throw board::Error("no");
                         }),
                 board::Error);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1); // it has no process
    EXPECT_FALSE(std::filesystem::exists("/run/ran"));
}

TEST(Interruption, KnowsEverySignalThatWasSentBefore)
{
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    board::Timeline timeline;
    {
        board::Interruption interruption(timeline);
        for (auto round = 0; round < 100; ++round)
        {
            kill(getpid(), SIGTERM);
            EXPECT_THROW(interruption.goOn(), board::Interrupted);
        }
        EXPECT_EQ(interruption.takeSignals().size(), 100U);
    }
    {
        board::Interruption atPrompt(timeline,
                                     board::Interruption::CtrlC::breaksOff);
        kill(getpid(), SIGINT);
        EXPECT_NO_THROW(atPrompt.goOn());
        EXPECT_EQ(atPrompt.takeSignals().size(), 1U);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(Environment, LeavesOutTheNamed)
{
    setenv("BOARD_TEST", "1", 1); // NOLINT(concurrency-mt-unsafe)
    setenv("BOARD_TEST_TWO", "2", 1); // NOLINT(concurrency-mt-unsafe)
    const auto left = board::environmentWithout({"BOARD_TEST"});
    EXPECT_EQ(std::count(left.begin(), left.end(), "BOARD_TEST=1"), 0);
    EXPECT_EQ(std::count(left.begin(), left.end(), "BOARD_TEST_TWO=2"), 1);
}

TEST(LineReader, CutsLinesAndKeepsTheRest)
{
    Pipe pipe;
    board::LineReader reader(std::move(pipe.readEnd));
    std::vector<std::string> lines;
    const auto take = [&lines](std::string_view line)
    {
        lines.emplace_back(line);
    };
    EXPECT_TRUE(reader.drain(take));
    ASSERT_EQ(write(pipe.writeEnd.get(), "one\n\ntw", 7), 7);
    EXPECT_TRUE(reader.drain(take));
    EXPECT_EQ(lines, (std::vector<std::string>{"one", ""}));
    ASSERT_EQ(write(pipe.writeEnd.get(), "o\nend", 5), 5);
    pipe.writeEnd.reset();
    EXPECT_FALSE(reader.drain(take));
    reader.finish(take);
    EXPECT_EQ(lines, (std::vector<std::string>{"one", "", "two", "end"}));
}

TEST(LineReader, IsNotKeptByAWriterWithoutEnd)
{
    Script script("exec yes", {"PATH=/usr/bin:/bin"});
    for (auto round = 0; round < 100; ++round)
    {
        EXPECT_EQ(script.line(), "y");
    }
}

TEST(LineReader, HandsOverALineWithoutEndInPieces)
{
    Script script("exec cat /dev/zero", {"PATH=/usr/bin:/bin"});
    EXPECT_GE(script.line().size(), board::LineReader::longestLine);
}

} // namespace
