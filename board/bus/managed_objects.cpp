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

std::string readText(sd_bus_message* message, char type)
{
    const char* text = nullptr;
    sd::check(sd_bus_message_read_basic(message, type, &text), misunderstood);
    return text;
}

template <typename Value>
void readValue(sd_bus_message* message, char type, Value& value)
{
    const std::string contents(1, type);
    sd::check(sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT,
                                             contents.c_str()),
              misunderstood);
    sd::check(sd_bus_message_read_basic(message, type, &value), misunderstood);
    sd::check(sd_bus_message_exit_container(message), misunderstood);
}

std::vector<std::uint8_t> readBytes(sd_bus_message* message)
{
    const void* bytes = nullptr;
    std::size_t size = 0;
    sd::check(
        sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, "ay"),
        misunderstood);
    sd::check(
        sd_bus_message_read_array(message, SD_BUS_TYPE_BYTE, &bytes, &size),
        misunderstood);
    sd::check(sd_bus_message_exit_container(message), misunderstood);
    const auto* const first = static_cast<const std::uint8_t*>(bytes);
    return {first, first + size};
}

void readProperty(sd_bus_message* message, EndpointObject& object)
{
    const auto name = readText(message, SD_BUS_TYPE_STRING);
    if (name == "NetworkId")
    {
        readValue(message, SD_BUS_TYPE_UINT32, object.networkId);
    }
    else if (name == "EID")
    {
        readValue(message, SD_BUS_TYPE_BYTE, object.eid);
    }
    else if (name == "SupportedMessageTypes")
    {
        object.supportedMessageTypes = readBytes(message);
    }
    else if (name == "EndpointType")
    {
        readValue(message, SD_BUS_TYPE_UINT16, object.endpointType);
    }
    else if (name == "Slot")
    {
        readValue(message, SD_BUS_TYPE_UINT16, object.slot);
    }
    else if (name == "DevicePath")
    {
        const char* path = nullptr;
        readValue(message, SD_BUS_TYPE_STRING, path);
        object.devicePath = path;
    }
    else
    {
        throw Error("an endpoint has an unknown property " + name);
    }
}

/** @return the object, when one of its interfaces makes it an endpoint */
std::vector<EndpointObject> readObject(sd_bus_message* message)
{
    EndpointObject object{.path = readText(message, SD_BUS_TYPE_OBJECT_PATH)};
    auto isEndpoint = false;
    forEachEntry(message, "{sa{sv}}", "sa{sv}",
                 [&]
                 {
                     if (readText(message, SD_BUS_TYPE_STRING) !=
                         "xyz.openbmc_project.mctp.Endpoint")
                     {
                         sd::check(sd_bus_message_skip(message, "a{sv}"),
                                   misunderstood);
                         return;
                     }
                     isEndpoint = true;
                     forEachEntry(message, "{sv}", "sv",
                                  [&]
                                  {
                                      readProperty(message, object);
                                  });
                 });
    return isEndpoint ? std::vector{object} : std::vector<EndpointObject>();
}

} // namespace

std::vector<EndpointObject> managedEndpoints(sd_bus* bus,
                                             const std::string& service,
                                             const std::string& manager)
{
    const auto what = "cannot read the endpoints at " + manager;
    sd_bus_message* made = nullptr;
    sd::check(sd_bus_message_new_method_call(
                  bus, &made, service.c_str(), manager.c_str(),
                  "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"),
              what);
    const sd::Message call(made);
    sd::BusError error;
    sd_bus_message* answered = nullptr;
    if (sd_bus_call(bus, made, answerLimitUs, &error.error, &answered) < 0)
    {
        throw Error(what + ": " + error.error.name + ": " +
                    error.error.message);
    }
    const sd::Message answer(answered);
    std::vector<EndpointObject> objects;
    forEachEntry(answered, "{oa{sa{sv}}}", "oa{sa{sv}}",
                 [&]
                 {
                     for (auto& object : readObject(answered))
                     {
                         objects.push_back(std::move(object));
                     }
                 });
    std::sort(objects.begin(), objects.end(),
              [](const auto& one, const auto& other)
              {
                  return one.path < other.path;
              });
    return objects;
}

} // namespace board
