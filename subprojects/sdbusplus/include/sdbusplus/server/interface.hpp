// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/message.hpp>
#include <sdbusplus/slot.hpp>
#include <sdbusplus/vtable.hpp>

#include <string>

/** One interface of one object, registered for as long as it lives.
 *
 *  Generated bindings hold one. It keeps a bus reference and texts of its
 *  own, so it can be destroyed after the bus_t that it was made with.
 */
namespace sdbusplus::server
{
namespace interface
{

class interface final
{
  public:
    /** @param[in] vtable   must outlive the interface
     *  @param[in] context  handed to the handlers of the table
     *  @throws exception::SdBusError "sd_bus_add_object_vtable"
     */
    interface(bus_t& bus, const char* path, const char* name,
              const vtable_t* vtable, void* context);

    interface(const interface&) = delete;
    interface& operator=(const interface&) = delete;
    interface(interface&&) = delete;
    interface& operator=(interface&&) = delete;
    ~interface();

    /** A signal of this interface, still to be filled and sent.
     *  @throws exception::SdBusError "sd_bus_message_new_signal"
     */
    message_t new_signal(const char* member);

    /** Announces the present value of a property. */
    void property_changed(const char* property) noexcept;

    /** Announces this interface, unless that has been done. */
    void emit_added() noexcept;
    /** Takes the announcement of emit_added() back, if there was one. */
    void emit_removed() noexcept;

    bus_t& bus() noexcept
    {
        return _bus;
    }

    [[nodiscard]] const std::string& path() const noexcept
    {
        return _path;
    }

  private:
    bus_t _bus;
    std::string _path;
    std::string _interface;
    slot_t _slot;
    bool _announced = false;
};

} // namespace interface

using interface_t = interface::interface;

} // namespace sdbusplus::server
