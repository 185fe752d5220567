// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <systemd/sd-bus.h>

#include <string>

/** An object on the bus with the interface of a generated binding.
 *
 *  The object manager above its path announces it at the end of this class's
 *  construction, before a derived class sets any property: the announcement
 *  has the defaults, and each value that is set later is sent as a change.
 *  Where there is no manager, nothing is announced.
 */
namespace sdbusplus::server
{
namespace object
{

template <typename Binding>
class object : public Binding
{
  public:
    enum class action
    {
        /** Announced by the constructor, withdrawn by the destructor. */
        emit_object_added,
    };

    /** @throws exception::SdBusError if the interface cannot be registered */
    object(bus_t& bus, const char* path,
           action /*announcement*/ = action::emit_object_added) :
        Binding(bus, path),
        _objectBus(bus::details::rawBus(bus)), _objectPath(path)
    {
        // Fails without a manager above.
        static_cast<void>(
            sd_bus_emit_object_added(bus::details::rawBus(_objectBus), path));
    }

    object(const object&) = delete;
    object& operator=(const object&) = delete;
    object(object&&) = delete;
    object& operator=(object&&) = delete;

    ~object() override
    {
        static_cast<void>(sd_bus_emit_object_removed(
            bus::details::rawBus(_objectBus), _objectPath.c_str()));
    }

  private:
    // The bus_t of the constructor may be destroyed before the object.
    bus_t _objectBus;
    std::string _objectPath;
};

} // namespace object

template <typename Binding>
using object_t = object::object<Binding>;

} // namespace sdbusplus::server
