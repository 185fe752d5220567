// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/slot.hpp>

/** An object manager: announces the objects below its path as they come and
 *  go and lists them on request, for as long as it lives.
 */
namespace sdbusplus::server
{
namespace manager
{

struct manager
{
    /** A malformed path, or one that has a manager, is ignored. */
    manager(bus_t& bus, const char* path);

  private:
    slot_t _slot;
};

} // namespace manager

using manager_t = manager::manager;

} // namespace sdbusplus::server
