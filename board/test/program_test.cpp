// SPDX-License-Identifier: Apache-2.0
#include "board/test/program.hpp"

#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

namespace fs = std::filesystem;
using namespace board::test;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

TEST(BoardProgram, ExplainsItselfAndSaysItsVersion)
{
    Program version({"--version"});
    EXPECT_EQ(version.end(), 0);
    EXPECT_EQ(version.output, "morrow-board " VERSION "\n");
    Program program({"--help"});
    EXPECT_EQ(program.end(), 0);
    EXPECT_THAT(program.output,
                HasSubstr("Usage: morrow-board [OPTIONS] [-- COMMAND "
                          "[ARGUMENT...]]\n"));
    EXPECT_THAT(program.output, HasSubstr("--daemon FILE"));
    EXPECT_THAT(program.output, HasSubstr("Exit status: 0 passed, 1 failed"));
    std::istringstream lines(program.output);
    for (std::string line; std::getline(lines, line);)
    {
        EXPECT_LE(line.size(), 80U) << line;
    }
}

struct Ended
{
    int status = -1;
    std::string output; //!< what was redirected to nowhere else
};

Ended redirected(const std::string& redirections,
                 const std::vector<std::string>& arguments)
{
    Program program(arguments, {}, "exec \"$@\" " + redirections);
    const auto status = program.end();
    return {status, program.output};
}

/** Starts the daemon and waits for its end. */
std::vector<std::string> startOf(const std::string& daemon)
{
    return playing("daemon start\nwait exit\n", daemon);
}

TEST(BoardProgram, FailsWhenItsOutputDoesNotArrive)
{
    for (const auto& arguments :
         {std::vector<std::string>{"--help"},
          std::vector<std::string>{"--version"}, playing("note one\n")})
    {
        const auto full = redirected(">/dev/full", arguments);
        EXPECT_EQ(full.status, 1);
        EXPECT_EQ(full.output, "morrow-board: cannot write all of standard "
                               "output: No space left on device\n");
        const auto closed = redirected(">&-", arguments);
        EXPECT_EQ(closed.status, 1);
        EXPECT_EQ(closed.output, "morrow-board: cannot write all of standard "
                                 "output: Bad file descriptor\n");
    }
}

TEST(BoardProgram, GoesOnWithoutAReader)
{
    Program program(playing("pause 200\nnote one\n"), {},
                    "{ \"$@\"; echo status $? >&2; } | true");
    EXPECT_EQ(program.end(), 0);
    EXPECT_EQ(program.output, "status 0\n");
}

TEST(BoardProgram, CannotReadAClosedStandardInput)
{
    const auto byHand =
        redirected("<&-", plus(withDaemon("exit 3"), {"--shell"}));
    EXPECT_EQ(byHand.status, 1);
    EXPECT_EQ(lastLine(byHand.output),
              "FAIL shell: cannot read standard input: "
              "Bad file descriptor\n");
    const auto scenario = redirected("<&-", {"--play", "-"});
    EXPECT_EQ(scenario.status, 1);
    EXPECT_EQ(scenario.output,
              "morrow-board: cannot read the scenario standard "
              "input: Bad file descriptor\n");
}

TEST(BoardProgram, NeedsNoStreamThatItDoesNotUse)
{
    EXPECT_EQ(redirected("<&- 2>&-", playing("note one\n")).status, 0);
    EXPECT_EQ(redirected("2>&-", {"--nonsense"}).status, 2);
}

TEST(BoardProgram, WritesNothingToAFileInPlaceOfAClosedStream)
{
    const auto arguments = plus(startOf("exit 3"), {"--save", "/mnt/saved"});
    for (const auto& [closed, status] :
         {std::pair("<&-", 0), std::pair(">&-", 1), std::pair("2>&-", 0),
          std::pair("<&- >&- 2>&-", 1)})
    {
        EXPECT_EQ(redirected(closed, arguments).status, status) << closed;
        std::ifstream saved("/mnt/saved");
        for (std::string line; std::getline(saved, line);)
        {
            EXPECT_THAT(line, testing::StartsWith("{")) << closed;
        }
        EXPECT_TRUE(fs::file_size("/mnt/saved") > 0) << closed;
    }
}

TEST(BoardProgram, RefusesWrongUsage)
{
    Program program({"--nonsense\033[2J"});
    EXPECT_EQ(program.end(), 2);
    EXPECT_THAT(program.output, HasSubstr("--nonsense\\x1b[2J"));
    EXPECT_THAT(program.output, Not(HasSubstr("\033")));
}

TEST(BoardProgram, RefusesNamesThatAreEmpty)
{
    for (const auto* option : {"--play", "--save", "--daemon", "--policy"})
    {
        Program program({option, ""});
        EXPECT_EQ(program.end(), 2) << option;
        EXPECT_THAT(program.output,
                    HasSubstr(std::string(option) + ": the name of a file is "
                                                    "missing\n"));
    }
}

TEST(BoardProgram, KeepsAnEarlierTimelineWhenThereIsNoScenarioToPlay)
{
    const auto arguments = withDaemon("exit 0");
    const std::string file(std::string(scriptDirectory) + "/kept");
    std::ofstream(file) << "note kept\n";
    const auto refusal = [&](const std::string& scenario)
    {
        Program program(plus(arguments, {"--save", file, "--play", scenario}));
        EXPECT_EQ(program.end(), 1);
        std::string text;
        std::getline(std::ifstream(file), text);
        EXPECT_EQ(text, "note kept");
        return program.output;
    };
    EXPECT_EQ(refusal("/no/such.board"),
              "morrow-board: cannot open the scenario /no/such.board: No such "
              "file or directory\n");
    EXPECT_EQ(refusal(std::string(scriptDirectory) + "/./kept"),
              "morrow-board: cannot save the timeline in " + file +
                  ": it is the scenario; name another file with --save\n");
}

TEST(BoardProgram, SaysWhatIsMissingWithoutControlCharacters)
{
    auto arguments = startOf("exit 0");
    arguments[1] = "/no\a/daemon";
    Program daemon(arguments);
    EXPECT_EQ(daemon.end(), 1);
    EXPECT_EQ(lastLine(daemon.output),
              "FAIL a: cannot find the daemon /no\\x07/daemon: install it "
              "(meson install) or name it with --daemon\n");
    arguments = startOf("exit 0");
    arguments[3] = "/no/such/policy";
    Program policy(arguments);
    EXPECT_EQ(policy.end(), 1);
    EXPECT_THAT(lastLine(policy.output),
                HasSubstr("cannot find the bus policy /no/such/policy"));
    Program scenario({"--play", "/no\n\033/scenario"});
    EXPECT_EQ(scenario.end(), 1);
    EXPECT_EQ(
        scenario.output,
        "morrow-board: cannot open the scenario /no\\x0a\\x1b/scenario: No "
        "such file or directory\n");
    Program installed(withDaemon("exit 0"));
    EXPECT_EQ(installed.end(), 1);
    EXPECT_THAT(installed.output,
                MatchesRegex("morrow-board: cannot open the scenario .*"
                             "/share/morrow/scenarios/power-cycle.board: No "
                             "such file or directory\n"));
}

TEST(BoardProgram, ShowsEverythingWhenAskedAndNoColourInAPipe)
{
    const auto arguments = startOf("echo 'dlog 11 324 morrow:1:detail'");
    Program brief(arguments);
    EXPECT_EQ(brief.end(), 0);
    EXPECT_THAT(brief.output, Not(HasSubstr("detail")));
    EXPECT_THAT(brief.output, Not(HasSubstr("\033")));
    Program verbose(plus(arguments, {"--verbose"}));
    EXPECT_EQ(verbose.end(), 0);
    EXPECT_THAT(verbose.output, HasSubstr("log      morrow:1  detail\n"));
}

TEST(BoardProgram, SavesTheTimelineWhereTheUserSeesIt)
{
    // Below /run, where the board's sandbox has another directory.
    const std::string file("/run/timeline");
    Program program(plus(startOf("exit 3"), {"--save", file}));
    EXPECT_EQ(program.end(), 0);
    std::string text;
    std::getline(std::ifstream(file), text, '\0');
    EXPECT_THAT(text, HasSubstr("\"event\":\"started\""));
    EXPECT_THAT(text, HasSubstr("\"event\":\"exited\",\"status\":3,"
                                "\"signal\":null}\n"));
}

TEST(BoardProgram, SaysWhyTheTimelineIsNotSaved)
{
    for (const auto& [file, why] :
         {std::pair("/no/such/file",
                    "morrow-board: cannot open /no/such/file to save the "
                    "timeline: No such file or directory; name another file "
                    "with --save\n"),
          std::pair("/dev/full",
                    "morrow-board: cannot save the timeline in /dev/full: No "
                    "space left on device; it is not whole; name another file "
                    "with --save\n")})
    {
        Program program(plus(startOf("exit 3"), {"--save", file}));
        EXPECT_EQ(program.end(), 1);
        EXPECT_EQ(lastLine(program.output), why);
    }
}

/** What a board could leave behind on the machine around it. */
std::string surroundings()
{
    std::string all;
    std::getline(std::ifstream("/proc/self/mountinfo"), all, '\0');
    for (const auto* directory : {"/run", "/run/dbus", "/dev", "/sys"})
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory))
        {
            names.push_back(entry.path());
        }
        std::sort(names.begin(), names.end());
        for (const auto& name : names)
        {
            all += name + '\n';
        }
    }
    return all;
}

/** The processes of a board that runs, itself left out. */
std::vector<pid_t> childrenOf(pid_t process)
{
    std::vector<pid_t> children;
    std::ifstream file("/proc/" + std::to_string(process) + "/task/" +
                       std::to_string(process) + "/children");
    for (pid_t child = 0; file >> child;)
    {
        children.push_back(child);
    }
    return children;
}

constexpr auto staying = "echo 'dlog 4 324 morrow:1:here'\n"
                         "trap '' TERM INT QUIT\n"
                         "while :; do sleep 0.01; done";

TEST(BoardProgram, LeavesNothingBehindWhenInterruptedOrKilled)
{
    for (const auto number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGKILL})
    {
        const auto arguments = startOf(staying);
        const auto before = surroundings();
        Program program(arguments);
        ASSERT_TRUE(program.reads("here"));
        const auto children = childrenOf(program.id());
        EXPECT_EQ(children.size(), 2U); // the broker and the daemon
        for (const auto meaningless : {SIGPIPE, SIGXFSZ})
        {
            program.signal(meaningless);
        }
        program.signal(number);
        const auto status = program.end();
        if (number != SIGKILL)
        {
            EXPECT_EQ(status, 130);
            EXPECT_EQ(lastLine(program.output),
                      "Interrupted; nothing is left behind.\n");
        }
        EXPECT_TRUE(std::all_of(children.begin(), children.end(), ends));
        EXPECT_EQ(surroundings(), before);
    }
}

TEST(BoardProgram, CanBeInterruptedWhileTheDaemonWritesWithoutEnd)
{
    for (const auto* flood : {"exec yes", "exec cat /dev/zero"})
    {
        Program program(startOf(flood));
        ASSERT_TRUE(program.reads("(it says more than is kept)")) << flood;
        program.signal(SIGINT);
        EXPECT_EQ(program.end(), 130) << flood;
    }
}

TEST(BoardProgram, KeepsTheCallersSettingsFromTheDaemon)
{
    Program program(startOf("/usr/bin/env"),
                    {"JOURNAL_STREAM=1:2", "NOTIFY_SOCKET=/elsewhere",
                     "DLOG_LEVEL=1", "DBUS_STARTER_ADDRESS=unix:path=/none"});
    EXPECT_EQ(program.end(), 0);
    EXPECT_THAT(program.output, Not(HasSubstr("JOURNAL_STREAM")));
    EXPECT_THAT(program.output, Not(HasSubstr("/elsewhere")));
    EXPECT_THAT(program.output, Not(HasSubstr("DLOG_LEVEL=1\n")));
    EXPECT_THAT(program.output, Not(HasSubstr("DBUS_STARTER_ADDRESS")));
    EXPECT_THAT(program.output, HasSubstr("NOTIFY_SOCKET=/run/board/notify\n"));
}

/** The test's own sandbox as a machine without FUSE, for a while. */
class WithoutFuse
{
  public:
    WithoutFuse()
    {
        std::ofstream(elsewhere).flush();
        EXPECT_EQ(mount(device, elsewhere, nullptr, MS_MOVE, nullptr), 0);
        EXPECT_TRUE(fs::remove(device));
    }

    WithoutFuse(const WithoutFuse&) = delete;
    WithoutFuse& operator=(const WithoutFuse&) = delete;

    ~WithoutFuse()
    {
        std::ofstream(device).flush();
        EXPECT_EQ(mount(elsewhere, device, nullptr, MS_MOVE, nullptr), 0);
    }

  private:
    static constexpr auto device = "/dev/fuse";
    static constexpr auto elsewhere = "/mnt/fuse";
};

TEST(BoardProgram, SaysWhatToDoWhereFuseIsClosedOff)
{
    const auto arguments = startOf("exit 0");
    const WithoutFuse closedOff;
    Program program(arguments);
    EXPECT_EQ(program.end(), 1);
    EXPECT_THAT(
        lastLine(program.output),
        HasSubstr("cannot open /dev/fuse: No such file or directory; "));
}

} // namespace
