// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus.hpp>

namespace sdbusplus::bus
{
namespace
{

using Open = int (*)(sd_bus**);

bus opened(Open open, const char* what)
{
    sd_bus* b = nullptr;
    const int r = open(&b);
    if (r < 0)
    {
        throw exception::SdBusError(-r, what);
    }
    return {b, std::false_type()};
}

/** A connection that nobody shares is closed by its only owner. */
bus openedAlone(Open open, const char* what)
{
    bus alone = opened(open, what);
    alone.set_should_close(true);
    return alone;
}

} // namespace

bus new_default()
{
    return opened(sd_bus_default, "sd_bus_default");
}

bus new_default_user()
{
    return opened(sd_bus_default_user, "sd_bus_default_user");
}

bus new_default_system()
{
    return opened(sd_bus_default_system, "sd_bus_default_system");
}

bus new_bus()
{
    return openedAlone(sd_bus_open, "sd_bus_open");
}

bus new_user()
{
    return openedAlone(sd_bus_open_user, "sd_bus_open_user");
}

bus new_system()
{
    return openedAlone(sd_bus_open_system, "sd_bus_open_system");
}

} // namespace sdbusplus::bus
