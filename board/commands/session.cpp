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
    run(known.understand(line), line);
}

void Session::run(const Call& call, const std::string& line)
{
    if (call.command == nullptr)
    {
        return;
    }
    theBoard.timeline().record(event::Told{trimmed(line)});
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

void Session::await(const std::string& what, const Timeline::Predicate& matches)
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

void Session::setLimit(Timeline::Limit limit)
{
    longest = limit;
}

Timeline::Limit Session::limit() const
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
