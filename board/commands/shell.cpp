// SPDX-License-Identifier: Apache-2.0
#include "board/commands/shell.hpp"

#include "board/commands/commands.hpp"
#include "board/util/plain_text.hpp"

#include <exception>

namespace board::commands
{
namespace
{

void greet(Session& session)
{
    const auto bus = allCommands().understand("bus");
    bus.row->run(session, bus.values);
    session.say("\"help\" lists all commands, \"quit\" ends the board.\n");
}

void runLine(Session& session, const std::string& line)
{
    try
    {
        session.run(line);
    }
    catch (const Interrupted&)
    {
        session.say("Interrupted.\n");
    }
    catch (const std::exception& error)
    {
        session.say(withoutControls(error.what(), "\t") + "\n");
    }
}

} // namespace

void runShell(Session& session, Lines& lines, Interruption& interruption)
{
    greet(session);
    while (!session.hasLeft)
    {
        const auto line = lines.next();
        // A Ctrl-C that came until now has done its work.
        interruption.goOn();
        if (!line)
        {
            return;
        }
        runLine(session, *line);
        interruption.goOn();
    }
}

} // namespace board::commands
