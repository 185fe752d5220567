// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/server.hpp>

#include <array>

namespace sdbusplus::server
{

using bus::details::rawBus;

manager::manager::manager(bus_t& bus, const char* path)
{
    sd_bus_slot* slot = nullptr;
    // Without a slot there is no manager.
    static_cast<void>(sd_bus_add_object_manager(rawBus(bus), &slot, path));
    _slot.reset(slot);
}

namespace interface
{

interface::interface(bus_t& bus, const char* path, const char* name,
                     const sd_bus_vtable* vtable, void* context) :
    _bus(rawBus(bus)),
    _path(path), _interface(name)
{
    sd_bus_slot* slot = nullptr;
    exception::checked(
        sd_bus_add_object_vtable(rawBus(_bus), &slot, _path.c_str(),
                                 _interface.c_str(), vtable, context),
        "sd_bus_add_object_vtable");
    _slot.reset(slot);
}

message_t interface::new_signal(const char* member)
{
    return _bus.new_signal(_path.c_str(), _interface.c_str(), member);
}

void interface::property_changed(const char* property) noexcept
{
    // sd-bus only reads the names, though its type says otherwise.
    std::array<char*, 2> names{const_cast<char*>(property), nullptr};
    // A client that misses a change reads the property.
    static_cast<void>(sd_bus_emit_properties_changed_strv(
        rawBus(_bus), _path.c_str(), _interface.c_str(), names.data()));
}

} // namespace interface
} // namespace sdbusplus::server
