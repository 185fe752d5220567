// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus/match.hpp>

#include <utility>

namespace sdbusplus::bus::match
{
namespace
{

/** noexcept: an exception of the handler ends the process right here. */
int callHandler(sd_bus_message* raw, void* context,
                sd_bus_error* /*error*/) noexcept
{
    message_t msg(raw);
    (*static_cast<match::callback_t*>(context))(msg);
    return 0;
}

slot_t subscribe(bus_t& bus, const char* rule, sd_bus_message_handler_t handler,
                 void* context) noexcept
{
    sd_bus_slot* slot = nullptr;
    // A subscription that was refused has no slot, and stays silent.
    static_cast<void>(sd_bus_add_match(details::bus_friend::get_busp(bus),
                                       &slot, rule, handler, context));
    return slot_t(slot);
}

} // namespace

match::match(bus_t& bus, const char* rule, callback_t callback) :
    _callback(std::make_unique<callback_t>(std::move(callback)))
{
    _slot = subscribe(bus, rule, callHandler, _callback.get());
}

match::match(bus_t& bus, const std::string& rule, callback_t callback) :
    match(bus, rule.c_str(), std::move(callback))
{
}

match::match(bus_t& bus, const char* rule, sd_bus_message_handler_t handler,
             void* context) :
    _slot(subscribe(bus, rule, handler, context))
{
}

match::match(bus_t& bus, const std::string& rule,
             sd_bus_message_handler_t handler, void* context) :
    match(bus, rule.c_str(), handler, context)
{
}

} // namespace sdbusplus::bus::match
