// SPDX-License-Identifier: Apache-2.0
#include "board/words/arguments.hpp"
#include "board/words/commands.hpp"
#include "board/words/session.hpp"

#include <csignal>

namespace board::words
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

std::vector<Command> hostDeeds()
{
    return {
        {Pattern("host STATE"),
         "CurrentHostState becomes this, e.g. Running or Off; announced.",
         [](Session& session, const Values& values)
         {
             session.board().host().goesTo(values[0]);
         }},
        {Pattern("power POWER"),
         "InternalPowerState is announced, e.g. StateS5.",
         [](Session& session, const Values& values)
         {
             session.board().host().entersPowerState(values[0]);
         }},
        {Pattern("reset CAUSE"), "ResetCause is announced, e.g. WarmReset.",
         [](Session& session, const Values& values)
         {
             session.board().host().isReset(values[0]);
         }},
    };
}

std::vector<Command> endpointDeeds()
{
    return {
        {Pattern("endpoint CONTROLLER answers"),
         "The endpoint behind this controller answers as it should.",
         [](Session& session, const Values& values)
         {
             endpoint(session, values).answers();
         }},
        {Pattern("endpoint CONTROLLER silent"), "It never says anything.",
         [](Session& session, const Values& values)
         {
             endpoint(session, values).staysSilent();
         }},
        {Pattern("endpoint CONTROLLER eid EID"), "It has this endpoint id.",
         [](Session& session, const Values& values)
         {
             endpoint(session, values).hasEid(eidOf(values[1]));
         }},
    };
}

std::vector<Command> controllerDeeds()
{
    return {
        {Pattern("controller CONTROLLER after MS"),
         "From its next bind on, its device comes up so much later.",
         [](Session& session, const Values& values)
         {
             controller(session, values)
                 .comesUpAfter(millisecondsOf(values[1]));
         }},
        {Pattern("controller CONTROLLER never"), "Its device never comes up.",
         [](Session& session, const Values& values)
         {
             controller(session, values).neverComesUp();
         }},
        {Pattern("controller CONTROLLER entry on"),
         "Its device has an entry in /sys/class/i3c-mctp.",
         [](Session& session, const Values& values)
         {
             controller(session, values).hasClassEntry(true);
         }},
        {Pattern("controller CONTROLLER entry off"), "It has none.",
         [](Session& session, const Values& values)
         {
             controller(session, values).hasClassEntry(false);
         }},
    };
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

std::vector<Command> daemonDeeds()
{
    return {
        {Pattern("daemon start"), "Start the daemon.",
         [](Session& session, const Values&)
         {
             // What an earlier one did is no answer to any await after this.
             session.lookFromNow();
             session.board().daemon().start();
         }},
        {Pattern("daemon stop"),
         "SIGTERM, again when its bus name is gone; wait for its end.",
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
         "It logs up to this level (1 errors, 2 failures, 4 progress, 11\n"
         "all) from its next start on; 11 at the beginning.",
         [](Session& session, const Values& values)
         {
             session.board().setLogLevel(levelOf(values[0]));
         }},
        {Pattern("platform KEY VALUE"),
         "The platform's hardware library reads this, e.g. CPU_VENDOR 1.",
         [](Session& session, const Values& values)
         {
             session.board().setPlatformValue(values[0], values[1]);
         }},
    };
}

} // namespace

std::vector<Command> deeds()
{
    std::vector<Command> all;
    for (const auto& group :
         {hostDeeds(), endpointDeeds(), controllerDeeds(), daemonDeeds()})
    {
        all.insert(all.end(), group.begin(), group.end());
    }
    return all;
}

} // namespace board::words
