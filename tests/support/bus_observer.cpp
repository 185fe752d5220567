// SPDX-License-Identifier: Apache-2.0
#include "bus_observer.hpp"

#include "record.hpp"

#include <poll.h>
#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string_view>
#include <variant>

namespace
{

constexpr const char* service = "xyz.openbmc_project.mctp";
constexpr const char* interface = "xyz.openbmc_project.mctp.Endpoint";

using Value = std::variant<std::string, std::vector<uint8_t>, uint16_t,
                           uint32_t, uint8_t>;
using Properties = std::map<std::string, Value>;
using Interfaces = std::map<std::string, Properties>;

std::string textOf(const Value& value)
{
    if (const auto* text = std::get_if<std::string>(&value))
    {
        return *text;
    }
    if (const auto* bytes = std::get_if<std::vector<uint8_t>>(&value))
    {
        std::string list;
        for (const uint8_t byte : *bytes)
        {
            list += (list.empty() ? "" : ",") + std::to_string(byte);
        }
        return "[" + list + "]";
    }
    return std::visit(
        [](const auto& number) -> std::string
        {
            if constexpr (std::is_integral_v<
                              std::remove_cvref_t<decltype(number)>>)
            {
                return std::to_string(number);
            }
            return {};
        },
        value);
}

std::string textOf(const Properties& properties)
{
    std::string text;
    for (const auto& [name, value] : properties)
    {
        text += " " + name + "=" + textOf(value);
    }
    return text;
}

/** An object path is no std::string to the wrapper. */
std::string readPath(sdbusplus::message_t& message)
{
    const char* path = nullptr;
    check(sd_bus_message_read(message.get(), "o", &path), "path");
    return path;
}

std::string describe(sdbusplus::message_t& message)
{
    const std::string_view member = message.get_member();
    if (member == "InterfacesAdded")
    {
        const auto path = readPath(message);
        Interfaces interfaces;
        message.read(interfaces);
        return path + textOf(interfaces[interface]);
    }
    if (member == "InterfacesRemoved")
    {
        std::string text = readPath(message);
        std::vector<std::string> names;
        message.read(names);
        for (const auto& name : names)
        {
            text += " " + name;
        }
        return text;
    }
    if (member == "PropertiesChanged")
    {
        std::string changed;
        Properties properties;
        message.read(changed, properties);
        return message.get_path() + textOf(properties);
    }
    std::string name;
    std::string before;
    std::string after;
    message.read(name, before, after);
    return after.empty() ? "gone" : "owned";
}

int onSignal(sd_bus_message* raw, void* /*userData*/, sd_bus_error* /*error*/)
{
    sdbusplus::message_t message(raw);
    if (sd_bus_message_is_signal(raw, "test.Marker", nullptr) > 0)
    {
        record::add("mark");
        return 0;
    }
    const auto text = describe(message);
    record::add("%s %s", message.get_member(), text.c_str());
    return 0;
}

sdbusplus::message_t newCall(sdbusplus::bus_t& bus, const std::string& path,
                             const char* calledInterface, const char* member)
{
    return bus.new_method_call(service, path.c_str(), calledInterface, member);
}

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

/** Runs a call and turns its error into text. */
template <typename Call>
std::string orError(const Call& call)
{
    try
    {
        auto bus = sdbusplus::bus::new_system();
        return call(bus);
    }
    catch (const sdbusplus::exception::SdBusError& error)
    {
        return std::string(error.name()) + ": " + error.description();
    }
}

} // namespace

BusObserver::BusObserver()
{
    check(sd_bus_open_system(&marker), "sd_bus_open_system");
    for (const char* rule :
         {"type='signal',interface='org.freedesktop.DBus.ObjectManager'",
          "type='signal',interface='org.freedesktop.DBus.Properties',"
          "path_namespace='/xyz/openbmc_project/mctp'",
          "type='signal',sender='org.freedesktop.DBus',"
          "member='NameOwnerChanged',arg0='xyz.openbmc_project.mctp'",
          "type='signal',interface='test.Marker'"})
    {
        check(sd_bus_add_match(connection.get(), nullptr, rule, onSignal,
                               nullptr),
              rule);
    }
    connection.serve(
        [this]
        {
            threadId = record::thisThread();
        });
}

BusObserver::~BusObserver()
{
    sd_bus_flush_close_unref(marker);
}

std::vector<std::string> BusObserver::seen(std::size_t from) const
{
    auto texts = record::textsOf(threadId);
    std::erase(texts, "mark");
    return {texts.begin() + static_cast<std::ptrdiff_t>(from), texts.end()};
}

void BusObserver::catchUp()
{
    // The answer comes behind the daemon's signals; without a daemon there is
    // nothing to wait for.
    (void)sd_bus_call_method(marker, service, "/", "org.freedesktop.DBus.Peer",
                             "Ping", nullptr, nullptr, nullptr);
    check(sd_bus_emit_signal(marker, "/test", "test.Marker", "Mark", nullptr),
          "mark");
    if (!record::waitFor("mark", ++marks))
    {
        throw std::runtime_error("the bus does not answer");
    }
}

namespace busctl
{

std::string getAll(const std::string& path)
{
    return orError(
        [&](sdbusplus::bus_t& bus)
        {
            auto call = newCall(bus, path, propertiesInterface, "GetAll");
            call.append(interface);
            auto reply = bus.call(call);
            Properties properties;
            reply.read(properties);
            return textOf(properties);
        });
}

std::string get(const std::string& path, const std::string& property)
{
    return orError(
        [&](sdbusplus::bus_t& bus)
        {
            auto call = newCall(bus, path, propertiesInterface, "Get");
            call.append(interface, property);
            auto reply = bus.call(call);
            Value value;
            reply.read(value);
            return textOf(value);
        });
}

std::string getArbitration(const std::string& path, uint8_t eid)
{
    return orError(
        [&](sdbusplus::bus_t& bus)
        {
            auto call = newCall(bus, path, interface, "GetArbitration");
            call.append(eid);
            auto reply = bus.call(call);
            uint32_t answer = 0;
            reply.read(answer);
            return std::to_string(answer);
        });
}

std::string setEid(const std::string& path, uint8_t eid)
{
    return orError(
        [&](sdbusplus::bus_t& bus)
        {
            auto call = newCall(bus, path, propertiesInterface, "Set");
            check(sd_bus_message_append(call.get(), "ssv", interface, "EID",
                                        "y", eid),
                  "append");
            bus.call(call);
            return std::string();
        });
}

std::string introspect(const std::string& path)
{
    return orError(
        [&](sdbusplus::bus_t& bus)
        {
            auto call = newCall(
                bus, path, "org.freedesktop.DBus.Introspectable", "Introspect");
            auto reply = bus.call(call);
            std::string xml;
            reply.read(xml);
            return xml;
        });
}

std::map<std::string, std::string> managed(sdbusplus::bus_t& bus,
                                           const std::string& manager)
{
    auto call = newCall(bus, manager, "org.freedesktop.DBus.ObjectManager",
                        "GetManagedObjects");
    auto reply = bus.call(call);
    std::map<std::string, std::string> objects;
    check(sd_bus_message_enter_container(reply.get(), 'a', "{oa{sa{sv}}}"),
          "objects");
    while (check(sd_bus_message_enter_container(reply.get(), 'e', "oa{sa{sv}}"),
                 "object") > 0)
    {
        const auto path = readPath(reply);
        Interfaces interfaces;
        reply.read(interfaces);
        objects[path] = textOf(interfaces[interface]);
        check(sd_bus_message_exit_container(reply.get()), "object");
    }
    return objects;
}

std::vector<std::string> managedObjects(const std::string& manager)
{
    auto bus = sdbusplus::bus::new_system();
    std::vector<std::string> paths;
    for (const auto& [path, properties] : managed(bus, manager))
    {
        paths.push_back(path);
    }
    return paths;
}

std::vector<std::string> managedValues(const std::string& manager)
{
    auto bus = sdbusplus::bus::new_system();
    std::vector<std::string> objects;
    for (const auto& [path, properties] : managed(bus, manager))
    {
        objects.push_back(path + properties);
    }
    return objects;
}

bool hasOwner(const std::string& name)
{
    auto bus = sdbusplus::bus::new_system();
    auto call =
        bus.new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus", "NameHasOwner");
    call.append(name);
    auto reply = bus.call(call);
    bool answer = false;
    reply.read(answer);
    return answer;
}

} // namespace busctl
