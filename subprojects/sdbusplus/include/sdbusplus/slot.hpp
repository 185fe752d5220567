// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

/** Ownership of an sd_bus_slot: a registration (match, object, manager) that
 *  lives until its slot is dropped. The slot keeps its own reference to the
 *  bus inside of libsystemd. Drop it on the thread that uses the bus.
 */
namespace sdbusplus
{
namespace slot::details
{

struct SlotUnref
{
    void operator()(sd_bus_slot* slot) const noexcept
    {
        // Always null by contract: there is nothing left to look at.
        static_cast<void>(sd_bus_slot_unref(slot));
    }
};

} // namespace slot::details

using slot_t = std::unique_ptr<sd_bus_slot, slot::details::SlotUnref>;

} // namespace sdbusplus
