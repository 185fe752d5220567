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

void showTree(Session& session, const Values&)
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

void showEndpoints(Session& session, const Values&)
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

void showTimeline(Session& session, const Values& values)
{
    constexpr std::size_t usual = 20;
    const auto count = values.empty() ? usual : numberOf(values[0]);
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

void showBus(Session& session, const Values&)
{
    const std::string look("busctl tree xyz.openbmc_project.mctp\n");
    session.say(
        "To ask the daemon on the board's system bus, type \"daemon start\" "
        "here first.\nThen, in another terminal:\n"
        "  export DBUS_SYSTEM_BUS_ADDRESS=" +
        Bus::outsideAddress() + "\n  " + look +
        "or, for a program that the bus refuses so, inside the board:\n  " +
        entering() + " " + look);
}

void note(Session& session, const Values& values)
{
    session.board().timeline().record(event::Note{values[0]});
}

void help(Session& session, const Values& values)
{
    session.say(allCommands().help(values.empty() ? "" : values[0]));
}

void refuseTargets(Session&, const Values&)
{
    throw Error("only the first command can be \"targets\"");
}

void leave(Session& session, const Values&)
{
    session.hasLeft = true;
}

} // namespace

std::vector<Command> queries()
{
    return {
        {"tree",
         "Show the driver's directory, /sys/class/i3c-mctp, the device "
         "nodes, and which endpoint is behind which.",
         showTree, target::simulated},
        // All targets have it: a scenario shows what clients read.
        {"endpoints", "Show the endpoints as a client reads them.",
         showEndpoints},
        {"bus", "Show the bus address, and how to use it.", showBus,
         target::simulated},
        {"timeline [COUNT]",
         "Show the last events, hidden ones too; 20 by default.", showTimeline,
         target::simulated},
        {"note TEXT", "Put a note on the timeline.", note},
        {targetsCommand,
         "Only as the first command of a scenario: the targets that it is "
         "for; simulated without it.",
         refuseTargets},
        {"help [WORD]", "Show all commands, or those of a word.", help,
         target::simulated},
        {"quit", "End the board; nothing is left behind.", leave,
         target::simulated},
    };
}

} // namespace board::commands
