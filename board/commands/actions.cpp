// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/commands/commands.hpp"
#include "board/commands/session.hpp"
#include "board/endpoint/behaviours.hpp"

#include <csignal>
#include <iterator>

namespace board::commands
{
namespace
{

Values withoutFirst(const Values& values)
{
    return {std::next(values.begin()), values.end()};
}

/** The commands of a component's table.
 *  @param beginning the words before those of the table
 *  @param apply takes the session, the row and the values */
template <typename Row, typename Apply>
std::vector<Command> commandsOf(const std::string& beginning,
                                const std::vector<Row>& rows, Apply apply)
{
    std::vector<Command> all;
    all.reserve(rows.size());
    for (const auto& row : rows)
    {
        all.push_back({beginning + row.pattern, row.help,
                       [&row, apply](Session& session, const Values& values)
                       {
                           apply(session, row, values);
                       },
                       row.targets});
    }
    return all;
}

std::vector<Command> hostCommands()
{
    return commandsOf(
        "", hostActions(),
        [](Session& session, const auto& row, const Values& values)
        {
            row.run(session.board().host(), values);
        });
}

std::vector<Command> endpointCommands()
{
    std::vector<Command> all;
    all.reserve(behaviours().size() + 1);
    for (const auto& row : behaviours())
    {
        const auto behaviour = [&row](const Values& values)
        {
            return row.run(withoutFirst(values));
        };
        all.push_back(
            {"endpoint CONTROLLER " + row.pattern, row.help,
             [behaviour](Session& session, const Values& values)
             {
                 session.board()
                     .endpoint(numberOf(values[0]))
                     .behaves(behaviour(values));
             },
             row.targets,
             // It may name another behaviour, which is parsed when it is made.
             [behaviour](const Values& values)
             {
                 static_cast<void>(behaviour(values));
             }});
    }
    all.push_back({"endpoint CONTROLLER eid EID",
                   "The endpoint behind this controller has this id.",
                   [](Session& session, const Values& values)
                   {
                       session.board()
                           .endpoint(numberOf(values[0]))
                           .hasEid(numberOf<std::uint8_t>(values[1]));
                   }});
    return all;
}

std::vector<Command> controllerCommands()
{
    return commandsOf(
        "controller CONTROLLER ", controllerActions(),
        [](Session& session, const auto& row, const Values& values)
        {
            session.board()
                .controller(numberOf(values[0]))
                .change(
                    [&](ControllerState& controller)
                    {
                        row.run(controller, withoutFirst(values));
                    });
        });
}

std::vector<Command> driverCommands()
{
    return commandsOf(
        "driver ", driverActions(),
        [](Session& session, const auto& row, const Values& values)
        {
            session.board().changeDriver(
                [&](I3cDriver& driver)
                {
                    row.run(driver, values);
                });
        });
}

std::vector<Command> busCommands()
{
    return commandsOf(
        "bus ", busActions(),
        [](Session& session, const auto& row, const Values& values)
        {
            row.run(session.board().bus(), values);
        });
}

std::vector<Command> platformCommands()
{
    return commandsOf(
        "platform ", platformActions(),
        [](Session& session, const auto& row, const Values& values)
        {
            auto platform = session.board().platformValues();
            row.run(platform, values);
        });
}

void startDaemon(Session& session, const Values&)
{
    const auto before = session.board().timeline().size();
    session.board().daemon().start();
    // What an earlier one did does not count for a later wait.
    session.from = before;
}

void stopDaemon(Session& session, const Values&)
{
    static_cast<void>(session.board().stopDaemon(session.timeout));
}

template <int number>
void signalDaemon(Session& session, const Values&)
{
    session.board().daemon().signal(number);
}

void showDaemon(Session& session, const Values&)
{
    auto& daemon = session.board().daemon();
    session.say(daemon.running() ? "The daemon runs, process " +
                                       std::to_string(daemon.process()) + ": " +
                                       daemon.threads() + ".\n"
                                 : "The daemon does not run.\n");
}

void setLogLevel(Session& session, const Values& values)
{
    session.board().setLogLevel(numberOf<int>(values[0]));
}

std::vector<Command> daemonCommands()
{
    return {
        {"daemon start", "Start the daemon.", startDaemon},
        {"daemon stop",
         "SIGTERM, again when its bus name is gone (a second later if it "
         "has none); wait for its end.",
         stopDaemon},
        {"daemon kill", "Send it SIGKILL.", signalDaemon<SIGKILL>},
        {"daemon term", "Send it one SIGTERM.", signalDaemon<SIGTERM>,
         target::simulated},
        {"daemon status", "Show whether it runs, and what it waits in.",
         showDaemon, target::simulated},
        {"loglevel LEVEL",
         "It logs up to this level (1 errors, 2 failures, 4 progress, 11 "
         "all) from its next start on; 11 at the beginning.",
         setLogLevel, target::simulated},
    };
}

} // namespace

std::vector<Command> actions()
{
    std::vector<Command> all;
    for (const auto& group :
         {hostCommands(), endpointCommands(), controllerCommands(),
          driverCommands(), busCommands(), platformCommands(),
          daemonCommands()})
    {
        all.insert(all.end(), group.begin(), group.end());
    }
    return all;
}

} // namespace board::commands
