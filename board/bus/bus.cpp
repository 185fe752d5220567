// SPDX-License-Identifier: Apache-2.0
#include "board/bus/bus.hpp"

#include "board/bus/managed_objects.hpp"
#include "board/util/error.hpp"

#include <unistd.h>

#include <csignal>
#include <string_view>

namespace board
{
namespace
{

namespace fs = std::filesystem;

constexpr auto service = "xyz.openbmc_project.mctp";
constexpr auto endpointInterface = "xyz.openbmc_project.mctp.Endpoint";

// What a system bus grants and refuses before any service's own policy.
constexpr auto systemPolicy = R"(
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Properties"/>
    <deny send_destination="org.freedesktop.DBus"
          send_interface="org.freedesktop.DBus"
          send_member="UpdateActivationEnvironment"/>
  </policy>
  <policy user="root">
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Monitoring"/>
  </policy>
)";

// What the host-state service's own policy grants.
constexpr auto hostPolicy = R"(
  <policy user="root">
    <allow own="xyz.openbmc_project.State.Host0"/>
  </policy>
  <policy context="default">
    <allow send_destination="xyz.openbmc_project.State.Host0"
           send_interface="org.freedesktop.DBus.Properties"/>
    <allow send_destination="xyz.openbmc_project.State.Host0"
           send_interface="org.freedesktop.DBus.Introspectable"/>
  </policy>
)";

std::string policiesWith(const fs::path& policy)
{
    if (!fs::exists(policy))
    {
        throw Error("cannot find the bus policy " + policy.string() +
                    ": it is installed with the daemon; name another with "
                    "--policy");
    }
    return std::string(systemPolicy) + "  <include>" +
           fs::canonical(policy).string() + "</include>\n" + hostPolicy;
}

/** Records an event of a path. A malformed signal is none. */
template <typename Kind>
int onPath(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/)
{
    const char* path = nullptr;
    if (sd_bus_message_read(message, "o", &path) > 0)
    {
        static_cast<Timeline*>(userdata)->record(Kind{path});
    }
    return 0;
}

int onChanged(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/)
{
    const char* interface = nullptr;
    if (sd_bus_message_read(message, "s", &interface) <= 0 ||
        std::string_view(interface) != endpointInterface ||
        sd_bus_message_enter_container(message, 'a', "{sv}") <= 0)
    {
        return 0;
    }
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0)
    {
        const char* property = nullptr;
        if (sd_bus_message_read(message, "s", &property) <= 0 ||
            sd_bus_message_skip(message, "v") < 0 ||
            sd_bus_message_exit_container(message) < 0)
        {
            return 0;
        }
        static_cast<Timeline*>(userdata)->record(
            event::EndpointChanged{sd_bus_message_get_path(message), property});
    }
    return 0;
}

int onOwner(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/)
{
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &now) > 0)
    {
        static_cast<Timeline*>(userdata)->record(event::NameOwner{name, now});
    }
    return 0;
}

} // namespace

Bus::Bus(Timeline& timeline, const fs::path& policy) :
    timeline(timeline), policies(policiesWith(policy)), broker(policies)
{
    thread.run(
        [this](sd_event* loop)
        {
            observe(loop);
        });
}

Bus::~Bus()
{
    stopObserving();
    broker.reset();
    std::error_code ignored; // gone with the sandbox in any case
    fs::remove(Broker::socketPath, ignored);
}

std::string Bus::address()
{
    return Broker::address;
}

std::string Bus::outsideAddress()
{
    return "unix:path=/proc/" + std::to_string(getpid()) + "/root" +
           Broker::socketPath;
}

std::vector<std::string> Bus::environment()
{
    // The starter type makes sd-bus's default bus the system bus, also where
    // the board runs within a user's session.
    return {"DBUS_SYSTEM_BUS_ADDRESS=" + address(),
            "DBUS_STARTER_BUS_TYPE=system"};
}

std::vector<std::string> Bus::misleadingVariables()
{
    return {"DBUS_SYSTEM_BUS_ADDRESS", "DBUS_STARTER_BUS_TYPE",
            "DBUS_STARTER_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"};
}

void Bus::match(const std::string& rule, sd_bus_message_handler_t handler)
{
    sd_bus_slot* slot = nullptr;
    sd::check(sd_bus_add_match(observer.get(), &slot, rule.c_str(), handler,
                               &timeline),
              "cannot listen on the bus");
    matches.emplace_back(slot);
}

void Bus::observe(sd_event* loop)
{
    observer = sd::connect(address());
    sd::check(
        sd_bus_attach_event(observer.get(), loop, SD_EVENT_PRIORITY_NORMAL),
        "cannot listen on the bus");
    const std::string below = ",path_namespace='/xyz/openbmc_project/mctp'";
    const std::string manager =
        "type='signal',interface='org.freedesktop.DBus.ObjectManager'";
    match(manager + ",member='InterfacesAdded'" + below,
          onPath<event::EndpointAdded>);
    match(manager + ",member='InterfacesRemoved'" + below,
          onPath<event::EndpointRemoved>);
    match("type='signal',interface='org.freedesktop.DBus.Properties',"
          "member='PropertiesChanged'" +
              below,
          onChanged);
    match(std::string("type='signal',sender='org.freedesktop.DBus',"
                      "member='NameOwnerChanged',arg0='") +
              service + "'",
          onOwner);
    takeBrokerOutput = [this]
    {
        return broker->output().drain(
            [this](std::string_view line)
            {
                timeline.record(
                    event::Output{"dbus-daemon", std::string(line)});
            });
    };
    brokerSource =
        EventThread::onReadable(loop, broker->output().fd(), takeBrokerOutput);
}

void Bus::stopObserving()
{
    thread.run(
        [this](sd_event*)
        {
            peer.reset();
            matches.clear();
            observer.reset();
            brokerSource.reset();
        });
}

void Bus::takesDaemonsName(bool replaceable)
{
    thread.run(
        [&](sd_event* loop)
        {
            auto taker = sd::connect(address());
            // Attached, so that it answers who takes it for the daemon.
            sd::check(sd_bus_attach_event(taker.get(), loop,
                                          SD_EVENT_PRIORITY_NORMAL),
                      "cannot serve another peer");
            const std::uint64_t flags =
                SD_BUS_NAME_REPLACE_EXISTING |
                (replaceable ? SD_BUS_NAME_ALLOW_REPLACEMENT : 0);
            sd::check(sd_bus_request_name(taker.get(), service, flags),
                      std::string("cannot take the bus name ") + service);
            peer = std::move(taker);
        });
}

void Bus::givesUpDaemonsName()
{
    thread.run(
        [this](sd_event*)
        {
            if (peer)
            {
                // So that it is free when this returns. It fails when the
                // name went to another owner before, which is as good.
                static_cast<void>(sd_bus_release_name(peer.get(), service));
                peer.reset();
            }
        });
}

void Bus::dies()
{
    timeline.record(event::Broker{false});
    if (broker)
    {
        broker->process().signal(SIGKILL);
    }
    stopObserving();
    broker.reset();
}

void Bus::comesBack()
{
    if (broker)
    {
        throw Error("cannot start the broker: it has not died");
    }
    timeline.record(event::Broker{true});
    broker.emplace(policies);
    thread.run(
        [this](sd_event* loop)
        {
            observe(loop);
        });
}

bool Bus::hasDaemonsName(pid_t process) const
try
{
    const auto bus = sd::connect(address());
    sd_bus_creds* made = nullptr;
    pid_t owner = 0;
    if (sd_bus_get_name_creds(bus.get(), service, SD_BUS_CREDS_PID, &made) < 0)
    {
        return false;
    }
    const sd::Creds creds(made);
    return sd_bus_creds_get_pid(made, &owner) >= 0 && owner == process;
}
catch (const Error&)
{
    return false; // nobody owns a name where no broker is
}

std::vector<EndpointObject> Bus::endpoints() const
{
    const auto bus = sd::connect(address());
    std::vector<EndpointObject> all;
    for (const auto* manager :
         {"/xyz/openbmc_project/mctp/0", "/xyz/openbmc_project/mctp/1",
          "/xyz/openbmc_project/mctp/2"})
    {
        for (auto& object : managedEndpoints(bus.get(), service, manager))
        {
            all.push_back(std::move(object));
        }
    }
    return all;
}

} // namespace board
