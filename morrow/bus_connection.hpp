// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Opens the calling thread's default connections.
 *
 * The bus wrapper has functions for that, but its releases differ when a
 * connection cannot be opened: an old one wraps nothing and raises nothing,
 * newer ones raise an error with a text of their own, and with both the process
 * ends when the broker ends the connection during the handshake. So the daemon
 * makes both calls itself, raises the same error in every case, and gives the
 * wrapper a connection that is fully up.
 *
 * libsystemd keeps one default connection for each thread; it is closed when
 * the thread's last reference to it goes.
 */

#include <sdbusplus/bus.hpp>

/** The calling thread's default connection to the system bus, fully up. Any
 *  thread.
 *  @throws sdbusplus::exception::SdBusError "sd_bus_default_system" when it
 *          cannot be opened, "sd_bus_get_unique_name" when the broker does not
 *          complete the handshake; either, when it hangs up at once. See
 *          sd_bus_default_system(3). */
sdbusplus::bus_t openDefaultSystemBus();

/** The same for the thread's default bus.
 *  @throws sdbusplus::exception::SdBusError "sd_bus_default", or as above */
sdbusplus::bus_t openDefaultBus();
