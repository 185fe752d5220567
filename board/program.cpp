// SPDX-License-Identifier: Apache-2.0
#include "board/program.hpp"

#include "board/interruption.hpp"
#include "board/plain_text.hpp"
#include "board/sandbox.hpp"
#include "board/saved_timeline.hpp"
#include "board/story.hpp"
#include "board/words/commands.hpp"
#include "board/words/line_editor.hpp"
#include "board/words/piped_lines.hpp"
#include "board/words/script.hpp"
#include "board/words/shell.hpp"

#include <unistd.h>

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

struct Verdict
{
    Status status = Status::differed;
    std::string line;
};

/** Drives a new board to the end.
 *  @return what to say of it */
using Drive = std::function<std::string(Board&)>;

Verdict verdictOf(Timeline& timeline, const BoardOptions& options,
                  const Drive& drive)
{
    try
    {
        Board board(timeline, options);
        return {Status::asTold, drive(board)};
    }
    catch (const Interrupted&)
    {
        return {Status::interrupted, "Interrupted; nothing is left behind."};
    }
    catch (const std::exception& error)
    {
        return {Status::differed,
                std::string("Not as told: ") + error.what() + "."};
    }
}

void show(const Verdict& verdict, const PrintStyle& style)
{
    const std::string colour(verdict.status == Status::asTold ? "\033[1;32m"
                                                              : "\033[1;31m");
    const auto line = withoutControls(verdict.line, "\t");
    to(stdout)((style.colour ? colour + line + "\033[0m" : line) + "\n");
}

/** Whether saving would overwrite the story itself, by whatever name. */
bool isStory(const std::filesystem::path& save, const std::string& play)
{
    std::error_code none; // what is not there is no story
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
    if (!options.play.empty() && isStory(options.save, options.play))
    {
        throw Error("cannot save the timeline in " + options.save +
                    ": it is the story that is played; name another file with "
                    "--save");
    }
    return SaveFile(options.save);
}

std::optional<words::Script> scriptOf(const ProgramOptions& options)
{
    return options.play.empty() ? std::nullopt
                                : std::optional(words::Script::of(
                                      options.play, words::allCommands()));
}

bool isTerminal()
{
    const auto* const kind = std::getenv("TERM");
    return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1 &&
           kind != nullptr && std::string_view(kind) != "dumb";
}

std::unique_ptr<words::Lines> linesAt(bool terminal,
                                      const Interruption& interruption)
{
    if (terminal)
    {
        return std::make_unique<words::LineEditor>(words::allCommands(),
                                                   interruption);
    }
    return std::make_unique<words::PipedLines>(interruption);
}

std::string byHand(words::Session& session, words::Lines& lines,
                   Interruption& interruption)
{
    runShell(session, lines, interruption);
    return "The board has ended; nothing is left behind.";
}

std::string byScript(words::Session& session, const words::Script& script)
{
    script.play(session);
    return "As told: " + script.name() + ", " + std::to_string(script.size()) +
           " commands, in " + secondsOf(session.board().timeline().now()) + ".";
}

} // namespace

Status run(const ProgramOptions& options)
{
    // Files are opened before the sandbox hides what the user sees; that of an
    // earlier timeline is emptied only once there is a story to play.
    const auto script = scriptOf(options);
    auto file = saveFileOf(options);
    const auto prompts = options.shell && isTerminal();
    sandbox::enter();
    Timeline timeline;
    Interruption interruption(timeline, prompts ? Interruption::CtrlC::breaksOff
                                                : Interruption::CtrlC::ends);
    const auto lines = linesAt(prompts, interruption);
    const auto write = [&lines](const std::string& text)
    {
        lines->write(text);
    };
    std::optional<SavedTimeline> saved;
    if (file)
    {
        saved.emplace(timeline, *std::move(file));
    }
    Verdict verdict;
    {
        auto style = options.style;
        style.details = !prompts;
        Printer printer(timeline, write, style);
        const auto say = [&](const std::string& text)
        {
            printer.catchUp();
            write(text);
        };
        verdict = verdictOf(
            timeline, options.board,
            [&](Board& board)
            {
                words::Session session(board, words::allCommands(), say);
                return options.shell ? byHand(session, *lines, interruption)
                       : script      ? byScript(session, *script)
                                     : playStory(board);
            });
    }
    show(verdict, options.style);
    if (saved)
    {
        saved->finish();
    }
    return verdict.status;
}

} // namespace board
