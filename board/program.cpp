// SPDX-License-Identifier: Apache-2.0
#include "board/program.hpp"

#include "board/commands/line_editor.hpp"
#include "board/commands/piped_lines.hpp"
#include "board/commands/scenario.hpp"
#include "board/commands/shell.hpp"
#include "board/process/client.hpp"
#include "board/process/interruption.hpp"
#include "board/process/sandbox.hpp"
#include "board/timeline/saved_timeline.hpp"
#include "board/util/plain_text.hpp"
#include "board/util/standard_streams.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

namespace board
{
namespace
{

// What a client finds by default: the host runs, its state service is there,
// and the daemon has published both endpoints.
constexpr auto clientsBoard = "host Running\n"
                              "daemon start\n"
                              "wait published 29\n"
                              "wait published 157\n"
                              "expect endpoints 29 157\n";

struct Verdict
{
    int status = static_cast<int>(Status::failed);
    std::string line; //!< empty: there is nothing to say
};

/** Drives a new board to the end. */
using Drive = std::function<Verdict(Board&)>;

/** "4.9 s" */
std::string secondsOf(Time time)
{
    std::array<char, 64> text{};
    static_cast<void>(
        std::snprintf(text.data(), text.size(), "%.1f s",
                      std::chrono::duration<double>(time).count()));
    return text.data();
}

/** @param name that of the scenario */
Verdict verdictOf(Timeline& timeline, const ProgramOptions& options,
                  const std::string& name, const Drive& drive)
{
    try
    {
        Board board(timeline, options.board);
        return drive(board);
    }
    catch (const Interrupted&)
    {
        return {static_cast<int>(Status::interrupted),
                "Interrupted; nothing is left behind."};
    }
    catch (const commands::CommandFailed& failure)
    {
        return {static_cast<int>(Status::failed),
                std::string("FAIL ") + failure.what()};
    }
    catch (const std::exception& error)
    {
        if (!options.client.empty())
        {
            return {client_status::noBoard, error.what()};
        }
        return {static_cast<int>(Status::failed),
                "FAIL " + name + ": " + error.what()};
    }
}

/** Standard output is the client's, so what the board says goes elsewhere. */
void complain(const std::string& what)
{
    to(stderr)("morrow-board: " + withoutControls(what, "\t") + "\n");
}

void show(const Verdict& verdict, const ProgramOptions& options)
{
    if (!options.client.empty())
    {
        if (!verdict.line.empty())
        {
            complain(verdict.line);
        }
        return;
    }
    const std::string colour(verdict.status == static_cast<int>(Status::passed)
                                 ? "\033[1;32m"
                                 : "\033[1;31m");
    const auto line = withoutControls(verdict.line, "\t");
    to(stdout)((options.style.colour ? colour + line + "\033[0m" : line) +
               "\n");
}

/** Whether saving would overwrite the scenario itself, by any name. */
bool isScenario(const std::filesystem::path& save, const std::string& play)
{
    std::error_code none; // what is not there is no scenario
    return std::filesystem::is_regular_file(save, none) &&
           std::filesystem::equivalent(save, play == "-" ? "/dev/stdin" : play,
                                       none);
}

std::optional<SaveFile> saveFileOf(const ProgramOptions& options)
{
    if (options.save.empty())
    {
        return {};
    }
    if (!options.play.empty() && isScenario(options.save, options.play))
    {
        throw Error("cannot save the timeline in " + options.save +
                    ": it is the scenario; name another file with --save");
    }
    return SaveFile(options.save);
}

std::optional<commands::Scenario> scenarioOf(const ProgramOptions& options)
{
    if (options.shell)
    {
        return {};
    }
    if (options.play.empty() && !options.client.empty())
    {
        return commands::Scenario("built in", clientsBoard);
    }
    auto scenario = commands::Scenario::of(
        options.play.empty() ? options.board.installation.scenario.string()
                             : options.play);
    if ((scenario.targets() & commands::target::simulated) == 0)
    {
        throw Error(scenario.name() + ": it is for the targets " +
                    commands::namesOf(scenario.targets()) +
                    " alone: run it with scripts/scenarios");
    }
    return scenario;
}

bool isTerminal()
{
    const auto* const kind = std::getenv("TERM");
    return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1 &&
           kind != nullptr && std::string_view(kind) != "dumb";
}

std::unique_ptr<commands::Lines> linesAt(bool terminal,
                                         const Interruption& interruption)
{
    if (terminal)
    {
        return std::make_unique<commands::LineEditor>(interruption);
    }
    return std::make_unique<commands::PipedLines>(interruption);
}

/** Where the timeline is shown, and what the board answers. */
Write writeOf(const ProgramOptions& options, commands::Lines& lines)
{
    if (options.client.empty())
    {
        return [&lines](const std::string& text)
        {
            lines.write(text);
        };
    }
    return options.style.everything ? to(stderr) : [](const std::string&) {};
}

Verdict byClient(commands::Session& session, const ProgramOptions& options,
                 const commands::Scenario& scenario, Interruption& interruption)
try
{
    scenario.play(session);
    auto& daemon = session.board().daemon();
    const auto hadDaemon = daemon.running();
    const auto status =
        runClient(session.board(), options.client, interruption);
    if (hadDaemon && !daemon.running())
    {
        complain("the daemon ended while the client ran; --verbose shows how");
    }
    return {status, ""};
}
catch (const commands::CommandFailed& failure)
{
    throw Error(std::string("the board does not get ready for the client: ") +
                failure.what() + "; --verbose shows what happened");
}
catch (const CannotRun& failure)
{
    return {failure.error() == ENOENT ? client_status::notFound
                                      : client_status::cannotRun,
            failure.what()};
}

Verdict drive(commands::Session& session, const ProgramOptions& options,
              const std::optional<commands::Scenario>& scenario,
              commands::Lines& lines, Interruption& interruption)
{
    if (!options.client.empty())
    {
        return byClient(session, options, *scenario, interruption);
    }
    constexpr auto passed = static_cast<int>(Status::passed);
    if (options.shell)
    {
        runShell(session, lines, interruption);
        return {passed, "The board has ended; nothing is left behind."};
    }
    scenario->play(session);
    return {passed, "PASS " + scenario->name() + " (" +
                        secondsOf(session.board().timeline().now()) + ")"};
}

} // namespace

int run(const ProgramOptions& options)
{
    // Files are opened before the sandbox hides what the user sees; that of an
    // earlier timeline is emptied only once there is a scenario to play.
    const auto scenario = scenarioOf(options);
    auto file = saveFileOf(options);
    const auto prompts = options.shell && isTerminal();
    sandbox::enter();
    Timeline timeline;
    Interruption interruption(timeline, prompts ? Interruption::CtrlC::breaksOff
                                                : Interruption::CtrlC::ends);
    const auto lines = linesAt(prompts, interruption);
    const auto write = writeOf(options, *lines);
    std::optional<SavedTimeline> saved;
    if (file)
    {
        saved.emplace(timeline, *std::move(file));
    }
    Verdict verdict;
    {
        auto style = options.style;
        style.details = !prompts;
        Follower printer(timeline, printing(write, style));
        const auto say = [&](const std::string& text)
        {
            printer.catchUp();
            write(text);
        };
        verdict = verdictOf(
            timeline, options, scenario ? scenario->name() : "shell",
            [&](Board& board)
            {
                commands::Session session(board, say);
                return drive(session, options, scenario, *lines, interruption);
            });
    }
    if (!options.client.empty())
    {
        sandbox::endOthers();
    }
    show(verdict, options);
    if (saved)
    {
        saved->finish();
    }
    return verdict.status;
}

void parseScenario(const std::string& file)
{
    put(stdout, commands::Scenario::of(file).asJson() + "\n");
}

} // namespace board
