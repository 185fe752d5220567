// SPDX-License-Identifier: Apache-2.0
#include "lasting_connection.hpp"

#include <sdbusplus/exception.hpp>

void LastingConnection::hold()
{
    const int result = sd_bus_default_system(&connection);
    if (result < 0)
    {
        throw sdbusplus::exception::SdBusError(-result,
                                               "sd_bus_default_system");
    }
}

// The results below are ignored: without a connection there is nothing to
// withdraw, and a connection that the broker has given up needs no goodbye.

void LastingConnection::manage(const char* path)
{
    (void)sd_bus_add_object_manager(connection, nullptr, path);
}

void LastingConnection::close()
{
    (void)sd_bus_flush(connection);
    sd_bus_close(connection);
}
