// SPDX-License-Identifier: Apache-2.0
#include "board/commands/session.hpp"

#include "board/commands/commands.hpp"

#include <algorithm>
#include <utility>

namespace board::commands
{

Session::Session(Board& board, Write say) :
    theBoard(board), write(std::move(say))
{
}

void Session::run(const std::string& line)
{
    const auto call = allCommands().understand(line);
    if (call.row != nullptr)
    {
        call.row->requireOn(target::simulated);
        run(call, trimmed(line));
    }
}

void Session::run(const Call<Command>& call, const std::string& line)
{
    theBoard.timeline().record(event::Told{line});
    call.row->run(*this, call.values);
}

Board& Session::board()
{
    return theBoard;
}

void Session::say(const std::string& text) const
{
    write(text);
}

void Session::wait(const std::string& what, const Timeline::Predicate& matches)
{
    if (!theBoard.daemon().running())
    {
        const auto events = theBoard.timeline().since(from);
        const auto found = std::find_if(events.begin(), events.end(), matches);
        if (found == events.end())
        {
            throw WaitFailed("no " + what + ": the daemon does not run");
        }
        from = found->index + 1;
        return;
    }
    from = theBoard.await(what, matches, from, timeout).index + 1;
}

} // namespace board::commands
