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

bool isRegular(const ControlMessage& message)
{
    return message.interface == propertiesInterface &&
           message.member == "PropertiesChanged" &&
           message.body == ControlMessage::regularBody &&
           std::all_of(message.properties.begin(), message.properties.end(),
                       [](const ControlProperty& property)
                       {
                           return property.type == "s";
                       });
}

/** A malformed signal with its differences from a regular one. */
std::string description(const ControlMessage& message)
{
    auto text = message.interface + "." + message.member;
    if (message.body != ControlMessage::regularBody)
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

void appendBody(sd_bus_message* made, const ControlMessage& message,
                const std::string& what)
{
    if (message.body != ControlMessage::regularBody)
    {
        appendSample(made, message.body);
        return;
    }
    sd::check(
        sd_bus_message_append_basic(made, 's', interfaceOf(message).c_str()),
        what);
    sd::check(sd_bus_message_open_container(made, 'a', "{sv}"), what);
    for (const auto& property : message.properties)
    {
        sd::check(sd_bus_message_open_container(made, 'e', "sv"), what);
        sd::check(sd_bus_message_append_basic(made, 's', property.name.c_str()),
                  what);
        appendSampleVariant(made, property.type, property.value);
        sd::check(sd_bus_message_close_container(made), what);
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

Host::Host(Timeline& timeline, std::string address, const std::string& state) :
    timeline(timeline), address(std::move(address)),
    current(statePrefix + state)
{
    timeline.record(event::HostState{current});
    thread.run(
        [this](sd_event* loop)
        {
            announce(loop);
            serve(loop);
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

int Host::onCall(sd_bus_message* call, void* self, sd_bus_error* error)
{
    auto& host = *static_cast<Host*>(self);
    const auto& answer = host.answer;
    const auto isRead =
        sd_bus_message_is_method_call(call, propertiesInterface, "Get") > 0 ||
        sd_bus_message_is_method_call(call, propertiesInterface, "GetAll") > 0;
    if (!isRead || answer.kind == Answer::Kind::value)
    {
        return 0; // for the object's own members
    }
    if (answer.kind == Answer::Kind::none)
    {
        host.timeline.record(event::HostAnswer{"no answer"});
        return 1;
    }
    if (answer.kind == Answer::Kind::error)
    {
        host.timeline.record(event::HostAnswer{"the error " + answer.detail});
        return sd_bus_error_set(error, answer.detail.c_str(),
                                answer.message.c_str());
    }
    host.timeline.record(
        event::HostAnswer{"a value of type \"" + answer.detail + "\""});
    sd_bus_message* made = nullptr;
    if (const auto result = sd_bus_message_new_method_return(call, &made);
        result < 0)
    {
        return result;
    }
    const sd::Message reply(made);
    appendSampleVariant(made, answer.detail); // was tried when it was set
    return sd_bus_send(nullptr, made, nullptr);
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
    says(statePrefix + state);
}

void Host::says(const std::string& text)
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
            // Without a broker nobody listens.
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

void Host::setAnswer(const Answer& newAnswer)
{
    thread.run(
        [&](sd_event*)
        {
            answer = newAnswer;
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
    if (sd_bus_interface_name_is_valid(name.c_str()) <= 0)
    {
        throw Error("cannot answer with the error " + inQuotes(name) +
                    ": it is no D-Bus error name such as "
                    "org.freedesktop.DBus.Error.Failed");
    }
    setAnswer({Answer::Kind::error, name, message});
}

void Host::answersWithType(const std::string& signature)
{
    thread.run(
        [&](sd_event*)
        {
            const auto trial = newSignal({}, "cannot try a type");
            appendSampleVariant(trial.get(), signature);
            answer = {Answer::Kind::otherType, signature};
        });
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
    const auto what = "cannot send " + message.interface + "." +
                      message.member + " from " + pathOf(message.object);
    thread.run(
        [&](sd_event*)
        {
            const auto made = [&]
            {
                auto next = newSignal(message, what);
                appendBody(next.get(), message, what);
                return next;
            };
            static_cast<void>(made()); // fails before it is recorded
            record(message, times);
            for (std::size_t sent = 1; sent <= times; ++sent)
            {
                sd::check(sd_bus_send(control.get(), made().get(), nullptr),
                          what);
                // The queue is bounded, the number of signals is not.
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
    if (!isRegular(message))
    {
        timeline.record(
            event::MalformedSignal{path, description(message), times});
        return;
    }
    for (const auto& property : message.properties)
    {
        timeline.record(
            event::ControlSignal{path, property.name, property.value, times});
    }
}

sd::Message Host::newSignal(const ControlMessage& message,
                            const std::string& what)
{
    sd_bus_message* made = nullptr;
    sd::check(sd_bus_message_new_signal(
                  control.get(), &made, pathOf(message.object).c_str(),
                  message.interface.c_str(), message.member.c_str()),
              what);
    return sd::Message(made);
}

} // namespace board
