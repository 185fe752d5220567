// SPDX-License-Identifier: Apache-2.0
#include "board/test/program.hpp"
#include "board/test/terminal.hpp"

#include <array>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace board::test;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

// A daemon that is ready, logs its level and leaves on the second SIGTERM.
constexpr auto patient =
    "count=0\n"
    "trap 'count=$((count + 1)); echo dlog 4 324 morrow:2:term' TERM\n"
    "echo \"dlog 4 324 morrow:1:level $DLOG_LEVEL\"\n"
    "/usr/bin/systemd-notify --ready\n"
    "while [ $count -lt 2 ]; do sleep 0.01; done\n";

std::vector<std::string> shellWith(const std::string& daemon)
{
    return plus(withDaemon(daemon), {"--shell"});
}

/** What a shell says to these lines; it ends with status 0. */
std::string saidTo(const std::vector<std::string>& lines,
                   const std::string& daemon = "exit 3")
{
    Program program(shellWith(daemon));
    for (const auto& line : lines)
    {
        program.tell(line);
    }
    EXPECT_EQ(program.end(), 0);
    return program.output;
}

TEST(Shell, GreetsWithTheBusAndEndsWithItsInputOrQuit)
{
    EXPECT_THAT(saidTo({"quit", "note after"}), Not(HasSubstr("after")));
    EXPECT_THAT(saidTo({}),
                AllOf(HasSubstr("type \"daemon start\" here first.\n"),
                      HasSubstr("\"help\" lists all commands, \"quit\" ends "
                                "the board.\n"),
                      EndsWith("The board has ended; nothing is left "
                               "behind.\n")));
}

/** The lines of the greeting that are to be typed in another terminal. */
std::vector<std::string> commandsIn(const std::string& greeting)
{
    std::vector<std::string> commands;
    std::istringstream lines(greeting.substr(greeting.find("Then, ")));
    for (std::string line; std::getline(lines, line);)
    {
        // The timeline's lines begin with blanks and a number.
        if (line.starts_with("  ") && std::isalpha(line[2]) != 0)
        {
            commands.push_back(line);
        }
    }
    return commands;
}

/** What a shell outside of the board shows. */
std::string shownBy(const std::string& commands)
{
    std::string shown;
    // NOLINTNEXTLINE(cert-env33-c): the shell sees the greeting's words only
    auto* const pipe = popen((commands + " 2>&1").c_str(), "re");
    std::array<char, 256> part{};
    while (std::fgets(part.data(), part.size(), pipe) != nullptr)
    {
        shown += part.data();
    }
    EXPECT_EQ(pclose(pipe), 0) << shown;
    return shown;
}

TEST(Shell, GreetsWithCommandsThatWorkAsTheyAreTyped)
{
    Program program(
        {"--daemon", DAEMON_PROGRAM, "--policy", POLICY_FILE, "--shell"});
    program.tell("daemon start\nwait ready\nnote now");
    ASSERT_TRUE(program.reads("board    now"));
    const auto commands = commandsIn(program.output);
    ASSERT_EQ(commands.size(), 3U);
    const auto tree = HasSubstr("/xyz/openbmc_project/mctp/2");
    EXPECT_THAT(shownBy(commands[0] + "\n" + commands[1]), tree);
    EXPECT_THAT(shownBy(commands[2]), tree);
}

TEST(Shell, TakesALastLineWithoutAnEnd)
{
    Program program(shellWith("exit 3"));
    program.tell("note one\nnote two\r\n\n# note three");
    EXPECT_EQ(program.end(), 0);
    EXPECT_THAT(program.output,
                AllOf(HasSubstr("board    one\n"), HasSubstr("board    two\n"),
                      Not(HasSubstr("board    three"))));
}

TEST(Shell, SaysWhatIsWrongAndGoesOn)
{
    using namespace std::string_literals;
    EXPECT_THAT(
        saidTo({"endpoint 0 foo", "broker kill", "no\0te one"s, "endpoints",
                "note on"}),
        AllOf(HasSubstr("\n\"foo\" is not possible after \"0\"; possible: "),
              HasSubstr("\n\"broker kill\" does not exist on the target "
                        "simulated; it does on service, virtual\n"),
              HasSubstr("\nthe line has a null byte; commands are plain text: "
                        "save them as UTF-8\n"),
              HasSubstr("\ncannot read the endpoints at "
                        "/xyz/openbmc_project/mctp/0: "),
              HasSubstr("board    on\n")));
}

TEST(Shell, ChangesTheHostAndNotesAStateThatNoHostIsIn)
{
    EXPECT_THAT(saidTo({"host Running", "power StateS5", "reset WarmReset"}),
                AllOf(HasSubstr("host     CurrentHostState is Running\n"),
                      HasSubstr("host     InternalPowerState is StateS5, "
                                "announced\n"),
                      HasSubstr("host     ResetCause is WarmReset, "
                                "announced\n"),
                      Not(HasSubstr("is no state"))));
    EXPECT_THAT(saidTo({"host Runing"}),
                AllOf(HasSubstr("board    \"Runing\" is no state of a host "
                                "that is known; the daemon takes it for off."
                                "\n"),
                      HasSubstr("host     CurrentHostState is Runing\n")));
}

TEST(Shell, ShowsTheKernelsTree)
{
    EXPECT_THAT(
        saidTo({"endpoint 1 eid 0x42", "tree"}),
        AllOf(HasSubstr("\n    fff10000.i3c -> "),
              HasSubstr("\n/sys/class/i3c-mctp\n    i3c-mctp-0 -> "),
              HasSubstr("\n/dev\n    i3c-mctp-0\n    i3c-mctp-1\n"),
              HasSubstr("\ncontroller 0  fff10000.i3c, bound, /dev/i3c-mctp-0, "
                        "endpoint 29 (0x1d)\n"),
              HasSubstr("\ncontroller 1  fff11000.i3c, bound, /dev/i3c-mctp-1, "
                        "endpoint 66 (0x42)\n")));
}

TEST(Shell, RunsTheDaemonAndWaitsForWhatItDoes)
{
    EXPECT_THAT(
        saidTo({"loglevel 2", "daemon start", "wait ready", "daemon status",
                "daemon start", "daemon term", "wait log term", "daemon term",
                "wait exit", "expect exit 0", "expect exit SIGKILL",
                "expect no log term", "expect no log tree", "daemon status"},
               patient),
        AllOf(HasSubstr("daemon   says READY=1\n"),
              HasSubstr("log      morrow:1  level 2\n"),
              HasSubstr("\nThe daemon runs, process "),
              HasSubstr("\ncannot start the daemon: it runs already\n"),
              HasSubstr("> expect exit 0\n"),
              HasSubstr("\nthe daemon ended with 0\n"),
              HasSubstr("\nthe daemon has logged \"term\"\n"),
              Not(HasSubstr("has logged \"tree\"")),
              HasSubstr("\nThe daemon does not run.\n")));
}

TEST(Shell, StopsADaemonThatHasNoBusName)
{
    EXPECT_THAT(
        saidTo({"daemon stop", "daemon start", "wait ready", "daemon stop",
                "expect exit 0x00", "expect exit 000", "daemon stop"},
               patient),
        AllOf(HasSubstr("> daemon stop\ncannot stop the daemon: it does not "
                        "run\n"),
              HasSubstr("daemon   ended with status 0\n"),
              Not(HasSubstr("\nthe daemon ended with")),
              EndsWith("> daemon stop\ncannot stop the daemon: it does not "
                       "run\nThe board has ended; nothing is left behind.\n")));
}

TEST(Shell, SaysHowToEndADaemonThatDoesNotStop)
{
    EXPECT_THAT(
        saidTo({"timeout 200", "daemon start", "wait log here", "daemon stop"},
               "trap '' TERM\n"
               "echo 'dlog 4 324 morrow:1:here'\n"
               "while :; do sleep 0.01; done"),
        AllOf(HasSubstr("\nno end of the daemon within 200 ms; it "
                        "hangs: "),
              HasSubstr("; \"daemon term\" sends it another SIGTERM, "
                        "\"daemon kill\" ends it\n")));
}

TEST(Shell, WaitsOnFromWhereItWasWhenAStartIsRefused)
{
    EXPECT_THAT(saidTo({"daemon start", "wait log one", "daemon start",
                        "timeout 500", "wait log two"},
                       "printf 'dlog 4 324 morrow:1:one\\ndlog 4 324 "
                       "morrow:1:two\\n'\n"
                       "while :; do sleep 0.01; done"),
                AllOf(HasSubstr("\ncannot start the daemon: it runs already\n"),
                      Not(HasSubstr("no log record"))));
}

TEST(Shell, WaitsInOrderFromTheEndOfTheLastWait)
{
    const auto said =
        saidTo({"timeout 100", "daemon start", "wait log two", "wait exit",
                "wait log one", "from now", "wait exit"},
               "echo dlog 4 324 morrow:1:one\n"
               "echo dlog 4 324 morrow:1:two");
    EXPECT_THAT(said,
                AllOf(HasSubstr("\nno log record with \"one\": the daemon does "
                                "not run\n"),
                      HasSubstr("\nno end of the daemon: the daemon does not "
                                "run\n")));
}

TEST(Shell, KillsTheDaemonAndReportsTheSignal)
{
    EXPECT_THAT(
        saidTo({"expect exit 0", "daemon start", "expect exit 0", "daemon kill",
                "wait exit", "expect exit SIGKILL", "expect exit 0"},
               patient),
        AllOf(HasSubstr("\nthe daemon was never started\n"),
              HasSubstr("\nthe daemon has not ended\n"),
              HasSubstr("\nthe daemon ended with SIGKILL\n")));
}

TEST(Shell, EndsAWaitAtItsTimeout)
{
    EXPECT_THAT(
        saidTo({"timeout 50", "daemon start", "wait published 29",
                "wait withdrawn 0x1d", "wait bind 0", "wait unbind 1",
                "wait up 0", "wait down 1"},
               patient),
        AllOf(
            HasSubstr("\nno announcement of endpoint 29 within 50 ms; the "
                      "daemon is at: "),
            HasSubstr("\nno withdrawal of endpoint 0x1d within 50 ms"),
            HasSubstr("\nno bind of fff10000.i3c within 50 ms"),
            HasSubstr("\nno unbind of fff11000.i3c within 50 ms"),
            HasSubstr("\nno coming up of the device of fff10000.i3c within "),
            HasSubstr("\nno end of the device of fff11000.i3c within 50 ms")));
}

TEST(Shell, PausesHelpsAndShowsTheLastEvents)
{
    const auto before = std::chrono::steady_clock::now();
    EXPECT_THAT(
        saidTo({"pause 50", "help quit", "help foo", "note one", "timeline 2"}),
        AllOf(HasSubstr("\n  quit                            End the "
                        "board; nothing is left behind.\n"),
              HasSubstr("\n\"foo\" is not possible; possible: "),
              MatchesRegex("(.|\n)*ms  who      what\n"
                           "[ 0-9.]+  board    one\n"
                           "[ 0-9.]+  board    > timeline 2\n(.|\n)*")));
    EXPECT_GE(std::chrono::steady_clock::now() - before,
              std::chrono::milliseconds(50));
}

TEST(Shell, EndsInterruptedWhereNobodyTypes)
{
    Program program(shellWith(patient));
    program.tell("daemon start\nwait exit\nnote after");
    ASSERT_TRUE(program.reads("level"));
    program.signal(SIGINT);
    EXPECT_EQ(program.end(), 130);
    EXPECT_THAT(program.output, Not(HasSubstr("board    after")));
    EXPECT_EQ(lastLine(program.output),
              "Interrupted; nothing is left behind.\n");
}

TEST(Play, EndsWithAPass)
{
    Program program(playing("# a life\n\ndaemon start\nwait ready\n"
                            "daemon term\nwait log term\ndaemon term\n"
                            "wait exit\nexpect exit 0\n",
                            patient));
    EXPECT_EQ(program.end(), 0);
    EXPECT_THAT(lastLine(program.output),
                MatchesRegex("PASS a \\([0-9.]+ s\\)\n"));
    EXPECT_THAT(program.output, HasSubstr("board    > wait ready\n"));
}

TEST(Play, EndsAtTheFirstCommandThatFails)
{
    Program program(
        playing("daemon start\n  wait exit\nexpect exit 0\nnote on"));
    EXPECT_EQ(program.end(), 1);
    EXPECT_EQ(lastLine(program.output),
              "FAIL /mnt/a.board:3: expect exit 0: the "
              "daemon ended with 3\n");
    EXPECT_THAT(program.output, Not(HasSubstr("board    on")));
}

TEST(Play, IsRefusedAsParsingIs)
{
    auto arguments = playing("note one\n\nwait log\n");
    for (const auto* option : {"--play", "--parse"})
    {
        *(arguments.end() - 2) = option;
        Program program(arguments);
        EXPECT_EQ(program.end(), 1);
        EXPECT_EQ(
            program.output,
            "morrow-board: /mnt/a.board:3: \"wait log\" is not all; after "
            "it: TEXT\n");
    }
}

TEST(Play, IsRefusedForAnotherTarget)
{
    Program program(playing("targets service\nbroker kill\n"));
    EXPECT_EQ(program.end(), 1);
    EXPECT_EQ(program.output,
              "morrow-board: a: it is for the targets service alone: run it "
              "with scripts/scenarios\n");
}

TEST(Play, ReadsStandardInput)
{
    Program program(plus(withDaemon("exit 3"), {"--play", "-"}));
    program.tell("note one\nexpect exit 0");
    EXPECT_EQ(program.end(), 1);
    EXPECT_EQ(lastLine(program.output),
              "FAIL standard input:2: expect exit 0: the daemon was never "
              "started\n");
}

TEST(Play, ExcludesTheShell)
{
    Program program({"--shell", "--play", "-"});
    EXPECT_EQ(program.end(), 2);
}

TEST(Parse, PrintsJson)
{
    Program program({"--parse", "-"});
    program.tell("targets virtual\nboot Running");
    EXPECT_EQ(program.end(), 0);
    EXPECT_EQ(program.output,
              R"({"file":"standard input","targets":["virtual"],"commands":)"
              R"([{"line":2,"text":"boot Running","command":"boot STATE",)"
              R"("arguments":["Running"]}]})"
              "\n");
}

constexpr auto prompt = "morrow> ";

// A key that the terminal itself has a meaning for (Ctrl-D) is typed at the
// prompt only: while a command runs, the terminal takes it.

TEST(Prompt, CompletesWords)
{
    Terminal terminal(shellWith("exit 3"));
    ASSERT_TRUE(terminal.shows(prompt));
    terminal.types("da\t");
    ASSERT_TRUE(terminal.shows("emon "));
    terminal.types("st\t\t");
    ASSERT_TRUE(terminal.shows("start  stop  status"));
    ASSERT_TRUE(terminal.shows("morrow> daemon st"));
    terminal.types("ar\t\r");
    ASSERT_TRUE(terminal.shows("started, process"));
    terminal.types("quit\r");
    EXPECT_EQ(terminal.end(), 0);
}

TEST(Prompt, RemembersLines)
{
    Terminal terminal(shellWith("exit 3"));
    ASSERT_TRUE(terminal.shows(prompt));
    terminal.types("note on\r");
    ASSERT_TRUE(terminal.shows("board    on"));
    ASSERT_TRUE(terminal.shows(prompt));
    terminal.types("\033[Ace\r"); // the key up, and two letters more
    ASSERT_TRUE(terminal.shows("board    once"));
    ASSERT_TRUE(terminal.shows(prompt));
    EXPECT_EQ(terminal.endAfter("\004"), 0) << terminal.output;
}

TEST(Prompt, KeepsTheLineThatIsTypedBelowWhatHappens)
{
    Terminal terminal(shellWith("sleep 0.2; exit 3"));
    ASSERT_TRUE(terminal.shows(prompt));
    terminal.types("daemon start\rnote on");
    ASSERT_TRUE(terminal.shows("ended with status 3"));
    ASSERT_TRUE(terminal.shows("morrow> note on"));
    terminal.types("ce\r");
    ASSERT_TRUE(terminal.shows("board    once"));
    ASSERT_TRUE(terminal.shows(prompt));
    EXPECT_EQ(terminal.endAfter("\004"), 0) << terminal.output;
}

TEST(Prompt, EndsAWaitAndALineWithCtrlC)
{
    Terminal terminal(shellWith(patient));
    ASSERT_TRUE(terminal.shows(prompt));
    terminal.types("daemon start\r");
    ASSERT_TRUE(terminal.shows(prompt));
    // Too early while the wait has not begun.
    ASSERT_TRUE(terminal.showsAfter({"wait exit\r", "\003"}, "Interrupted."));
    ASSERT_TRUE(terminal.shows(prompt));
    terminal.types("note nothing");
    ASSERT_TRUE(terminal.shows("note nothing"));
    terminal.types("\003");
    ASSERT_TRUE(terminal.shows("^C"));
    ASSERT_TRUE(terminal.shows(prompt));
    terminal.types("note something\r");
    ASSERT_TRUE(terminal.shows("board    something"));
    ASSERT_TRUE(terminal.shows(prompt));
    EXPECT_EQ(terminal.endAfter("\004"), 0) << terminal.output;
    EXPECT_THAT(terminal.output, Not(HasSubstr("board    nothing")));
}

TEST(Prompt, EndsWithTheTerminal)
{
    Terminal terminal(shellWith(patient));
    ASSERT_TRUE(terminal.shows(prompt));
    terminal.types("daemon start\r");
    ASSERT_TRUE(terminal.shows("READY=1"));
    kill(terminal.id(), SIGHUP);
    EXPECT_EQ(terminal.end(), 130);
    EXPECT_THAT(terminal.output,
                HasSubstr("Interrupted; nothing is left behind."));
}

} // namespace
