// SPDX-License-Identifier: Apache-2.0
#include "host_service.hpp"

#include <utility>

namespace
{

constexpr const char* serviceName = "xyz.openbmc_project.State.Host0";
constexpr const char* objectPath = "/xyz/openbmc_project/state/host0";
constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

int appendText(sd_bus_message* message, const std::string& text)
{
    return sd_bus_message_append(message, "v", "s", text.c_str());
}

} // namespace

HostService::HostService()
{
    goesTo("Off");
    auto* bus = connection.get();
    check(sd_bus_add_object(bus, nullptr, objectPath, onCall, this),
          "sd_bus_add_object");
    check(sd_bus_request_name(bus, serviceName, 0), serviceName);
    connection.serve();
}

void HostService::goesTo(const std::string& state)
{
    answersText("xyz.openbmc_project.State.Host.HostState." + state);
}

void HostService::answersText(const std::string& text)
{
    answers(
        [text](sd_bus_message* reply)
        {
            return appendText(reply, text);
        });
}

void HostService::answers(Fill newFill)
{
    const std::lock_guard lock(mutex);
    fill = std::move(newFill);
    errorName.clear();
}

void HostService::answersError(const std::string& name)
{
    const std::lock_guard lock(mutex);
    errorName = name;
}

std::size_t HostService::reads() const
{
    const std::lock_guard lock(mutex);
    return answered;
}

std::string HostService::lastRead() const
{
    const std::lock_guard lock(mutex);
    return asked;
}

std::string HostService::lastReader() const
{
    const std::lock_guard lock(mutex);
    return asker;
}

int HostService::onCall(sd_bus_message* call, void* self, sd_bus_error* error)
{
    if (sd_bus_message_is_method_call(call, propertiesInterface, "Get") <= 0)
    {
        return 0;
    }
    auto& service = *static_cast<HostService*>(self);
    const char* interface = nullptr;
    const char* property = nullptr;
    check(sd_bus_message_read(call, "ss", &interface, &property), "Get");
    const std::lock_guard lock(service.mutex);
    ++service.answered;
    service.asked = std::string(interface) + " " + property;
    service.asker = sd_bus_message_get_sender(call);
    if (!service.errorName.empty())
    {
        return sd_bus_error_set(error, service.errorName.c_str(),
                                "as the test wants it");
    }
    sd_bus_message* reply = nullptr;
    check(sd_bus_message_new_method_return(call, &reply), "reply");
    check(service.fill(reply), "fill");
    const int result = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result < 0 ? result : 1;
}

int appendChanges(sd_bus_message* message,
                  const std::vector<Change>& properties)
{
    check(sd_bus_message_append(message, "s", "test.Interface"), "interface");
    check(sd_bus_message_open_container(message, 'a', "{sv}"), "dictionary");
    for (const auto& [name, text] : properties)
    {
        check(sd_bus_message_append(message, "{sv}", name.c_str(), "s",
                                    text.c_str()),
              "entry");
    }
    check(sd_bus_message_close_container(message), "dictionary");
    return sd_bus_message_append(message, "as", 0);
}

void HostControl::changes(const char* path,
                          const std::vector<Change>& properties)
{
    signals(path, propertiesInterface, "PropertiesChanged",
            [&properties](sd_bus_message* message)
            {
                return appendChanges(message, properties);
            });
}

void HostControl::signals(const char* path, const char* interface,
                          const char* member,
                          const std::function<int(sd_bus_message*)>& fill)
{
    auto* bus = connection.get();
    sd_bus_message* message = nullptr;
    check(sd_bus_message_new_signal(bus, &message, path, interface, member),
          "signal");
    check(fill(message), "body");
    check(sd_bus_send(bus, message, nullptr), "send");
    sd_bus_message_unref(message);
    check(sd_bus_flush(bus), "flush");
}
