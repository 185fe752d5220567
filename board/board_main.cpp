// SPDX-License-Identifier: Apache-2.0
#include "board/board.hpp"
#include "board/interruption.hpp"
#include "board/printer.hpp"
#include "board/sandbox.hpp"
#include "board/saved_timeline.hpp"
#include "board/story.hpp"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <utility>

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
    "SIGTERMs end the daemon. This takes about four seconds.\n"
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
    "  morrow-board --daemon build/morrow/morrow --policy "
    "packaging/dbus/xyz.openbmc_project.mctp.conf\n";

constexpr int asTold = 0;
constexpr int differed = 1;
constexpr int wrongUsage = 2;
constexpr int wasInterrupted = 130;

struct Options
{
    board::BoardOptions board;
    board::PrintStyle style;
    std::string save; //!< the file to save the timeline in; may be empty
};

bool wantsColour()
{
    const auto* const refused = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 &&
           (refused == nullptr || *refused == '\0');
}

struct Verdict
{
    int status = differed;
    std::string line;
};

Verdict play(board::Timeline& timeline, const Options& options)
{
    try
    {
        board::Board board(timeline, options.board);
        return {asTold, playStory(board)};
    }
    catch (const board::Interrupted&)
    {
        return {wasInterrupted, "Interrupted; nothing is left behind."};
    }
    catch (const std::exception& error)
    {
        return {differed, std::string("Not as told: ") + error.what() + "."};
    }
}

/** The file is opened before the sandbox hides what the user sees. */
std::optional<board::SaveFile> saveFile(const Options& options)
{
    if (options.save.empty())
    {
        return {};
    }
    return board::SaveFile(options.save);
}

Verdict playAndSave(board::Timeline& timeline, const Options& options,
                    std::optional<board::SaveFile> file)
{
    if (!file)
    {
        return play(timeline, options);
    }
    board::SavedTimeline saved(timeline, *std::move(file));
    auto verdict = play(timeline, options);
    saved.finish();
    return verdict;
}

int run(const Options& options)
{
    auto file = saveFile(options);
    board::sandbox::enter();
    board::Timeline timeline;
    const board::Interruption interruption(timeline);
    Verdict verdict;
    {
        const board::Printer printer(timeline, board::to(stdout),
                                     options.style);
        verdict = playAndSave(timeline, options, std::move(file));
    }
    const auto* const colour =
        verdict.status == asTold ? "\033[1;32m" : "\033[1;31m";
    static_cast<void>(
        options.style.colour
            ? std::printf("%s%s\033[0m\n", colour, verdict.line.c_str())
            : std::printf("%s\n", verdict.line.c_str()));
    return verdict.status;
}

} // namespace

int main(int argc, char** argv)
try
{
    Options options;
    options.board.installation = board::Installation::ofThisProgram();
    options.style.colour = wantsColour();

    CLI::App app(about, "morrow-board");
    app.footer(notes);
    app.add_option("--daemon", options.board.installation.daemon,
                   "the daemon to run, instead of the installed one")
        ->type_name("FILE");
    app.add_option("--policy", options.board.installation.policy,
                   "its bus policy, instead of the installed one")
        ->type_name("FILE");
    app.add_option("--save", options.save,
                   "save the timeline in this file, an event a line, as JSON")
        ->type_name("FILE");
    app.add_flag("-v,--verbose", options.style.everything,
                 "show every log record, and every opening of a node");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == 0 ? asTold : wrongUsage;
    }
    return run(options);
}
catch (const std::exception& error)
{
    static_cast<void>(std::fprintf(stderr, "morrow-board: %s\n", error.what()));
    return differed;
}
