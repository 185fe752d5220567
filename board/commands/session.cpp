// SPDX-License-Identifier: Apache-2.0
#include "board/commands/session.hpp"

#include <algorithm>
#include <utility>

namespace board::commands
{

Session::Session(Board& board, const CommandTable& commands, Write say) :
    theBoard(board), known(commands), write(std::move(say))
{
}

void Session::run(const std::string& line)
{
    const auto call = known.understand(line);
    if (call.command != nullptr)
    {
        call.requireOn(target::simulated);
        run(call, trimmed(line));
    }
}

void Session::run(const Call& call, const std::string& line)
{
    theBoard.timeline().record(event::Told{line});
    call.command->run(*this, call.values);
}

Board& Session::board()
{
    return theBoard;
}

const CommandTable& Session::commands() const
{
    return known;
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
    from = theBoard.await(what, matches, from, longest).index + 1;
}

void Session::lookFrom(std::size_t index)
{
    from = index;
}

void Session::setTimeout(Timeline::Limit limit)
{
    longest = limit;
}

Timeline::Limit Session::timeout() const
{
    return longest;
}

void Session::leave()
{
    leaving = true;
}

bool Session::left() const
{
    return leaving;
}

} // namespace board::commands
