// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/commands/commands.hpp"
#include "board/commands/session.hpp"

#include <algorithm>
#include <cstring>
#include <set>

namespace board::commands
{
namespace
{

std::string inWords(const std::set<unsigned>& eids)
{
    std::string text;
    for (const auto eid : eids)
    {
        text += (text.empty() ? "" : " ") + std::to_string(eid);
    }
    return text.empty() ? "none" : text;
}

void expectEndpoints(Session& session, const Values& values)
{
    std::set<unsigned> expected;
    std::set<unsigned> published;
    for (const auto& value : values)
    {
        expected.insert(numberOf<unsigned>(value));
    }
    for (const auto& object : session.board().bus().endpoints())
    {
        published.insert(object.eid);
    }
    if (published != expected)
    {
        throw NotAsExpected("published are " + inWords(published));
    }
}

/** The entries of the daemon's last run; none when it never ran. */
std::vector<Event> lastRun(Session& session)
{
    auto events = session.board().timeline().since();
    const auto start = std::find_if(events.rbegin(), events.rend(),
                                    [](const Event& event)
                                    {
                                        return event.as<event::Started>();
                                    });
    events.erase(events.begin(),
                 start == events.rend() ? events.end() : start.base());
    return events;
}

std::string inWords(const event::Exited& end)
{
    if (end.signal == 0)
    {
        return std::to_string(end.status);
    }
    const auto* const name = sigabbrev_np(end.signal);
    return name == nullptr ? "signal " + std::to_string(end.signal)
                           : std::string("SIG") + name;
}

void expectExit(Session& session, const Values& values)
{
    const auto expected = endOf(values[0]);
    const auto events = lastRun(session);
    const auto found = std::find_if(events.begin(), events.end(),
                                    [](const Event& event)
                                    {
                                        return event.as<event::Exited>();
                                    });
    if (found == events.end())
    {
        throw NotAsExpected(session.board().daemon().running()
                                ? "the daemon has not ended"
                                : "the daemon was never started");
    }
    const auto& end = *found->as<event::Exited>();
    if (end.status != expected.status || end.signal != expected.signal)
    {
        throw NotAsExpected("the daemon ended with " + inWords(end));
    }
}

void expectNoLog(Session& session, const Values& values)
{
    for (const auto& event : lastRun(session))
    {
        const auto* const log = event.as<event::Log>();
        if (log != nullptr && log->text.find(values[0]) != std::string::npos)
        {
            throw NotAsExpected("the daemon has logged \"" + log->text + "\"");
        }
    }
}

} // namespace

std::vector<Command> expectations()
{
    return {
        {"expect endpoints none",
         "Fail unless a client reads no endpoint on the bus now.",
         expectEndpoints},
        {"expect endpoints EID...",
         "Fail unless it reads those of these ids and no others.",
         expectEndpoints},
        {"expect exit END",
         "Fail unless the daemon has ended with this exit status, or by "
         "this signal, e.g. 0 or SIGKILL.",
         expectExit},
        {"expect no log TEXT",
         "Fail if it has logged a record with this in its text since its "
         "last start.",
         expectNoLog},
    };
}

} // namespace board::commands
