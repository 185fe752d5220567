// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus/match.hpp>

#include <utility>

namespace sdbusplus::bus::match
{
namespace
{

/** noexcept: an exception of the callback ends the process here. */
int callCallback(sd_bus_message* raw, void* context,
                 sd_bus_error* /*error*/) noexcept
{
    message_t msg(raw);
    (*static_cast<match::callback_t*>(context))(msg);
    return 0;
}

std::string part(std::string key, std::string_view value)
{
    return key.append("='").append(value).append("',");
}

} // namespace

match::match(bus_t& bus, const std::string& rule, callback_t callback) :
    _callback(std::make_unique<callback_t>(std::move(callback)))
{
    sd_bus_slot* slot = nullptr;
    // Without a slot there is no subscription.
    static_cast<void>(sd_bus_add_match(details::rawBus(bus), &slot,
                                       rule.c_str(), callCallback,
                                       _callback.get()));
    _slot.reset(slot);
}

namespace rules
{

std::string interface(std::string_view name) noexcept
{
    return part("interface", name);
}

std::string member(std::string_view name) noexcept
{
    return part("member", name);
}

std::string path(std::string_view path) noexcept
{
    return part("path", path);
}

} // namespace rules
} // namespace sdbusplus::bus::match
