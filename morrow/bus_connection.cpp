// SPDX-License-Identifier: Apache-2.0
#include "bus_connection.hpp"

#include <sdbusplus/exception.hpp>
#include <systemd/sd-bus.h>

#include <memory>

namespace
{

/** Gives a reference to a connection back. */
struct BusRelease
{
    void operator()(sd_bus* bus) const noexcept
    {
        sd_bus_unref(bus);
    }
};

void check(int result, const char* call)
{
    if (result < 0)
    {
        throw sdbusplus::exception::SdBusError(-result, call);
    }
}

/** @param call  the function's name, for the error's text */
sdbusplus::bus_t open(int (*function)(sd_bus**), const char* call)
{
    sd_bus* opened = nullptr;
    check(function(&opened), call);
    const std::unique_ptr<sd_bus, BusRelease> own(opened);
    const char* name = nullptr; // waited for, not used
    check(sd_bus_get_unique_name(opened, &name), "sd_bus_get_unique_name");
    return sdbusplus::bus_t(opened);
}

} // namespace

sdbusplus::bus_t openDefaultSystemBus()
{
    return open(sd_bus_default_system, "sd_bus_default_system");
}

sdbusplus::bus_t openDefaultBus()
{
    return open(sd_bus_default, "sd_bus_default");
}
