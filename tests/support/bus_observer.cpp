// SPDX-License-Identifier: Apache-2.0
#include "bus_observer.hpp"

#include "record.hpp"

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

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

std::string textOf(const std::string& text)
{
    return text;
}

std::string textOf(const std::vector<uint8_t>& bytes)
{
    std::string list;
    for (const uint8_t byte : bytes)
    {
        list += (list.empty() ? "" : ",") + std::to_string(byte);
    }
    return "[" + list + "]";
}

std::string textOf(uint32_t number)
{
    return std::to_string(number);
}

std::string textOf(const Value& value)
{
    return std::visit(
        [](const auto& held)
        {
            return textOf(held);
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
    if (member == "NameOwnerChanged")
    {
        std::string name;
        std::string before;
        std::string after;
        message.read(name, before, after);
        return after.empty() ? "gone" : "owned";
    }
    return message.get_path();
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

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

/** Calls the daemon. */
template <typename... Arguments>
sdbusplus::message_t ask(sdbusplus::bus_t& bus, const std::string& path,
                         const char* calledInterface, const char* member,
                         const Arguments&... arguments)
{
    auto call =
        bus.new_method_call(service, path.c_str(), calledInterface, member);
    call.append(arguments...);
    return bus.call(call);
}

/** The text of what the daemon answers, or the error's name and message. */
template <typename Answer, typename... Arguments>
std::string answerTo(const Arguments&... arguments)
{
    try
    {
        auto bus = sdbusplus::bus::new_system();
        Answer answer{};
        ask(bus, arguments...).read(answer);
        return textOf(answer);
    }
    catch (const sdbusplus::exception::SdBusError& error)
    {
        return std::string(error.name()) + ": " + error.description();
    }
}

} // namespace

BusObserver::BusObserver()
{
    for (const char* rule :
         {"type='signal',interface='org.freedesktop.DBus.ObjectManager'",
          "type='signal',interface='org.freedesktop.DBus.Properties',"
          "path_namespace='/xyz/openbmc_project/mctp'",
          "type='signal',interface='xyz.openbmc_project.mctp.Endpoint'",
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
    (void)sd_bus_call_method(marker.get(), service, "/",
                             "org.freedesktop.DBus.Peer", "Ping", nullptr,
                             nullptr, nullptr);
    check(sd_bus_emit_signal(marker.get(), "/test", "test.Marker", "Mark",
                             nullptr),
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
    return answerTo<Properties>(path, propertiesInterface, "GetAll", interface);
}

std::string get(const std::string& path, const std::string& property)
{
    return answerTo<Value>(path, propertiesInterface, "Get", interface,
                           property);
}

std::string getArbitration(const std::string& path, uint8_t eid)
{
    return answerTo<uint32_t>(path, interface, "GetArbitration", eid);
}

std::string introspect(const std::string& path)
{
    return answerTo<std::string>(path, "org.freedesktop.DBus.Introspectable",
                                 "Introspect");
}

std::map<std::string, std::string> managed(sdbusplus::bus_t& bus,
                                           const std::string& manager)
{
    auto reply = ask(bus, manager, "org.freedesktop.DBus.ObjectManager",
                     "GetManagedObjects");
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
