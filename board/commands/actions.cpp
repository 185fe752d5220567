// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/commands/commands.hpp"
#include "board/commands/session.hpp"

#include <cctype>
#include <csignal>
#include <iterator>

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

std::vector<Command> hostCommands()
{
    return {
        {Pattern("host STATE"),
         "CurrentHostState becomes this, e.g. Running or Off.",
         [](Session& session, const Values& values)
         {
             session.board().host().goesTo(values[0]);
         }},
        {Pattern("power POWER"),
         "InternalPowerState is announced once, e.g. StateS5.",
         [](Session& session, const Values& values)
         {
             session.board().host().entersPowerState(values[0]);
         }},
        {Pattern("reset CAUSE"),
         "ResetCause is announced once, e.g. WarmReset.",
         [](Session& session, const Values& values)
         {
             session.board().host().isReset(values[0]);
         }},
    };
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

std::vector<Command> oddHostCommands()
{
    return commandsOf("host ", hostDeeds(), 0,
                      [](Session& session, const Values&, const HostDeed& deed)
                      {
                          deed(session.board().host());
                      });
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
    return commandsOf("endpoint CONTROLLER ", behaviours(), 1,
                      [](Session& session, const Values& values,
                         const Endpoint::Behaviour& behaviour)
                      {
                          endpoint(session, values).behaves(behaviour);
                      });
}

std::vector<Command> controllerCommands()
{
    return commandsOf(
        "controller CONTROLLER ", controllerDeeds(), 1,
        [](Session& session, const Values& values, const ControllerDeed& deed)
        {
            auto told = controller(session, values);
            deed(told);
        });
}

std::vector<Command> busCommands()
{
    return commandsOf("bus ", busDeeds(), 0,
                      [](Session& session, const Values&, const BusDeed& deed)
                      {
                          deed(session.board().bus());
                      });
}

std::vector<Command> platformCommands()
{
    return commandsOf(
        "platform ", platformDeeds(), 0,
        [](Session& session, const Values&, const PlatformDeed& deed)
        {
            auto values = session.board().platformValues();
            deed(values);
        });
}

std::vector<Command> driverCommands()
{
    return commandsOf(
        "driver ", driverDeeds(), 0,
        [](Session& session, const Values&, const DriverDeed& deed)
        {
            auto files = session.board().driverFiles();
            deed(files);
        });
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
             // What an earlier one did is no answer to any await after this.
             session.lookFrom(before);
         }},
        {Pattern("daemon stop"),
         "SIGTERM, again when its bus name is gone (a second later if it "
         "has none); wait for its end.",
         [](Session& session, const Values&)
         {
             static_cast<void>(session.board().stopDaemon(session.limit()));
         }},
        {Pattern("daemon term"), "Send it one SIGTERM.",
         [](Session& session, const Values&)
         {
             session.board().daemon().terminate();
         }},
        {Pattern("daemon kill"), "Send it SIGKILL.",
         [](Session& session, const Values&)
         {
             session.board().daemon().signal(SIGKILL);
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

std::vector<Command> deeds()
{
    std::vector<Command> all;
    for (const auto& group :
         {hostCommands(), oddHostCommands(), eids(), endpointCommands(),
          controllerCommands(), driverCommands(), busCommands(),
          platformCommands(), daemonCommands()})
    {
        all.insert(all.end(), group.begin(), group.end());
    }
    return all;
}

} // namespace board::commands
