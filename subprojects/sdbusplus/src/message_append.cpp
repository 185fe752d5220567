// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/message/append.hpp>
#include <sys/uio.h>

// Every result is dropped here, in one place: appending is promised not to
// fail, and a message that a value was left out of stays short of it.
namespace sdbusplus::message::details
{

void appendBasic(sd_bus_message* msg, char type, const void* value) noexcept
{
    static_cast<void>(sd_bus_message_append_basic(msg, type, value));
}

void appendText(sd_bus_message* msg, std::string_view text) noexcept
{
    // iovec serves both directions and so has no const; it is only read here.
    const iovec piece{const_cast<char*>(text.data()), text.size()};
    static_cast<void>(sd_bus_message_append_string_iovec(msg, &piece, 1));
}

void openContainer(sd_bus_message* msg, char type,
                   const char* contents) noexcept
{
    static_cast<void>(sd_bus_message_open_container(msg, type, contents));
}

void closeContainer(sd_bus_message* msg) noexcept
{
    static_cast<void>(sd_bus_message_close_container(msg));
}

} // namespace sdbusplus::message::details
