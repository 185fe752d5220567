// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

/** Ownership of an sd_bus_slot: a registration (match, object, manager) that
 *  ends when its slot is dropped, on the thread that uses the bus. libsystemd
 *  keeps the bus alive for as long as a slot exists.
 */
namespace sdbusplus
{
namespace slot::details
{

struct SlotUnref
{
    void operator()(sd_bus_slot* slot) const noexcept
    {
        // Returns null.
        static_cast<void>(sd_bus_slot_unref(slot));
    }
};

} // namespace slot::details

using slot_t = std::unique_ptr<sd_bus_slot, slot::details::SlotUnref>;

} // namespace sdbusplus
