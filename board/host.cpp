// SPDX-License-Identifier: Apache-2.0
#include "board/host.hpp"

#include <array>

namespace board
{
namespace
{

constexpr auto service = "xyz.openbmc_project.State.Host0";
constexpr auto statePath = "/xyz/openbmc_project/state/host0";
constexpr auto stateInterface = "xyz.openbmc_project.State.Host";
constexpr auto stateProperty = "CurrentHostState";
const std::string statePrefix = "xyz.openbmc_project.State.Host.HostState.";

const std::string controlPath = "/xyz/openbmc_project/control/host0/";
const std::string controlInterface = "xyz.openbmc_project.Control.Host.";

} // namespace

Host::Host(Timeline& timeline, const std::string& address,
           const std::string& state) :
    timeline(timeline),
    current(statePrefix + state)
{
    timeline.record(event::HostState{current});
    thread.run(
        [&](sd_event* loop)
        {
            serve(loop, address);
        });
}

Host::~Host()
{
    thread.run(
        [this](sd_event*)
        {
            bus.reset();
        });
}

void Host::serve(sd_event* loop, const std::string& address)
{
    static const std::array<sd_bus_vtable, 3> members{
        sd_bus_vtable SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("CurrentHostState", "s", readState, 0,
                        SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
        SD_BUS_VTABLE_END};
    const std::string what("cannot serve the host's state");
    bus = sd::connect(address);
    sd::check(sd_bus_add_object_vtable(bus.get(), nullptr, statePath,
                                       stateInterface, members.data(), this),
              what);
    sd::check(sd_bus_attach_event(bus.get(), loop, SD_EVENT_PRIORITY_NORMAL),
              what);
    sd::check(sd_bus_request_name(bus.get(), service, 0),
              std::string("cannot own the bus name ") + service);
}

int Host::readState(sd_bus* /*bus*/, const char* /*path*/,
                    const char* /*interface*/, const char* /*property*/,
                    sd_bus_message* reply, void* self, sd_bus_error* /*error*/)
{
    return sd_bus_message_append(reply, "s",
                                 static_cast<Host*>(self)->current.c_str());
}

void Host::goesTo(const std::string& state)
{
    timeline.record(event::HostState{statePrefix + state});
    thread.run(
        [&](sd_event*)
        {
            current = statePrefix + state;
            sd::check(sd_bus_emit_properties_changed(bus.get(), statePath,
                                                     stateInterface,
                                                     stateProperty, nullptr),
                      "cannot announce the host's state");
            sd::check(sd_bus_flush(bus.get()),
                      "cannot announce the host's state");
        });
}

void Host::entersPowerState(const std::string& state)
{
    announce("internal_power_state", "InternalPowerState", "InternalPowerState",
             controlInterface + "InternalPowerState.State." + state);
}

void Host::isReset(const std::string& cause)
{
    announce("reset_cause", "ResetCause", "ResetCause",
             controlInterface + "ResetCause.Cause." + cause);
}

void Host::announce(const std::string& object, const std::string& interface,
                    const std::string& property, const std::string& value)
{
    const auto path = controlPath + object;
    const auto what = "cannot announce " + property;
    timeline.record(event::ControlSignal{path, property, value});
    thread.run(
        [&](sd_event*)
        {
            sd_bus_message* made = nullptr;
            sd::check(
                sd_bus_message_new_signal(bus.get(), &made, path.c_str(),
                                          "org.freedesktop.DBus.Properties",
                                          "PropertiesChanged"),
                what);
            const sd::Message message(made);
            sd::check(
                sd_bus_message_append(made, "sa{sv}as",
                                      (controlInterface + interface).c_str(), 1,
                                      property.c_str(), "s", value.c_str(), 0),
                what);
            sd::check(sd_bus_send(bus.get(), made, nullptr), what);
            sd::check(sd_bus_flush(bus.get()), what);
        });
}

} // namespace board
