// SPDX-License-Identifier: Apache-2.0
#include "board/bus/managed_objects.hpp"

#include "board/bus/sd.hpp"
#include "board/util/error.hpp"

#include <algorithm>
#include <functional>
#include <string_view>

namespace board
{
namespace
{

constexpr auto misunderstood = "cannot read the answer to GetManagedObjects";
constexpr std::uint64_t answerLimitUs = 10'000'000;

/** Calls back for every entry of the array of dictionary entries that is
 *  next in the message. */
void forEachEntry(sd_bus_message* message, const char* contents,
                  const char* entry, const std::function<void()>& read)
{
    sd::check(
        sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, contents),
        misunderstood);
    while (sd::check(sd_bus_message_enter_container(
                         message, SD_BUS_TYPE_DICT_ENTRY, entry),
                     misunderstood) > 0)
    {
        read();
        sd::check(sd_bus_message_exit_container(message), misunderstood);
    }
    sd::check(sd_bus_message_exit_container(message), misunderstood);
}

void read(sd_bus_message* message, const char* types, auto... values)
{
    sd::check(sd_bus_message_read(message, types, values...), misunderstood);
}

std::vector<std::uint8_t> readBytes(sd_bus_message* message)
{
    const void* bytes = nullptr;
    std::size_t size = 0;
    sd::check(sd_bus_message_enter_container(message, 'v', "ay"),
              misunderstood);
    sd::check(sd_bus_message_read_array(message, 'y', &bytes, &size),
              misunderstood);
    sd::check(sd_bus_message_exit_container(message), misunderstood);
    const auto* const first = static_cast<const std::uint8_t*>(bytes);
    return {first, first + size};
}

void readProperty(sd_bus_message* message, EndpointObject& object)
{
    const char* text = nullptr;
    read(message, "s", &text);
    const std::string_view name(text);
    if (name == "NetworkId")
    {
        read(message, "v", "u", &object.networkId);
    }
    else if (name == "EID")
    {
        read(message, "v", "y", &object.eid);
    }
    else if (name == "SupportedMessageTypes")
    {
        object.supportedMessageTypes = readBytes(message);
    }
    else if (name == "EndpointType")
    {
        read(message, "v", "q", &object.endpointType);
    }
    else if (name == "Slot")
    {
        read(message, "v", "q", &object.slot);
    }
    else if (name == "DevicePath")
    {
        read(message, "v", "s", &text);
        object.devicePath = text;
    }
    else
    {
        throw Error("an endpoint has an unknown property " + std::string(name));
    }
}

/** Reads an object, and keeps it when one of its interfaces makes it an
 *  endpoint. */
void readObject(sd_bus_message* message, std::vector<EndpointObject>& objects)
{
    const char* path = nullptr;
    read(message, "o", &path);
    forEachEntry(
        message, "{sa{sv}}", "sa{sv}",
        [&]
        {
            const char* interface = nullptr;
            read(message, "s", &interface);
            if (std::string_view(interface) !=
                "xyz.openbmc_project.mctp.Endpoint")
            {
                sd::check(sd_bus_message_skip(message, "a{sv}"), misunderstood);
                return;
            }
            auto& object = objects.emplace_back(EndpointObject{.path = path});
            forEachEntry(message, "{sv}", "sv",
                         [&]
                         {
                             readProperty(message, object);
                         });
        });
}

} // namespace

std::vector<EndpointObject> managedEndpoints(sd_bus* bus,
                                             const std::string& service,
                                             const std::string& manager)
{
    const auto what = "cannot read the endpoints at " + manager;
    sd::BusError error;
    sd_bus_message* answered = nullptr;
    sd::check(sd_bus_set_method_call_timeout(bus, answerLimitUs), what);
    if (sd_bus_call_method(bus, service.c_str(), manager.c_str(),
                           "org.freedesktop.DBus.ObjectManager",
                           "GetManagedObjects", &error.error, &answered,
                           "") < 0)
    {
        throw Error(what + ": " + error.error.name + ": " +
                    error.error.message);
    }
    const sd::Message answer(answered);
    std::vector<EndpointObject> objects;
    forEachEntry(answered, "{oa{sa{sv}}}", "oa{sa{sv}}",
                 [&]
                 {
                     readObject(answered, objects);
                 });
    std::sort(objects.begin(), objects.end(),
              [](const auto& one, const auto& other)
              {
                  return one.path < other.path;
              });
    return objects;
}

} // namespace board
