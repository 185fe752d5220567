// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/commands/commands.hpp"
#include "board/commands/session.hpp"

#include <string_view>

namespace board::commands
{
namespace
{

/** Waits for an event of one kind for which something holds. */
template <typename Kind, typename Holds>
void waitEvent(Session& session, const std::string& what, Holds holds)
{
    session.wait(what,
                 [&holds](const Event& event)
                 {
                     const auto* const body = event.as<Kind>();
                     return body != nullptr && holds(*body);
                 });
}

/** The last word of an object's path is its endpoint id. */
bool isObjectOf(std::string_view path, const std::string& eid)
{
    return path.substr(path.rfind('/') + 1) == std::to_string(eidOf(eid));
}

void waitWrite(Session& session, bool bind, const std::string& controller,
               int error = 0)
{
    const std::string name(controllerNames.at(controllerOf(controller)));
    waitEvent<event::DriverWrite>(
        session,
        std::string(error == 0 ? "" : "failed ") + (bind ? "bind" : "unbind") +
            " of " + name,
        [&](const event::DriverWrite& write)
        {
            return write.bind == bind && write.controller == name &&
                   write.error == error;
        });
}

template <typename Kind>
void waitDevice(Session& session, const std::string& what,
                const std::string& controller)
{
    const auto index = controllerOf(controller);
    waitEvent<Kind>(session,
                    what + " of the device of " + controllerNames.at(index),
                    [index](const Kind& device)
                    {
                        return device.controller == index;
                    });
}

std::vector<Command> daemonWaits()
{
    return {
        {Pattern("wait ready"),
         "Wait until the daemon says READY=1. Each wait looks from the end "
         "of the last one (or the daemon's last start, if later), and what "
         "has happened since counts: events that come one after the other "
         "are waited for in their order.",
         [](Session& session, const Values&)
         {
             waitEvent<event::Notified>(
                 session, "READY=1 from the daemon",
                 [](const event::Notified& notified)
                 {
                     return notified.text.find("READY=1") != std::string::npos;
                 });
         }},
        {Pattern("wait log TEXT"),
         "Wait until it has logged a record with this in its text.",
         [](Session& session, const Values& values)
         {
             waitEvent<event::Log>(
                 session, "log record with \"" + values[0] + "\"",
                 [&](const event::Log& log)
                 {
                     return log.text.find(values[0]) != std::string::npos;
                 });
         }},
        {Pattern("wait exit"),
         "Wait until it has ended.",
         [](Session& session, const Values&)
         {
             waitEvent<event::Exited>(session, "end of the daemon",
                                      [](const event::Exited&)
                                      {
                                          return true;
                                      });
         },
         {},
         target::simulated},
        {Pattern("wait host-asked"),
         "Wait until the host-state service was asked for the state and did "
         "not answer as it should.",
         [](Session& session, const Values&)
         {
             waitEvent<event::HostAnswer>(session, "question to the host",
                                          [](const event::HostAnswer&)
                                          {
                                              return true;
                                          });
         },
         {},
         target::simulated | target::service},
    };
}

std::vector<Command> boardWaits()
{
    return {
        {Pattern("wait published EID"),
         "Wait until an object of this endpoint id is announced.",
         [](Session& session, const Values& values)
         {
             waitEvent<event::EndpointAdded>(
                 session, "announcement of endpoint " + values[0],
                 [&](const event::EndpointAdded& added)
                 {
                     return isObjectOf(added.path, values[0]);
                 });
         }},
        {Pattern("wait withdrawn EID"), "Wait until it is withdrawn.",
         [](Session& session, const Values& values)
         {
             waitEvent<event::EndpointRemoved>(
                 session, "withdrawal of endpoint " + values[0],
                 [&](const event::EndpointRemoved& removed)
                 {
                     return isObjectOf(removed.path, values[0]);
                 });
         }},
        {Pattern("wait bind CONTROLLER"),
         "Wait until the driver has bound this controller.",
         [](Session& session, const Values& values)
         {
             waitWrite(session, true, values[0]);
         }},
        {Pattern("wait failed-bind CONTROLLER ERRNO"),
         "Wait until a bind of it has failed with this error.",
         [](Session& session, const Values& values)
         {
             waitWrite(session, true, values[0], errnoOf(values[1]));
         }},
        {Pattern("wait unbind CONTROLLER"),
         "Wait until the driver has unbound it.",
         [](Session& session, const Values& values)
         {
             waitWrite(session, false, values[0]);
         }},
        {Pattern("wait up CONTROLLER"), "Wait until its device comes up.",
         [](Session& session, const Values& values)
         {
             waitDevice<event::DeviceUp>(session, "coming up", values[0]);
         }},
        {Pattern("wait down CONTROLLER"), "Wait until its device is gone.",
         [](Session& session, const Values& values)
         {
             waitDevice<event::DeviceDown>(session, "end", values[0]);
         }},
    };
}

/** Waits for nothing; a Ctrl-C ends it like any other wait. */
void pause(Session& session, std::chrono::milliseconds time)
{
    try
    {
        static_cast<void>(session.board().timeline().waitFor(
            "end",
            [](const Event&)
            {
                return false;
            },
            time));
    }
    catch (const WaitFailed&)
    {
        return; // the time has passed
    }
}

std::vector<Command> waiting()
{
    return {
        {Pattern("from now"),
         "The next wait counts only what happens after this.",
         [](Session& session, const Values&)
         {
             session.lookFrom(session.board().timeline().size());
         }},
        {Pattern("timeout MS"),
         "A wait, and daemon stop, last no longer; 200000 at the beginning.",
         [](Session& session, const Values& values)
         {
             session.setTimeout(millisecondsOf(values[0]));
         }},
        {Pattern("pause MS"), "Wait so long.",
         [](Session& session, const Values& values)
         {
             pause(session, millisecondsOf(values[0]));
         }},
    };
}

} // namespace

std::vector<Command> waits()
{
    std::vector<Command> all;
    for (const auto& group : {daemonWaits(), boardWaits(), waiting()})
    {
        all.insert(all.end(), group.begin(), group.end());
    }
    return all;
}

} // namespace board::commands
