// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/message.hpp>
#include <sdbusplus/slot.hpp>
#include <systemd/sd-bus.h>

#include <string>

/** One interface of one object, registered for as long as it lives; a member
 *  of generated bindings. It keeps a bus reference of its own, so that it can
 *  be destroyed after the bus_t that it was created with.
 */
namespace sdbusplus::server
{
namespace interface
{

class interface final
{
  public:
    /** @param[in] vtable   must outlive the interface
     *  @param[in] context  passed to the handlers of the table
     *  @throws exception::SdBusError "sd_bus_add_object_vtable"
     */
    interface(bus_t& bus, const char* path, const char* name,
              const sd_bus_vtable* vtable, void* context);

    interface(const interface&) = delete;
    interface& operator=(const interface&) = delete;
    interface(interface&&) = delete;
    interface& operator=(interface&&) = delete;
    ~interface() = default;

    /** A signal of this interface, to be filled and sent.
     *  @throws exception::SdBusError "sd_bus_message_new_signal"
     */
    message_t new_signal(const char* member);

    /** Sends PropertiesChanged with the property's present value. */
    void property_changed(const char* property) noexcept;

  private:
    bus_t _bus;
    std::string _path;
    std::string _interface;
    slot_t _slot;
};

} // namespace interface

using interface_t = interface::interface;

} // namespace sdbusplus::server
