// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message/read.hpp>

namespace sdbusplus::message::details
{
namespace
{

/** @return r, which is no error */
int checked(int r, const char* what)
{
    if (r < 0)
    {
        throw exception::SdBusError(-r, what);
    }
    return r;
}

} // namespace

void readBasic(sd_bus_message* msg, char type, void* value, const char* what)
{
    const int r = sd_bus_message_read_basic(msg, type, value);
    // 0 says that there is nothing left to read.
    checked(r == 0 ? -ENXIO : r, what);
}

void enterContainer(sd_bus_message* msg, char type, const char* contents,
                    const char* what)
{
    const int r = sd_bus_message_enter_container(msg, type, contents);
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

bool isNext(sd_bus_message* msg, char type, const char* contents,
            const char* what)
{
    return checked(sd_bus_message_verify_type(msg, type, contents), what) != 0;
}

void skip(sd_bus_message* msg, const char* types, const char* what)
{
    checked(sd_bus_message_skip(msg, types), what);
}

} // namespace sdbusplus::message::details
