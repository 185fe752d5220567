// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/commands/commands.hpp"
#include "board/commands/session.hpp"
#include "board/endpoint/behaviours.hpp"

#include <cctype>
#include <csignal>
#include <iterator>
#include <set>
#include <utility>

namespace board::commands
{
namespace
{

Controller controller(Session& session, const Values& values)
{
    return session.board().controller(controllerOf(values.front()));
}

EndpointControl endpoint(Session& session, const Values& values)
{
    return session.board().endpoint(controllerOf(values.front()));
}

std::vector<Command> hostStateCommand()
{
    return {
        {Pattern("host STATE"),
         "CurrentHostState becomes this, e.g. Running or Off.",
         [](Session& session, const Values& values)
         {
             session.board().host().goesTo(values[0]);
         }},
    };
}

std::vector<Command> on(Targets targets, std::vector<Command> commands)
{
    for (auto& command : commands)
    {
        command.targets = targets;
    }
    return commands;
}

/** Leaves out of the virtual board what its kernel module cannot do: all but
 *  these commands, and these with optional values.
 *  @param values how many the pattern asks for */
std::vector<Command> onVirtualBoardOnly(const std::set<std::string>& patterns,
                                        std::size_t values,
                                        std::vector<Command> commands)
{
    for (auto& command : commands)
    {
        if (patterns.count(command.pattern.text()) == 0)
        {
            command.targets = target::simulated | target::service;
        }
        command.valuesOnVirtualBoard = values;
    }
    return commands;
}

/** A sentence for the help. */
std::string sentence(std::string text)
{
    text.front() = static_cast<char>(std::toupper(text.front()));
    return text + '.';
}

/** One command for each phrase of a vocabulary.
 *  @param beginning the words before the phrase, with one argument or none
 *  @param arguments how many
 *  @param apply what is done with a phrase's meaning */
template <typename Meaning, typename Apply>
std::vector<Command> commandsOf(const std::string& beginning,
                                const Vocabulary<Meaning>& vocabulary,
                                std::size_t arguments, Apply apply)
{
    std::vector<Command> all;
    for (const auto& phrase : vocabulary.phrases())
    {
        const auto meaning =
            [&vocabulary, arguments, name = phrase.name](const Values& values)
        {
            Words words(std::next(values.begin(),
                                  static_cast<std::ptrdiff_t>(arguments)),
                        values.end());
            words.insert(words.begin(), name);
            return vocabulary.understand(words);
        };
        all.push_back({Pattern::open(beginning + phrase.name, phrase.arguments),
                       sentence(phrase.help),
                       [meaning, apply](Session& session, const Values& values)
                       {
                           apply(session, values, meaning(values));
                       },
                       [meaning](const Values& values)
                       {
                           static_cast<void>(meaning(values));
                       }});
    }
    return all;
}

std::vector<Command> hostCommands()
{
    const auto apply =
        [](Session& session, const Values&, const HostAction& action)
    {
        action(session.board().host());
    };
    auto all = commandsOf("host ", hostActions(), 0, apply);
    for (auto& command : commandsOf("", announcements(), 0, apply))
    {
        all.push_back(std::move(command));
    }
    return all;
}

std::vector<Command> eids()
{
    return {
        {Pattern("endpoint CONTROLLER eid EID"),
         "The endpoint behind this controller has this id.",
         [](Session& session, const Values& values)
         {
             endpoint(session, values).hasEid(eidOf(values[1]));
         }},
    };
}

std::vector<Command> endpointCommands()
{
    return onVirtualBoardOnly(
        {"endpoint CONTROLLER answering", "endpoint CONTROLLER silent",
         "endpoint CONTROLLER short [BYTES]",
         "endpoint CONTROLLER wrong-type [TYPE]",
         "endpoint CONTROLLER wrong-command [COMMAND]",
         "endpoint CONTROLLER error [CODE]"},
        1,
        commandsOf("endpoint CONTROLLER ", behaviours(), 1,
                   [](Session& session, const Values& values,
                      const Endpoint::Behaviour& behaviour)
                   {
                       endpoint(session, values).behaves(behaviour);
                   }));
}

std::vector<Command> controllerCommands()
{
    return onVirtualBoardOnly(
        {"controller CONTROLLER default",
         "controller CONTROLLER never-comes-up",
         "controller CONTROLLER comes-up-after MS",
         "controller CONTROLLER refuses-bind ERRNO"},
        2,
        commandsOf("controller CONTROLLER ", controllerActions(), 1,
                   [](Session& session, const Values& values,
                      const ControllerAction& action)
                   {
                       controller(session, values).change(action);
                   }));
}

std::vector<Command> busCommands()
{
    auto all =
        commandsOf("bus ", busActions(), 0,
                   [](Session& session, const Values&, const BusAction& action)
                   {
                       action(session.board().bus());
                   });
    for (auto& command : all)
    {
        // The broker is the system's on the other targets.
        command.targets = command.pattern.text().starts_with("bus name-")
                              ? target::simulated | target::service
                              : target::simulated;
    }
    return all;
}

std::vector<Command> platformCommands()
{
    return on(target::simulated,
              commandsOf("platform ", platformActions(), 0,
                         [](Session& session, const Values&,
                            const PlatformAction& action)
                         {
                             auto values = session.board().platformValues();
                             action(values);
                         }));
}

std::vector<Command> driverCommands()
{
    return on(target::simulated | target::service,
              commandsOf("driver ", driverActions(), 0,
                         [](Session& session, const Values&,
                            const DriverAction& action)
                         {
                             session.board().changeDriver(action);
                         }));
}

void showDaemon(Session& session)
{
    auto& daemon = session.board().daemon();
    if (daemon.running())
    {
        session.say("The daemon runs, process " +
                    std::to_string(daemon.process()) + ": " + daemon.threads() +
                    ".\n");
        return;
    }
    session.say("The daemon does not run.\n");
}

std::vector<Command> daemonCommands()
{
    return {
        {Pattern("daemon start"), "Start the daemon.",
         [](Session& session, const Values&)
         {
             const auto before = session.board().timeline().size();
             session.board().daemon().start();
             // What an earlier one did does not count for a later wait.
             session.lookFrom(before);
         }},
        {Pattern("daemon stop"),
         "SIGTERM, again when its bus name is gone (a second later if it "
         "has none); wait for its end.",
         [](Session& session, const Values&)
         {
             static_cast<void>(session.board().stopDaemon(session.timeout()));
         }},
        {Pattern("daemon kill"), "Send it SIGKILL.",
         [](Session& session, const Values&)
         {
             session.board().daemon().signal(SIGKILL);
         }},
    };
}

std::vector<Command> processCommands()
{
    return {
        {Pattern("daemon term"), "Send it one SIGTERM.",
         [](Session& session, const Values&)
         {
             session.board().daemon().terminate();
         }},
        {Pattern("daemon status"),
         "Show whether it runs, and what it waits in.",
         [](Session& session, const Values&)
         {
             showDaemon(session);
         }},
        {Pattern("loglevel LEVEL"),
         "It logs up to this level (1 errors, 2 failures, 4 progress, 11 "
         "all) from its next start on; 11 at the beginning.",
         [](Session& session, const Values& values)
         {
             session.board().setLogLevel(levelOf(values[0]));
         }},
    };
}

} // namespace

std::vector<Command> actions()
{
    std::vector<Command> all;
    for (const auto& group :
         {hostStateCommand(), hostCommands(), eids(), endpointCommands(),
          controllerCommands(), driverCommands(), busCommands(),
          platformCommands(), daemonCommands(),
          on(target::simulated, processCommands())})
    {
        all.insert(all.end(), group.begin(), group.end());
    }
    return all;
}

} // namespace board::commands
