// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/message.hpp>

namespace sdbusplus::message
{

using exception::checked;

message::message(sd_bus_message* msg) noexcept : _msg(sd_bus_message_ref(msg))
{
}

message::message(sd_bus_message* msg, std::false_type) noexcept : _msg(msg)
{
}

bool message::is_method_error() const noexcept
{
    return sd_bus_message_is_method_error(get(), nullptr) != 0;
}

const char* message::get_path() const noexcept
{
    return sd_bus_message_get_path(get());
}

const char* message::get_member() const noexcept
{
    return sd_bus_message_get_member(get());
}

message message::new_method_return()
{
    sd_bus_message* reply = nullptr;
    checked(sd_bus_message_new_method_return(get(), &reply),
            "sd_bus_message_new_method_return");
    return {reply, std::false_type()};
}

void message::method_return()
{
    checked(sd_bus_send(sd_bus_message_get_bus(get()), get(), nullptr),
            "sd_bus_send");
}

void message::signal_send()
{
    method_return();
}

namespace details
{

void append(sd_bus_message* msg, uint8_t value) noexcept
{
    static_cast<void>(sd_bus_message_append_basic(msg, 'y', &value));
}

void append(sd_bus_message* msg, uint16_t value) noexcept
{
    static_cast<void>(sd_bus_message_append_basic(msg, 'q', &value));
}

void append(sd_bus_message* msg, uint32_t value) noexcept
{
    static_cast<void>(sd_bus_message_append_basic(msg, 'u', &value));
}

void append(sd_bus_message* msg, const char* value) noexcept
{
    static_cast<void>(sd_bus_message_append_basic(msg, 's', value));
}

void append(sd_bus_message* msg, const std::string& value) noexcept
{
    append(msg, value.c_str());
}

void append(sd_bus_message* msg, const std::vector<uint8_t>& value) noexcept
{
    static_cast<void>(
        sd_bus_message_append_array(msg, 'y', value.data(), value.size()));
}

void readBasic(sd_bus_message* msg, char type, void* value, const char* what)
{
    const int r = sd_bus_message_read_basic(msg, type, value);
    // 0: there is nothing left to read.
    checked(r == 0 ? -ENXIO : r, what);
}

void enterContainer(sd_bus_message* msg, char type, const std::string& contents,
                    const char* what)
{
    const int r = sd_bus_message_enter_container(msg, type, contents.c_str());
    checked(r == 0 ? -ENXIO : r, what);
}

void exitContainer(sd_bus_message* msg, const char* what)
{
    checked(sd_bus_message_exit_container(msg), what);
}

bool atEnd(sd_bus_message* msg, const char* what)
{
    constexpr int ofContainer = 0;
    return checked(sd_bus_message_at_end(msg, ofContainer), what) != 0;
}

bool isVariantOf(sd_bus_message* msg, const std::string& contents)
{
    return checked(sd_bus_message_verify_type(msg, SD_BUS_TYPE_VARIANT,
                                              contents.c_str()),
                   "sd_bus_message_verify_type variant") != 0;
}

void skipVariant(sd_bus_message* msg)
{
    checked(sd_bus_message_skip(msg, "v"), "sd_bus_message_skip variant");
}

} // namespace details
} // namespace sdbusplus::message
