// SPDX-License-Identifier: Apache-2.0
#include "board/plain_text.hpp"
#include "board/program.hpp"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>

namespace
{

constexpr auto about =
    "Play the daemon's life on a simulated board and watch it: a private\n"
    "system bus, an I3C driver with two controllers, the MCTP endpoints "
    "behind\n"
    "them and the host. The daemon is the installed one, unmodified.\n"
    "\n"
    "The host is off; the daemon gets ready; the host runs; two endpoints are\n"
    "discovered and published; the host goes off; they are withdrawn; two\n"
    "SIGTERMs end the daemon. This takes about four seconds. Or tell the\n"
    "story yourself: by hand with --shell, from a file with --play; the "
    "command\n"
    "\"help\" tells the words.\n"
    "\n"
    "No right is needed where the system allows user namespaces and FUSE, and\n"
    "nothing is left behind, however it ends.";

constexpr auto notes =
    "\nExit status: 0 all went as told, 1 it did not or could not, 2 wrong\n"
    "usage, 130 interrupted. NO_COLOR in the environment turns colour off.\n"
    "\n"
    "Examples:\n"
    "  morrow-board\n"
    "  morrow-board --verbose | less\n"
    "  morrow-board --save timeline.jsonl\n"
    "  morrow-board --shell\n"
    "  echo 'help' | morrow-board --shell\n"
    "  morrow-board --daemon build/morrow/morrow --policy "
    "packaging/dbus/xyz.openbmc_project.mctp.conf\n";

/** Refuses a name that is empty, e.g. that of a variable that is not set. */
CLI::Validator named()
{
    return {[](const std::string& name) -> std::string
            {
                return name.empty() ? "the name of a file is missing" : "";
            },
            ""};
}

bool wantsColour()
{
    const auto* const refused = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 &&
           (refused == nullptr || *refused == '\0');
}

/** A reader that is gone and a file that is full are failed writes, which are
 *  told or do not matter; the board goes on. */
void keepGoingOnFailedWrites()
{
    for (const auto number : {SIGPIPE, SIGXFSZ})
    {
        // Fails for no such number.
        static_cast<void>(std::signal(number, SIG_IGN));
    }
}

int status(board::Status status)
{
    return static_cast<int>(status);
}

/** Shows the help that was asked for, or what is wrong with the usage. */
board::Status refuse(const CLI::App& app, const CLI::ParseError& error)
{
    std::ostringstream help;
    std::ostringstream wrong;
    const auto isHelp = app.exit(error, help, wrong) == 0;
    static_cast<void>(std::fputs(help.str().c_str(), stdout));
    static_cast<void>(
        std::fputs(board::withoutControls(wrong.str()).c_str(), stderr));
    return isHelp ? board::Status::asTold : board::Status::wrongUsage;
}

} // namespace

int main(int argc, char** argv)
try
{
    keepGoingOnFailedWrites();
    board::ProgramOptions options;
    options.board.installation = board::Installation::ofThisProgram();
    options.style.colour = wantsColour();

    CLI::App app(about, "morrow-board");
    app.footer(notes);
    app.add_option("--daemon", options.board.installation.daemon,
                   "the daemon to run, instead of the installed one")
        ->type_name("FILE")
        ->check(named());
    app.add_option("--policy", options.board.installation.policy,
                   "its bus policy, instead of the installed one")
        ->type_name("FILE")
        ->check(named());
    auto* const play = app.add_option(
        "--play", options.play,
        "play the story in this file instead, or on standard input: -");
    play->type_name("FILE")->check(named());
    app.add_flag("--shell", options.shell,
                 "drive the board by hand instead: a prompt, or commands from "
                 "a pipe")
        ->excludes(play);
    app.add_option("--save", options.save,
                   "save the timeline in this file, an event a line, as JSON")
        ->type_name("FILE")
        ->check(named());
    app.add_flag("-v,--verbose", options.style.everything,
                 "show every log record, and every opening of a node");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return status(refuse(app, error));
    }
    return status(run(options));
}
catch (const std::exception& error)
{
    const auto line = board::withoutControls(error.what(), "\t");
    static_cast<void>(std::fprintf(stderr, "morrow-board: %s\n", line.c_str()));
    return status(board::Status::differed);
}
