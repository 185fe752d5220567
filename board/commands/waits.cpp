// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/commands/commands.hpp"
#include "board/commands/session.hpp"

#include <string>
#include <type_traits>

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

constexpr auto isAny = [](const auto&)
{
    return true;
};

/** Waits until an object is announced, or withdrawn. */
template <typename Kind>
void waitObject(Session& session, const Values& values)
{
    constexpr auto isAdded = std::is_same_v<Kind, event::EndpointAdded>;
    // The last word of an object's path is its endpoint id.
    const auto end = '/' + std::to_string(numberOf(values[0]));
    waitEvent<Kind>(session,
                    (isAdded ? "announcement" : "withdrawal") +
                        (" of endpoint " + values[0]),
                    [&](const Kind& object)
                    {
                        return object.path.ends_with(end);
                    });
}

/** Waits for a bind or an unbind of a controller, or for one that has failed
 *  with this error. */
template <bool bind>
void waitWrite(Session& session, const Values& values)
{
    const std::string name(controllerNames.at(numberOf(values[0])));
    const auto error = values.size() > 1 ? errnoOf(values[1]) : 0;
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
void waitDevice(Session& session, const Values& values)
{
    constexpr auto isUp = std::is_same_v<Kind, event::DeviceUp>;
    const auto index = numberOf(values[0]);
    waitEvent<Kind>(session,
                    std::string(isUp ? "coming up" : "end") +
                        " of the device of " + controllerNames.at(index),
                    [index](const Kind& device)
                    {
                        return device.controller == index;
                    });
}

void waitReady(Session& session, const Values&)
{
    waitEvent<event::Notified>(session, "READY=1 from the daemon",
                               [](const event::Notified& notified)
                               {
                                   return notified.text.find("READY=1") !=
                                          std::string::npos;
                               });
}

void waitLog(Session& session, const Values& values)
{
    waitEvent<event::Log>(session, "log record with \"" + values[0] + "\"",
                          [&](const event::Log& log)
                          {
                              return log.text.find(values[0]) !=
                                     std::string::npos;
                          });
}

void waitExit(Session& session, const Values&)
{
    waitEvent<event::Exited>(session, "end of the daemon", isAny);
}

void waitHostAsked(Session& session, const Values&)
{
    waitEvent<event::HostAnswer>(session, "question to the host", isAny);
}

/** Waits for nothing; a Ctrl-C ends it like any other wait. */
void pause(Session& session, const Values& values)
{
    try
    {
        static_cast<void>(session.board().timeline().waitFor(
            "end",
            [](const Event&)
            {
                return false;
            },
            millisecondsOf(values[0])));
    }
    catch (const WaitFailed&)
    {
        return; // the time has passed
    }
}

void lookFromNow(Session& session, const Values&)
{
    session.from = session.board().timeline().size();
}

void setTimeout(Session& session, const Values& values)
{
    session.timeout = millisecondsOf(values[0]);
}

} // namespace

std::vector<Command> waits()
{
    return {
        {"wait ready",
         "Wait until the daemon says READY=1. Each wait looks from the end "
         "of the last one (or the daemon's last start, if later), and what "
         "has happened since counts: events that come one after the other "
         "are waited for in their order.",
         waitReady},
        {"wait log TEXT",
         "Wait until it has logged a record with this in its text.", waitLog},
        {"wait exit", "Wait until it has ended.", waitExit, target::simulated},
        {"wait host-asked",
         "Wait until the host-state service was asked for the state and did "
         "not answer as it should.",
         waitHostAsked, target::notVirtual},
        {"wait published EID",
         "Wait until an object of this endpoint id is announced.",
         waitObject<event::EndpointAdded>},
        {"wait withdrawn EID", "Wait until it is withdrawn.",
         waitObject<event::EndpointRemoved>},
        {"wait bind CONTROLLER",
         "Wait until the driver has bound this controller.", waitWrite<true>},
        {"wait failed-bind CONTROLLER ERRNO",
         "Wait until a bind of it has failed with this error.",
         waitWrite<true>},
        {"wait unbind CONTROLLER", "Wait until the driver has unbound it.",
         waitWrite<false>},
        {"wait up CONTROLLER", "Wait until its device comes up.",
         waitDevice<event::DeviceUp>},
        {"wait down CONTROLLER", "Wait until its device is gone.",
         waitDevice<event::DeviceDown>},
        {"from now", "The next wait counts only what happens after this.",
         lookFromNow},
        {"timeout MS",
         "A wait, and daemon stop, last no longer; 200000 at the beginning.",
         setTimeout},
        {"pause MS", "Wait so long.", pause},
    };
}

} // namespace board::commands
