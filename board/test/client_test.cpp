// SPDX-License-Identifier: Apache-2.0

/**
 * Clients that morrow-board runs against a board. Most of them need no daemon:
 * a scenario that does nothing leaves them a board without one.
 */

#include "board/test/program.hpp"
#include "board/test/terminal.hpp"

#include <csignal>
#include <fstream>
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
using testing::StartsWith;

/** Runs a client on a board without a daemon. */
std::vector<std::string> without(const std::vector<std::string>& options,
                                 const std::vector<std::string>& client)
{
    return plus(plus(playing("note prepared\n"), options),
                plus({"--"}, client));
}

/** Runs a shell script as the client. */
std::vector<std::string> client(const std::string& script)
{
    return without({}, {"sh", "-c", script});
}

TEST(Client, HasTheStreamsAndNothingElseIsShown)
{
    Program program(client("cat; echo error >&2"));
    program.tell("line");
    EXPECT_EQ(program.end(), 0);
    EXPECT_EQ(program.output, "line\nerror\n");
}

TEST(Client, GivesItsExitStatusOn)
{
    EXPECT_EQ(Program(client("exit 7")).end(), 7);
    EXPECT_EQ(Program(client("exit 255")).end(), 255);
    EXPECT_EQ(Program(client("kill -SEGV $$")).end(), 128 + SIGSEGV);
}

TEST(Client, TakesItsArgumentsAsTheyAre)
{
    Program program(without({}, {"sh", "-c", "printf '[%s]' \"$@\"; echo", "sh",
                                 "--shell", "", "a b", "--", "-v"}));
    EXPECT_EQ(program.end(), 0);
    EXPECT_EQ(program.output, "[--shell][][a b][--][-v]\n");
}

TEST(Client, HasTheDescriptorsThatTheBoardWasGiven)
{
    Program program(client("cat <&3; ls /proc/self/fd | wc -l"), {},
                    "exec 3<<END\nkept\nEND\nexec \"$@\"");
    EXPECT_EQ(program.end(), 0);
    // Beside the streams and that one, the directory that ls reads.
    EXPECT_EQ(program.output, "kept\n5\n");
}

TEST(Client, ThatCannotBeRunHasTheStatusOfAShell)
{
    Program missing(without({}, {"no-such-program"}));
    EXPECT_EQ(missing.end(), 127);
    EXPECT_EQ(missing.output, "morrow-board: cannot run no-such-program: No "
                              "such file or directory\n");
    Program none(without({}, {POLICY_FILE}));
    EXPECT_EQ(none.end(), 126);
    EXPECT_THAT(none.output, EndsWith(": Permission denied\n"));
}

TEST(Client, IsNotRunWithoutItsBoard)
{
    Program missing({"--daemon", "/no/such/daemon", "--policy", POLICY_FILE,
                     "--", "echo", "client"});
    EXPECT_EQ(missing.end(), 125);
    EXPECT_THAT(missing.output,
                AllOf(StartsWith("morrow-board: cannot find the daemon "),
                      Not(HasSubstr("client"))));
    Program ended(plus(withDaemon("exit 3"), {"--", "echo", "ran"}));
    EXPECT_EQ(ended.end(), 125);
    EXPECT_THAT(
        ended.output,
        AllOf(StartsWith("morrow-board: the board does not get ready for the "
                         "client: built in:3: wait published 29: no "
                         "announcement of endpoint 29: the daemon "),
              EndsWith("; --verbose shows what happened\n")));
}

TEST(Client, IsMissingAfterItsMark)
{
    Program nothing({"--"});
    EXPECT_EQ(nothing.end(), 2);
    EXPECT_THAT(nothing.output, StartsWith("COMMAND after -- is required\n"));
    Program unmarked({"busctl", "tree"});
    EXPECT_EQ(unmarked.end(), 2);
    Program shell({"--shell", "--", "true"});
    EXPECT_EQ(shell.end(), 2);
    EXPECT_THAT(shell.output, StartsWith("--shell excludes COMMAND\n"));
}

TEST(Client, FindsBothEndpointsAndARunningHost)
{
    Program program(
        {"--daemon", DAEMON_PROGRAM, "--policy", POLICY_FILE, "--", "sh", "-c",
         "set -e\n"
         "export SYSTEMD_PAGER=\n"
         "for eid in 29 157; do\n"
         "  busctl get-property xyz.openbmc_project.mctp "
         "/xyz/openbmc_project/mctp/0/$eid "
         "xyz.openbmc_project.mctp.Endpoint EID\n"
         "done\n"
         "busctl get-property xyz.openbmc_project.State.Host0 "
         "/xyz/openbmc_project/state/host0 xyz.openbmc_project.State.Host "
         "CurrentHostState\n"
         "busctl call xyz.openbmc_project.mctp / org.freedesktop.DBus.Peer "
         "Ping\n"
         "unset DBUS_SYSTEM_BUS_ADDRESS\n"
         "busctl --list tree xyz.openbmc_project.mctp | grep -c /0/\n"
         "ls /dev/i3c-mctp-*\n"
         "id -u; echo $PPID $MORROW_BOARD_PID; kill $PPID; sleep 60"});
    EXPECT_EQ(program.end(), 128 + SIGTERM);
    const auto id = std::to_string(program.id());
    EXPECT_EQ(program.output,
              "y 29\ny 157\n"
              "s \"xyz.openbmc_project.State.Host.HostState.Running\"\n"
              "2\n/dev/i3c-mctp-0\n/dev/i3c-mctp-1\n0\n" +
                  id + " " + id + "\n");
}

TEST(Client, IsFollowedByALineWhenTheDaemonHasEnded)
{
    Program program(plus(playing("daemon start\nwait log here\n",
                                 "echo $$ >/mnt/process\n"
                                 "echo 'dlog 4 324 morrow:1:here'\n"
                                 "while :; do sleep 0.01; done"),
                         {"--save", "/mnt/saved", "--", "sh", "-c",
                          "kill $(cat /mnt/process)\n"
                          "until grep -q '\"event\":\"exited\"' /mnt/saved; do "
                          "sleep 0.01; done\n"
                          "exit 7"}));
    EXPECT_EQ(program.end(), 7);
    EXPECT_EQ(program.output, "morrow-board: the daemon ended while the client "
                              "ran; --verbose shows how\n");
}

TEST(Client, IsOnTheTimeline)
{
    Program program(
        without({"--verbose", "--save", "/mnt/saved"}, {"sh", "-c", "exit 7"}));
    EXPECT_EQ(program.end(), 7);
    EXPECT_THAT(program.output,
                MatchesRegex("(.|\n)*  board    prepared\n"
                             "[ 0-9.]+  board    The client runs: sh\n"
                             "[ 0-9.]+  board    The client has ended with "
                             "status 7.\n"));
    std::string saved;
    std::getline(std::ifstream("/mnt/saved"), saved, '\0');
    EXPECT_THAT(saved, HasSubstr("The client has ended with status 7."));
}

TEST(Client, GetsTheSignalsThatTheBoardGets)
{
    for (const auto number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
    {
        Program dies(client("echo here; exec sleep 60"));
        ASSERT_TRUE(dies.reads("here"));
        dies.signal(number);
        EXPECT_EQ(dies.end(), 128 + number);
        Program leaves(client("trap 'exit 7' INT TERM HUP QUIT; echo here\n"
                              "while :; do sleep 0.01; done"));
        ASSERT_TRUE(leaves.reads("here"));
        leaves.signal(number);
        EXPECT_EQ(leaves.end(), 7);
    }
}

TEST(Client, ThatDoesNotEndIsKilled)
{
    Program program(client("trap '' TERM; echo here\n"
                           "while :; do sleep 0.01; done"));
    ASSERT_TRUE(program.reads("here"));
    program.signal(SIGTERM);
    EXPECT_EQ(program.end(), 128 + SIGKILL);
}

TEST(Client, IsNotRunWhenTheBoardIsInterruptedBefore)
{
    Program program(
        plus(withDaemon("echo 'dlog 4 324 morrow:1:here'; exec sleep 60"),
             {"--verbose", "--", "echo", "ran"}));
    ASSERT_TRUE(program.reads("here"));
    program.signal(SIGTERM);
    EXPECT_EQ(program.end(), 130);
    EXPECT_EQ(lastLine(program.output),
              "morrow-board: Interrupted; nothing is left behind.\n");
}

TEST(Client, LeavesNoProcessRunning)
{
    Program program(
        client("setsid sleep 60 >/dev/null 2>&1 & echo $!; exit 7"));
    EXPECT_EQ(program.end(), 7);
    EXPECT_TRUE(ends(std::stoi(program.output)));
}

TEST(Client, EndsWithABoardThatIsKilled)
{
    Program program(client("echo $$; exec sleep 60"));
    ASSERT_TRUE(program.reads(""));
    program.signal(SIGKILL);
    EXPECT_TRUE(ends(std::stoi(program.output)));
}

TEST(ClientAtATerminal, GetsEachCtrlCOnceAndDecidesWhatItMeans)
{
    Terminal terminal(client("trap 'count=$((count + 1)); echo caught $count' "
                             "INT\n"
                             "echo here\n"
                             "until read line; do :; done\n"
                             "echo \"read $line\"; exit 7"));
    ASSERT_TRUE(terminal.shows("here"));
    terminal.types("\003");
    ASSERT_TRUE(terminal.shows("caught 1"));
    terminal.types("line\r");
    ASSERT_TRUE(terminal.shows("read line"));
    EXPECT_EQ(terminal.end(), 7);
    EXPECT_THAT(terminal.output, Not(HasSubstr("caught 2")));
}

TEST(ClientAtATerminal, EndsWithCtrlCUnlessItSaysOtherwise)
{
    Terminal terminal(client("echo here; exec sleep 60"));
    ASSERT_TRUE(terminal.shows("here"));
    terminal.types("\003");
    EXPECT_EQ(terminal.end(), 128 + SIGINT);
}

TEST(ClientAtATerminal, IsNotRunAfterACtrlCThatComesBeforeIt)
{
    // The board shows more than a terminal holds, so it has not come to the
    // client yet when the first part of it is read.
    std::string scenario;
    for (auto count = 0; count < 50; ++count)
    {
        scenario += "help\n";
    }
    Terminal terminal(
        plus(playing(scenario), {"--verbose", "--", "echo", "the client ran"}));
    ASSERT_TRUE(terminal.shows("End the board"));
    terminal.types("\003");
    EXPECT_EQ(terminal.end(), 130);
    EXPECT_THAT(terminal.output,
                AllOf(EndsWith("Interrupted; nothing is left behind.\r\n"),
                      Not(HasSubstr("the client ran\r\n"))));
}

} // namespace
