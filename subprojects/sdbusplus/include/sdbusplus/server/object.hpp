// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>

#include <string>

/** An object on the bus, made of one or more generated bindings.
 *
 *  It is announced through the object manager that encloses its path, as the
 *  constructor's action says. By default that happens at the end of this
 *  class's construction, that is before a derived class sets any property:
 *  the announcement carries the defaults, and each value that is set later
 *  is announced as a change. Announcements that find no manager are dropped.
 */
namespace sdbusplus::server
{
namespace object
{
namespace details
{

/** All the bindings of an object as one base. */
template <typename... Bindings>
struct compose : Bindings...
{
    compose(bus_t& bus, const char* path) : Bindings(bus, path)...
    {
    }
};

/** Announces an object with all its interfaces, or that it goes. */
void emitObjectAdded(sd_bus* bus, const char* path) noexcept;
void emitObjectRemoved(sd_bus* bus, const char* path) noexcept;

} // namespace details

template <typename... Bindings>
class object :
    public details::compose<Bindings...>,
    private bus::details::bus_friend
{
  public:
    /** When the object is announced. */
    enum class action
    {
        /** by the constructor; withdrawn by the destructor */
        emit_object_added,
        /** by the constructor, interface by interface */
        emit_interface_added,
        /** by emit_object_added(); withdrawn by the destructor */
        defer_emit,
        /** never */
        emit_no_signals,
    };

    /** @throws exception::SdBusError if an interface cannot be registered */
    object(bus_t& bus, const char* path,
           action act = action::emit_object_added) :
        details::compose<Bindings...>(bus, path),
        _objectBus(get_busp(bus)), _objectPath(path), _signals(act)
    {
        if (act == action::emit_object_added)
        {
            details::emitObjectAdded(get_busp(_objectBus), path);
        }
        else if (act == action::emit_interface_added)
        {
            (Bindings::emit_added(), ...);
            _signals = action::emit_no_signals;
        }
    }

    object(const object&) = delete;
    object& operator=(const object&) = delete;
    object(object&&) = delete;
    object& operator=(object&&) = delete;

    ~object() override
    {
        if (_signals != action::emit_no_signals)
        {
            details::emitObjectRemoved(get_busp(_objectBus),
                                       _objectPath.c_str());
        }
    }

    /** Announces an object that was made with defer_emit, once. */
    void emit_object_added()
    {
        if (_signals == action::defer_emit)
        {
            details::emitObjectAdded(get_busp(_objectBus), _objectPath.c_str());
            _signals = action::emit_object_added;
        }
    }

  private:
    bus_t _objectBus;
    std::string _objectPath;
    action _signals;
};

} // namespace object

template <typename... Bindings>
using object_t = object::object<Bindings...>;

} // namespace sdbusplus::server
