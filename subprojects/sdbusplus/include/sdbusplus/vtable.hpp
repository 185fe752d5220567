// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>

/** Entries of an object's member table, as functions instead of sd-bus's
 *  initialiser macros.
 *
 *  A table is a static array: start, then methods, signals and properties,
 *  then end; introspection keeps its order. The layout is the one that can
 *  carry argument names; the names are left empty. Everything is constexpr,
 *  so tables cost nothing at run time.
 */
namespace sdbusplus
{

using vtable_t = sd_bus_vtable;

namespace vtable
{

/** Flags of any member. */
namespace common_
{
constexpr uint64_t deprecated = SD_BUS_VTABLE_DEPRECATED;
constexpr uint64_t hidden = SD_BUS_VTABLE_HIDDEN;
constexpr uint64_t unprivileged = SD_BUS_VTABLE_UNPRIVILEGED;
} // namespace common_

/** Flags of methods. */
namespace method_
{
constexpr uint64_t no_reply = SD_BUS_VTABLE_METHOD_NO_REPLY;
} // namespace method_

/** Flags of properties. */
namespace property_
{
constexpr uint64_t none = 0;
constexpr uint64_t const_ = SD_BUS_VTABLE_PROPERTY_CONST;
constexpr uint64_t emits_change = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
constexpr uint64_t emits_invalidation =
    SD_BUS_VTABLE_PROPERTY_EMITS_INVALIDATION;
constexpr uint64_t explicit_ = SD_BUS_VTABLE_PROPERTY_EXPLICIT;
} // namespace property_

constexpr vtable_t start(uint64_t flags = 0)
{
    return SD_BUS_VTABLE_START(flags);
}

constexpr vtable_t end()
{
    return SD_BUS_VTABLE_END;
}

constexpr vtable_t method(const char* name, const char* signature,
                          const char* result, sd_bus_message_handler_t handler,
                          uint64_t flags = 0)
{
    return SD_BUS_METHOD(name, signature, result, handler, flags);
}

/** As method(); the handler's userdata is moved on by offset bytes. */
constexpr vtable_t method_o(const char* name, const char* signature,
                            const char* result,
                            sd_bus_message_handler_t handler, size_t offset,
                            uint64_t flags = 0)
{
    return SD_BUS_METHOD_WITH_OFFSET(name, signature, result, handler, offset,
                                     flags);
}

constexpr vtable_t signal(const char* name, const char* signature,
                          uint64_t flags = 0)
{
    return SD_BUS_SIGNAL(name, signature, flags);
}

/** A property that peers can only read. */
constexpr vtable_t property(const char* name, const char* signature,
                            sd_bus_property_get_t get, uint64_t flags = 0)
{
    return SD_BUS_PROPERTY(name, signature, get, 0, flags);
}

/** A property that peers can also set. */
constexpr vtable_t property(const char* name, const char* signature,
                            sd_bus_property_get_t get,
                            sd_bus_property_set_t set, uint64_t flags = 0)
{
    return SD_BUS_WRITABLE_PROPERTY(name, signature, get, set, 0, flags);
}

/** A property that sd-bus itself reads from userdata plus offset, unless a
 *  get handler is given.
 */
constexpr vtable_t property_o(const char* name, const char* signature,
                              sd_bus_property_get_t get, size_t offset,
                              uint64_t flags = 0)
{
    return SD_BUS_PROPERTY(name, signature, get, offset, flags);
}

} // namespace vtable
} // namespace sdbusplus
