// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>

#include <exception>
#include <tuple>
#include <type_traits>

/** What the callbacks of every generated binding have in common: the way from
 *  a message to a member function of the binding and back.
 *
 *  They run on the thread that processes the bus. No exception gets into
 *  libsystemd's frames: an error of the bus becomes an error reply with its
 *  name and description; any other is parked in the bus for who processes it.
 */
namespace sdbusplus::server::details
{

/** @return the result for sd-bus: 1, done, or a negative errno */
template <typename Step>
int guarded(bus_t& bus, sd_bus_error* error, Step&& step) noexcept
{
    try
    {
        step();
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

/** Answers a call with what the handler returns: nothing, or one value. */
template <typename Binding, typename Result, typename... Args>
int answerCall(sd_bus_message* raw, void* context, sd_bus_error* error,
               Result (Binding::*handler)(Args...)) noexcept
{
    auto& self = *static_cast<Binding*>(context);
    return guarded(self.get_bus(), error,
                   [&]
                   {
                       message_t call(raw);
                       std::tuple<std::remove_cvref_t<Args>...> args{};
                       std::apply(
                           [&](auto&... each)
                           {
                               call.read(each...);
                           },
                           args);
                       auto reply = call.new_method_return();
                       auto invoke = [&](auto&... each)
                       {
                           return (self.*handler)(std::move(each)...);
                       };
                       if constexpr (std::is_void_v<Result>)
                       {
                           std::apply(invoke, args);
                       }
                       else
                       {
                           reply.append(std::apply(invoke, args));
                       }
                       reply.method_return();
                   });
}

/** Answers a call with each element of the tuple that the handler returns. */
template <typename Binding, typename... Results, typename... Args>
int answerCallWithEach(
    sd_bus_message* raw, void* context, sd_bus_error* error,
    std::tuple<Results...> (Binding::*handler)(Args...)) noexcept
{
    auto& self = *static_cast<Binding*>(context);
    return guarded(self.get_bus(), error,
                   [&]
                   {
                       message_t call(raw);
                       std::tuple<std::remove_cvref_t<Args>...> args{};
                       std::apply(
                           [&](auto&... each)
                           {
                               call.read(each...);
                           },
                           args);
                       auto reply = call.new_method_return();
                       const auto results = std::apply(
                           [&](auto&... each)
                           {
                               return (self.*handler)(std::move(each)...);
                           },
                           args);
                       std::apply(
                           [&](const auto&... each)
                           {
                               reply.append(each...);
                           },
                           results);
                       reply.method_return();
                   });
}

/** Appends a property's value to the answer that sd-bus is building. */
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

/** Gives a property the value that a peer sent; sd-bus replies. */
template <typename Binding, typename Value>
int answerSet(sd_bus_message* raw, void* context, sd_bus_error* error,
              Value (Binding::*setter)(Value)) noexcept
{
    auto& self = *static_cast<Binding*>(context);
    return guarded(self.get_bus(), error,
                   [&]
                   {
                       message_t request(raw);
                       (self.*setter)(request.unpack<Value>());
                   });
}

} // namespace sdbusplus::server::details
