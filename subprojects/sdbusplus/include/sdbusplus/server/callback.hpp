// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>

#include <exception>
#include <tuple>
#include <utility>

/** The callbacks of generated bindings: from a message to a member function
 *  and back.
 *
 *  They run on the thread that processes the bus. No exception reaches
 *  libsystemd's frames: an error of the bus becomes an error reply with its
 *  name and description; process_discard() throws any other.
 */
namespace sdbusplus::server::details
{

/** @return 1, or a negative errno after an error of the bus */
template <typename Action>
int guarded(bus_t& bus, sd_bus_error* error, Action&& action) noexcept
{
    try
    {
        action();
    }
    catch (const internal_exception_t& e)
    {
        return sd_bus_error_set(error, e.name(), e.description());
    }
    catch (const std::exception&)
    {
        bus.set_current_exception(std::current_exception());
    }
    return 1;
}

/** Replies to a call with the handler's result. */
template <typename Binding, typename Result, typename... Args>
int answerCall(sd_bus_message* raw, void* context, sd_bus_error* error,
               Result (Binding::*handler)(Args...)) noexcept
{
    auto& self = *static_cast<Binding*>(context);
    return guarded(self.get_bus(), error,
                   [&]
                   {
                       message_t call(raw);
                       std::tuple<Args...> args{};
                       std::apply(
                           [&](auto&... each)
                           {
                               call.read(each...);
                           },
                           args);
                       auto reply = call.new_method_return();
                       reply.append(std::apply(
                           [&](auto&... each)
                           {
                               return (self.*handler)(std::move(each)...);
                           },
                           args));
                       reply.method_return();
                   });
}

/** Appends a property's value to the reply that sd-bus builds. */
template <typename Binding, typename Value>
int answerGet(sd_bus_message* raw, void* context, sd_bus_error* error,
              Value (Binding::*getter)() const) noexcept
{
    auto& self = *static_cast<Binding*>(context);
    return guarded(self.get_bus(), error,
                   [&]
                   {
                       message_t reply(raw);
                       reply.append((self.*getter)());
                   });
}

} // namespace sdbusplus::server::details
