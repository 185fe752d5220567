// SPDX-License-Identifier: Apache-2.0
#include "board/host/host.hpp"

#include "board/host/sample_value.hpp"
#include "board/util/error.hpp"
#include "board/util/plain_text.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace board
{
namespace
{

constexpr auto serviceName = "xyz.openbmc_project.State.Host0";
constexpr auto statePath = "/xyz/openbmc_project/state/host0";
constexpr auto stateInterface = "xyz.openbmc_project.State.Host";
constexpr auto stateProperty = "CurrentHostState";
constexpr auto propertiesInterface = "org.freedesktop.DBus.Properties";
const std::string statePrefix = "xyz.openbmc_project.State.Host.HostState.";

const std::string controlPath = "/xyz/openbmc_project/control/host0/";
const std::string controlInterface = "xyz.openbmc_project.Control.Host.";

constexpr std::size_t mostWaiting = 1000;

std::string pathOf(ControlObject object)
{
    return controlPath + (object == ControlObject::powerState
                              ? "internal_power_state"
                              : "reset_cause");
}

std::string interfaceOf(const ControlMessage& message)
{
    if (!message.changed.empty())
    {
        return message.changed;
    }
    return controlInterface + (message.object == ControlObject::powerState
                                   ? "InternalPowerState"
                                   : "ResetCause");
}

bool isProper(const ControlMessage& message)
{
    return message.interface == propertiesInterface &&
           message.member == "PropertiesChanged" &&
           message.body == ControlMessage::properBody &&
           std::all_of(message.properties.begin(), message.properties.end(),
                       [](const ControlProperty& property)
                       {
                           return property.type == "s";
                       });
}

/** What is not as it should be with a signal. */
std::string oddity(const ControlMessage& message)
{
    auto text = message.interface + "." + message.member;
    if (message.body != ControlMessage::properBody)
    {
        return text + " with the body \"" + message.body + "\"";
    }
    for (const auto& property : message.properties)
    {
        text += ", " + property.name + " of type \"" + property.type + "\"";
    }
    return text;
}

bool isDisconnected(int result)
{
    return result == -ENOTCONN || result == -ECONNRESET || result == -EPIPE;
}

void refuseUnless(bool isValid, const std::string& what)
{
    if (!isValid)
    {
        throw Error(what);
    }
}

/** Appends one entry of the changed properties. */
void appendProperty(sd_bus_message* made, const ControlProperty& property,
                    const std::string& what)
{
    sd::check(sd_bus_message_open_container(made, 'e', "sv"), what);
    sd::check(sd_bus_message_append_basic(made, 's', property.name.c_str()),
              what);
    sd::check(sd_bus_message_open_container(made, 'v', property.type.c_str()),
              what);
    sd::check(appendSample(made, property.type, property.value), what);
    sd::check(sd_bus_message_close_container(made), what);
    sd::check(sd_bus_message_close_container(made), what);
}

void appendBody(sd_bus_message* made, const ControlMessage& message,
                const std::string& what)
{
    if (message.body != ControlMessage::properBody)
    {
        sd::check(appendSample(made, message.body), what);
        return;
    }
    sd::check(
        sd_bus_message_append_basic(made, 's', interfaceOf(message).c_str()),
        what);
    sd::check(sd_bus_message_open_container(made, 'a', "{sv}"), what);
    for (const auto& property : message.properties)
    {
        appendProperty(made, property, what);
    }
    sd::check(sd_bus_message_close_container(made), what);
    sd::check(sd_bus_message_append(made, "as", 0), what);
}

} // namespace

const std::vector<std::string>& hostStates()
{
    static const std::vector<std::string> states{
        "Off",           "TransitioningToOff",     "Standby",
        "Running",       "TransitioningToRunning", "Quiesced",
        "DiagnosticMode"};
    return states;
}

Host::Host(Timeline& timeline, std::string address, const std::string& state,
           bool isThere) :
    timeline(timeline),
    address(std::move(address)), current(statePrefix + state)
{
    timeline.record(event::HostState{current});
    if (!isThere)
    {
        timeline.record(event::HostService{false});
    }
    thread.run(
        [&](sd_event* loop)
        {
            announce(loop);
            if (isThere)
            {
                serve(loop);
            }
        });
}

Host::~Host()
{
    thread.run(
        [this](sd_event*)
        {
            service.reset();
            control.reset();
        });
}

void Host::announce(sd_event* loop)
{
    auto bus = sd::connect(address);
    // Attached, so that what the broker sends is taken.
    sd::check(sd_bus_attach_event(bus.get(), loop, SD_EVENT_PRIORITY_NORMAL),
              "cannot serve the host's control objects");
    control = std::move(bus);
}

void Host::serve(sd_event* loop)
{
    static const std::array<sd_bus_vtable, 3> members{
        sd_bus_vtable SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("CurrentHostState", "s", readState, 0,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_VTABLE_END};
    const std::string what("cannot serve the host's state");
    auto bus = sd::connect(address);
    sd::check(sd_bus_add_object_vtable(bus.get(), nullptr, statePath,
                                       stateInterface, members.data(), this),
              what);
    // Asked before the object's own members are.
    sd::check(sd_bus_add_object(bus.get(), nullptr, statePath, onCall, this),
              what);
    sd::check(sd_bus_attach_event(bus.get(), loop, SD_EVENT_PRIORITY_NORMAL),
              what);
    sd::check(sd_bus_request_name(bus.get(), serviceName, 0),
              std::string("cannot own the bus name ") + serviceName);
    service = std::move(bus);
}

int Host::readState(sd_bus* /*bus*/, const char* /*path*/,
                    const char* /*interface*/, const char* /*property*/,
                    sd_bus_message* reply, void* self, sd_bus_error* /*error*/)
{
    return sd_bus_message_append(reply, "s",
                                 static_cast<Host*>(self)->current.c_str());
}

int Host::onCall(sd_bus_message* call, void* self, sd_bus_error* /*error*/)
{
    auto& host = *static_cast<Host*>(self);
    const auto isAsked =
        sd_bus_message_is_method_call(call, propertiesInterface, "Get") > 0 ||
        sd_bus_message_is_method_call(call, propertiesInterface, "GetAll") > 0;
    constexpr int leftToTheMembers = 0;
    return isAsked && host.answer.kind != Answer::Kind::value
               ? host.answerOddly(call)
               : leftToTheMembers;
}

int Host::answerOddly(sd_bus_message* call)
{
    constexpr int handled = 1;
    if (answer.kind == Answer::Kind::none)
    {
        timeline.record(event::HostAnswer{"no answer"});
        return handled;
    }
    if (answer.kind == Answer::Kind::error)
    {
        timeline.record(event::HostAnswer{"the error " + answer.detail});
        return sd_bus_reply_method_errorf(call, answer.detail.c_str(), "%s",
                                          answer.message.c_str());
    }
    timeline.record(
        event::HostAnswer{"a value of type \"" + answer.detail + "\""});
    sd_bus_message* made = nullptr;
    if (const auto result = sd_bus_message_new_method_return(call, &made);
        result < 0)
    {
        return result;
    }
    const sd::Message reply(made);
    auto result =
        sd_bus_message_open_container(made, 'v', answer.detail.c_str());
    if (result >= 0)
    {
        result = appendSample(made, answer.detail);
    }
    if (result >= 0)
    {
        result = sd_bus_message_close_container(made);
    }
    return result < 0 ? result : sd_bus_send(nullptr, made, nullptr);
}

void Host::goesTo(const std::string& state)
{
    const auto& known = hostStates();
    if (std::find(known.begin(), known.end(), state) == known.end())
    {
        timeline.record(event::Note{inQuotes(state) +
                                    " is no state of a host that is known; "
                                    "the daemon takes it for off."});
    }
    change(statePrefix + state);
}

void Host::says(const std::string& text)
{
    change(text);
}

void Host::change(const std::string& text)
{
    timeline.record(event::HostState{text});
    thread.run(
        [&](sd_event*)
        {
            current = text;
            if (!service)
            {
                return;
            }
            auto result = sd_bus_emit_properties_changed(
                service.get(), statePath, stateInterface, stateProperty,
                nullptr);
            if (result >= 0)
            {
                result = sd_bus_flush(service.get());
            }
            // Where the broker has died nobody is there to be told.
            if (!isDisconnected(result))
            {
                sd::check(result, "cannot announce the host's state");
            }
        });
}

void Host::leaves()
{
    timeline.record(event::HostService{false});
    thread.run(
        [this](sd_event*)
        {
            leave();
        });
}

void Host::leave()
{
    if (service)
    {
        // So that the name is free when this returns. It fails when the
        // broker has died, and then the name is gone as well.
        static_cast<void>(sd_bus_release_name(service.get(), serviceName));
        service.reset();
    }
}

void Host::comes()
{
    timeline.record(event::HostService{true});
    thread.run(
        [this](sd_event* loop)
        {
            leave();
            announce(loop);
            serve(loop);
        });
}

void Host::setAnswer(const Answer& how)
{
    thread.run(
        [&](sd_event*)
        {
            answer = how;
        });
}

void Host::answers()
{
    setAnswer({});
}

void Host::neverAnswers()
{
    setAnswer({Answer::Kind::none});
}

void Host::answersWithError(const std::string& name, const std::string& message)
{
    refuseUnless(sd_bus_interface_name_is_valid(name.c_str()) > 0,
                 "cannot answer with the error " + inQuotes(name) +
                     ": it is no D-Bus error name such as "
                     "org.freedesktop.DBus.Error.Failed");
    setAnswer({Answer::Kind::error, name, message});
}

void Host::answersWithType(const std::string& signature)
{
    refuseUnless(isCompleteType(signature),
                 "cannot answer with the type " + inQuotes(signature) +
                     ": it is no D-Bus type such as u, o or as");
    setAnswer({Answer::Kind::otherType, signature});
}

void Host::entersPowerState(const std::string& state, std::size_t times)
{
    sends({.object = ControlObject::powerState,
           .properties = {{"InternalPowerState",
                           controlInterface + "InternalPowerState.State." +
                               state}}},
          times);
}

void Host::isReset(const std::string& cause, std::size_t times)
{
    sends({.object = ControlObject::resetCause,
           .properties = {{"ResetCause",
                           controlInterface + "ResetCause.Cause." + cause}}},
          times);
}

void Host::sends(const ControlMessage& message, std::size_t times)
{
    refuseUnless(isSignature(message.body),
                 "cannot send a body of the types " + inQuotes(message.body) +
                     ": they are no D-Bus signature such as sa{sv}as");
    for (const auto& property : message.properties)
    {
        refuseUnless(isCompleteType(property.type),
                     "cannot send a property of the type " +
                         inQuotes(property.type) +
                         ": it is no D-Bus type such as u, o or as");
    }
    const auto what = "cannot send " + message.interface + "." +
                      message.member + " from " + pathOf(message.object);
    record(message, times);
    thread.run(
        [&](sd_event*)
        {
            for (std::size_t sent = 1; sent <= times; ++sent)
            {
                send(message, what);
                // What waits to be sent is bounded, the number asked for not.
                if (sent % mostWaiting == 0 || sent == times)
                {
                    sd::check(sd_bus_flush(control.get()), what);
                }
            }
        });
}

void Host::record(const ControlMessage& message, std::size_t times)
{
    const auto path = pathOf(message.object);
    if (!isProper(message))
    {
        timeline.record(event::OddSignal{path, oddity(message), times});
        return;
    }
    for (const auto& property : message.properties)
    {
        timeline.record(
            event::ControlSignal{path, property.name, property.value, times});
    }
}

void Host::send(const ControlMessage& message, const std::string& what)
{
    sd_bus_message* made = nullptr;
    sd::check(sd_bus_message_new_signal(
                  control.get(), &made, pathOf(message.object).c_str(),
                  message.interface.c_str(), message.member.c_str()),
              what);
    const sd::Message owner(made);
    appendBody(made, message, what);
    sd::check(sd_bus_send(control.get(), made, nullptr), what);
}

} // namespace board
