// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/commands/commands.hpp"
#include "board/commands/session.hpp"
#include "board/process/sandbox.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string_view>

namespace board::commands
{
namespace
{

namespace fs = std::filesystem;

constexpr std::size_t defaultCount = 20;

/** A directory as a client of the kernel sees it: names, links with targets.
 */
std::string listing(const fs::path& directory, std::string_view prefix)
{
    std::vector<std::string> lines;
    for (const auto& entry : fs::directory_iterator(directory))
    {
        const auto name = entry.path().filename().string();
        if (name.starts_with(prefix))
        {
            lines.push_back(
                "    " + name +
                (entry.is_symlink()
                     ? " -> " + fs::read_symlink(entry.path()).string()
                     : "") +
                "\n");
        }
    }
    std::sort(lines.begin(), lines.end());
    auto text = directory.string() + "\n";
    for (const auto& line : lines)
    {
        text += line;
    }
    return text;
}

std::string stateOf(Board& board, std::size_t index)
{
    const std::string name(controllerNames.at(index));
    const auto bound = fs::is_symlink(
        fs::path("/sys/bus/platform/drivers/silvaco-i3c-master") / name);
    const auto node = board.controller(index).node();
    std::array<char, 64> endpoint{};
    const auto eid = board.endpoint(index).eid();
    static_cast<void>(std::snprintf(endpoint.data(), endpoint.size(),
                                    ", endpoint %u (0x%02x)\n", eid, eid));
    return "controller " + std::to_string(index) + "  " + name +
           (bound ? ", bound" : ", not bound") +
           (node ? ", /dev/" + *node : ", no device") + endpoint.data();
}

void showTree(Session& session)
{
    auto text = listing("/sys/bus/platform/drivers/silvaco-i3c-master", "") +
                listing("/sys/class/i3c-mctp", "") +
                listing("/dev", "i3c-mctp-");
    for (std::size_t index = 0; index < controllerCount; ++index)
    {
        text += stateOf(session.board(), index);
    }
    session.say(text);
}

void showEndpoints(Session& session)
{
    const auto objects = session.board().bus().endpoints();
    for (const auto& object : objects)
    {
        session.board().timeline().record(event::EndpointRead{object});
    }
    if (objects.empty())
    {
        session.say("No endpoint is published.\n");
    }
}

void showTimeline(Session& session, std::size_t count)
{
    constexpr PrintStyle everything{false, true};
    const auto events = session.board().timeline().since();
    auto text = printedHeading(everything);
    const auto skipped = events.size() - std::min(count, events.size());
    for (auto index = skipped; index < events.size(); ++index)
    {
        text += printed(events[index], everything);
    }
    session.say(text);
}

/** What runs a command inside the board. Root may enter without becoming root
 *  of the board's users first; there may be none to become. */
std::string entering()
{
    const std::string user(
        sandbox::enteredByRoot() ? "" : "--preserve-credentials -U ");
    return "nsenter " + user + "-m -t " + std::to_string(getpid());
}

std::string busText()
{
    const std::string look("busctl tree xyz.openbmc_project.mctp\n");
    return "To ask the daemon on the board's system bus, type \"daemon start\" "
           "here first.\nThen, in another terminal:\n"
           "  export DBUS_SYSTEM_BUS_ADDRESS=" +
           Bus::outsideAddress() + "\n  " + look +
           "or, for a program that the bus refuses so, inside the board:\n  " +
           entering() + " " + look;
}

std::vector<Command> looks()
{
    return {
        {Pattern("tree"),
         "Show the driver's directory, /sys/class/i3c-mctp, the device "
         "nodes, and which endpoint is behind which.",
         [](Session& session, const Values&)
         {
             showTree(session);
         }},
        {Pattern("endpoints"), "Show the endpoints as a client reads them.",
         [](Session& session, const Values&)
         {
             showEndpoints(session);
         }},
        {Pattern("bus"), "Show the bus address, and how to use it.",
         [](Session& session, const Values&)
         {
             session.say(busText());
         }},
        {Pattern("timeline [COUNT]"),
         "Show the last events, hidden ones too; 20 by default.",
         [](Session& session, const Values& values)
         {
             showTimeline(session,
                          values.empty() ? defaultCount : countOf(values[0]));
         }},
    };
}

std::vector<Command> aboutLines()
{
    return {
        {Pattern("note TEXT"), "Put a note on the timeline.",
         [](Session& session, const Values& values)
         {
             session.board().timeline().record(event::Note{values[0]});
         }},
        {Pattern(targetsCommand),
         "Only as the first command of a scenario: the targets that it is "
         "for; simulated without it.",
         [](Session&, const Values&)
         {
             throw Error("only the first command can be \"targets\"");
         }},
        {Pattern("help [WORD]"),
         "Show all commands, or those of a word.",
         [](Session& session, const Values& values)
         {
             const auto& commands = session.commands();
             session.say(values.empty() ? commands.help()
                                        : commands.help(values[0]));
         },
         {},
         target::simulated},
        {Pattern("quit"),
         "End the board; nothing is left behind.",
         [](Session& session, const Values&)
         {
             session.leave();
         },
         {},
         target::simulated},
    };
}

} // namespace

std::vector<Command> queries()
{
    auto all = looks();
    for (auto& command : all)
    {
        // All targets have "endpoints": a scenario shows what clients read.
        if (command.pattern.text() != "endpoints")
        {
            command.targets = target::simulated;
        }
    }
    const auto more = aboutLines();
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

} // namespace board::commands
