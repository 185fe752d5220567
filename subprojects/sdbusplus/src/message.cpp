// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus.hpp>
#include <sdbusplus/message.hpp>

namespace sdbusplus::message
{

message::message(sd_bus_message* msg) noexcept : _msg(sd_bus_message_ref(msg))
{
}

message::message(sd_bus_message* msg, std::false_type) noexcept : _msg(msg)
{
}

message::message(const message& other) noexcept :
    _msg(sd_bus_message_ref(other.get()))
{
}

message& message::operator=(const message& other) noexcept
{
    if (this != &other)
    {
        _msg.reset(sd_bus_message_ref(other.get()));
    }
    return *this;
}

bool message::is_method_error() const noexcept
{
    return sd_bus_message_is_method_error(get(), nullptr) != 0;
}

const char* message::get_path() const noexcept
{
    return sd_bus_message_get_path(get());
}

const char* message::get_interface() const noexcept
{
    return sd_bus_message_get_interface(get());
}

const char* message::get_member() const noexcept
{
    return sd_bus_message_get_member(get());
}

const char* message::get_sender() const noexcept
{
    return sd_bus_message_get_sender(get());
}

const char* message::get_destination() const noexcept
{
    return sd_bus_message_get_destination(get());
}

const char* message::get_signature() const noexcept
{
    constexpr int complete = 1;
    return sd_bus_message_get_signature(get(), complete);
}

bus_t message::get_bus() const
{
    return bus_t(sd_bus_message_get_bus(get()));
}

message message::new_method_return()
{
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_message_new_method_return(get(), &reply);
    if (r < 0)
    {
        throw exception::SdBusError(-r, "sd_bus_message_new_method_return");
    }
    return {reply, std::false_type()};
}

void message::method_return()
{
    sd_bus* bus = sd_bus_message_get_bus(get());
    const int r = sd_bus_send(bus, get(), nullptr);
    if (r < 0)
    {
        throw exception::SdBusError(-r, "sd_bus_send");
    }
}

void message::signal_send()
{
    method_return();
}

} // namespace sdbusplus::message
