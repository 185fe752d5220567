// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/server.hpp>

#include <array>

// Announcements are best effort: without an enclosing object manager, or on a
// connection that is gone, there is nobody to tell, and the object is the same.
namespace sdbusplus::server
{
namespace
{

sd_bus* rawBus(const bus_t& bus) noexcept
{
    return bus::details::bus_friend::get_busp(bus);
}

/** The one text as the NULL-terminated list that sd-bus takes; sd-bus only
 *  reads it, though its type says otherwise.
 */
std::array<char*, 2> listOf(const char* text) noexcept
{
    return {const_cast<char*>(text), nullptr};
}

} // namespace

namespace manager
{

manager::manager(bus_t& bus, const char* path)
{
    sd_bus_slot* slot = nullptr;
    // A path that cannot have a manager simply goes without.
    static_cast<void>(sd_bus_add_object_manager(rawBus(bus), &slot, path));
    _slot.reset(slot);
}

} // namespace manager

namespace interface
{

interface::interface(bus_t& bus, const char* path, const char* name,
                     const vtable_t* vtable, void* context) :
    _bus(rawBus(bus)),
    _path(path), _interface(name)
{
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_add_object_vtable(rawBus(_bus), &slot, _path.c_str(),
                                           _interface.c_str(), vtable, context);
    if (r < 0)
    {
        throw exception::SdBusError(-r, "sd_bus_add_object_vtable");
    }
    _slot.reset(slot);
}

interface::~interface()
{
    emit_removed();
}

message_t interface::new_signal(const char* member)
{
    return _bus.new_signal(_path.c_str(), _interface.c_str(), member);
}

void interface::property_changed(const char* property) noexcept
{
    auto names = listOf(property);
    static_cast<void>(sd_bus_emit_properties_changed_strv(
        rawBus(_bus), _path.c_str(), _interface.c_str(), names.data()));
}

void interface::emit_added() noexcept
{
    if (!_announced)
    {
        auto names = listOf(_interface.c_str());
        static_cast<void>(sd_bus_emit_interfaces_added_strv(
            rawBus(_bus), _path.c_str(), names.data()));
        _announced = true;
    }
}

void interface::emit_removed() noexcept
{
    if (_announced)
    {
        auto names = listOf(_interface.c_str());
        static_cast<void>(sd_bus_emit_interfaces_removed_strv(
            rawBus(_bus), _path.c_str(), names.data()));
        _announced = false;
    }
}

} // namespace interface

namespace object::details
{

void emitObjectAdded(sd_bus* bus, const char* path) noexcept
{
    static_cast<void>(sd_bus_emit_object_added(bus, path));
}

void emitObjectRemoved(sd_bus* bus, const char* path) noexcept
{
    static_cast<void>(sd_bus_emit_object_removed(bus, path));
}

} // namespace object::details
} // namespace sdbusplus::server
