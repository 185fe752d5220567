// SPDX-License-Identifier: Apache-2.0
#include "board/process/client.hpp"
#include "board/program.hpp"
#include "board/util/plain_text.hpp"
#include "board/util/standard_streams.hpp"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace
{

constexpr auto about =
    R"(Run the unmodified daemon on a simulated board and watch it: a private
system bus, an I3C driver with two controllers, the MCTP endpoints behind
them and the host.

It plays a scenario, power-cycle by default: the daemon starts, the host
runs, both endpoints are published, the host goes off and runs again, the
daemon is stopped. With --shell you give the commands; "help" lists them.

With a COMMAND, a client of the daemon or its tests, it runs that against a
board: inside it, as root there, with the host running and both endpoints
published, or as --play FILE leaves it. Nothing else is shown; --verbose
shows the timeline on standard error.

No right is needed where the system allows user namespaces and FUSE, and
nothing is left behind, however it ends.)";

constexpr auto notes = R"(
Exit status: 0 passed, 1 failed, 2 wrong usage, 130 interrupted. With a
COMMAND it is that of COMMAND, 128+N after signal N, or 125 no board, 126
COMMAND cannot be run, 127 it is not found.
NO_COLOR in the environment turns colour off.

Examples:
  morrow-board
  morrow-board --verbose | less
  morrow-board --save timeline.jsonl
  morrow-board --shell
  echo 'help' | morrow-board --shell
  morrow-board -- busctl tree xyz.openbmc_project.mctp
  morrow-board --daemon build/morrow/morrow \
      --policy packaging/dbus/xyz.openbmc_project.mctp.conf
)";

bool wantsColour(int fd)
{
    const auto* const refused = std::getenv("NO_COLOR");
    return isatty(fd) == 1 && (refused == nullptr || *refused == '\0');
}

/** Takes the client's command, which begins after "--", off the arguments. */
std::vector<std::string> takeClient(std::vector<std::string>& arguments)
{
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    if (mark == arguments.end())
    {
        return {};
    }
    std::vector<std::string> client(std::next(mark), arguments.end());
    arguments.erase(mark, arguments.end());
    if (client.empty() || client.front().empty())
    {
        throw CLI::RequiredError("COMMAND after --");
    }
    return client;
}

/** A reader that is gone and a full file are failed writes, which are reported
 *  or do not matter; the board goes on. */
void keepGoingOnFailedWrites()
{
    for (const auto number : {SIGPIPE, SIGXFSZ})
    {
        // Fails for no such number.
        static_cast<void>(std::signal(number, SIG_IGN));
    }
}

/** The usage has a command at its end, which is no argument of an option. */
class Formatter : public CLI::Formatter
{
  public:
    Formatter()
    {
        constexpr std::size_t descriptions = 18;
        column_width(descriptions);
    }

    std::string make_usage(const CLI::App* /*app*/,
                           std::string name) const override
    {
        return "Usage: " + name + " [OPTIONS] [-- COMMAND [ARGUMENT...]]\n";
    }
};

void addOptions(CLI::App& app, board::ProgramOptions& options)
{
    const auto addFile =
        [&app](const std::string& name, auto& file, const std::string& help)
    {
        // An empty name is e.g. that of a variable that is not set.
        app.add_option(name, file, help)
            ->type_name("FILE")
            ->check(
                [](const std::string& given) -> std::string
                {
                    return given.empty() ? "the name of a file is missing" : "";
                });
    };
    app.set_version_flag("--version", "morrow-board " VERSION,
                         "print the version and exit");
    addFile("--daemon", options.board.installation.daemon,
            "the daemon to run, instead of the installed one");
    addFile("--policy", options.board.installation.policy,
            "its bus policy, instead of the installed one");
    addFile("--play", options.play,
            "play the scenario in this file, or on standard input: -");
    app.add_flag("--shell", options.shell,
                 "take commands at a prompt, or from a pipe");
    addFile("--parse", options.parse,
            "print the scenario in this file as JSON, and exit");
    addFile("--save", options.save,
            "save the timeline in this file, an event a line, as JSON");
    app.add_flag("-v,--verbose", options.style.everything,
                 "show every log record, and every opening of a node");
}

/** @throws CLI::ParseError when the usage is wrong, or help is asked for */
void parse(CLI::App& app, std::vector<std::string> arguments,
           board::ProgramOptions& options)
{
    options.client = takeClient(arguments);
    std::reverse(arguments.begin(), arguments.end()); // as the parser wants it
    app.parse(std::move(arguments));
    if (options.shell && !(options.play.empty() && options.client.empty()))
    {
        throw CLI::ExcludesError("--shell",
                                 options.play.empty() ? "COMMAND" : "--play");
    }
    options.style.colour =
        wantsColour(options.client.empty() ? STDOUT_FILENO : STDERR_FILENO);
}

/** Shows the help that was asked for, or what is wrong with the usage.
 *  @return the exit status */
int refuse(const CLI::App& app, const CLI::ParseError& error)
{
    std::ostringstream help;
    std::ostringstream wrong;
    const auto isHelp = app.exit(error, help, wrong) == 0;
    board::put(stdout, help.str());
    static_cast<void>(
        std::fputs(board::withoutControls(wrong.str()).c_str(), stderr));
    return static_cast<int>(isHelp ? board::Status::passed
                                   : board::Status::wrongUsage);
}

/** @return the exit status */
int runAsAsked(std::vector<std::string> arguments,
               board::ProgramOptions& options)
{
    keepGoingOnFailedWrites();
    board::occupyClosedDescriptors();
    options.board.installation = board::Installation::ofThisProgram();
    CLI::App app(about, "morrow-board");
    app.formatter(std::make_shared<Formatter>());
    app.footer(notes);
    addOptions(app, options);
    int status = 0;
    try
    {
        parse(app, std::move(arguments), options);
        if (options.parse.empty())
        {
            status = run(options);
        }
        else
        {
            board::parseScenario(options.parse);
        }
    }
    catch (const CLI::ParseError& error)
    {
        status = refuse(app, error);
    }
    board::verifyStandardOutput();
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    board::ProgramOptions options;
    try
    {
        return runAsAsked({argv + std::min(argc, 1), argv + argc}, options);
    }
    catch (const std::exception& error)
    {
        const auto line = board::withoutControls(error.what(), "\t");
        static_cast<void>(
            std::fprintf(stderr, "morrow-board: %s\n", line.c_str()));
        return options.client.empty() ? static_cast<int>(board::Status::failed)
                                      : board::client_status::noBoard;
    }
}
