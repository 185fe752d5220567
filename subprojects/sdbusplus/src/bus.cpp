// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus.hpp>

#include <utility>

namespace sdbusplus::bus
{

using exception::checked;

namespace
{

bus opened(int (*open)(sd_bus**), const char* call)
{
    sd_bus* b = nullptr;
    checked(open(&b), call);
    return {b, std::false_type()};
}

} // namespace

sd_bus* details::rawBus(const bus& b) noexcept
{
    return b._bus.get();
}

bus new_default()
{
    return opened(sd_bus_default, "sd_bus_default");
}

bus new_default_system()
{
    return opened(sd_bus_default_system, "sd_bus_default_system");
}

bus new_system()
{
    bus separate = opened(sd_bus_open_system, "sd_bus_open_system");
    separate._bus.get_deleter().close = true;
    return separate;
}

bus::bus(sd_bus* b) : _bus(sd_bus_ref(b))
{
    waitUntilUp();
}

bus::bus(sd_bus* b, std::false_type) : _bus(b)
{
    waitUntilUp();
}

void bus::waitUntilUp()
{
    if (_bus)
    {
        static_cast<void>(get_unique_name());
    }
}

void bus::request_name(const char* service)
{
    constexpr uint64_t flags =
        SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING;
    checked(sd_bus_request_name(_bus.get(), service, flags),
            "sd_bus_request_name");
}

bool bus::process_discard()
{
    const int r = sd_bus_process(_bus.get(), nullptr);
    throwStored();
    return checked(r, "sd_bus_process discard") > 0;
}

int bus::wait(uint64_t timeout)
{
    return checked(sd_bus_wait(_bus.get(), timeout), "sd_bus_wait");
}

message_t bus::new_method_call(const char* service, const char* path,
                               const char* interface, const char* method)
{
    sd_bus_message* msg = nullptr;
    checked(sd_bus_message_new_method_call(_bus.get(), &msg, service, path,
                                           interface, method),
            "sd_bus_message_new_method_call");
    return {msg, std::false_type()};
}

message_t bus::new_signal(const char* path, const char* interface,
                          const char* member)
{
    sd_bus_message* msg = nullptr;
    checked(
        sd_bus_message_new_signal(_bus.get(), &msg, path, interface, member),
        "sd_bus_message_new_signal");
    return {msg, std::false_type()};
}

message_t bus::call(message_t& msg)
{
    constexpr uint64_t defaultTimeout = 0;
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const int r =
        sd_bus_call(_bus.get(), msg.get(), defaultTimeout, &error, &reply);
    if (r < 0)
    {
        throw exception::SdBusError(&error, "sd_bus_call");
    }
    return {reply, std::false_type()};
}

std::string bus::get_unique_name()
{
    const char* name = nullptr;
    checked(sd_bus_get_unique_name(_bus.get(), &name),
            "sd_bus_get_unique_name");
    return name;
}

int bus::get_fd() noexcept
{
    return sd_bus_get_fd(_bus.get());
}

void bus::set_current_exception(std::exception_ptr exception) noexcept
{
    _stored = std::move(exception);
}

void bus::throwStored()
{
    if (_stored)
    {
        std::rethrow_exception(std::exchange(_stored, nullptr));
    }
}

} // namespace sdbusplus::bus
