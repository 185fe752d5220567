// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/message.hpp>
#include <sdbusplus/slot.hpp>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

/** A subscription to messages, for as long as the object lives.
 *
 *  The callback runs on the thread that processes the bus. It must not throw:
 *  an exception that leaves it ends the process. A rule that the broker
 *  refuses is ignored: the callback is never called.
 */
namespace sdbusplus::bus
{
namespace match
{

struct match
{
    using callback_t = std::function<void(message_t&)>;

    /** Waits until the broker has accepted the rule. */
    match(bus_t& bus, const std::string& rule, callback_t callback);

  private:
    // On the heap: sd-bus keeps its address while the match may move.
    std::unique_ptr<callback_t> _callback;
    slot_t _slot;
};

/** The parts of a rule. Each ends with a comma, so that they can be joined:
 *
 *      std::string(rules::type::signal()) + rules::member("Changed")
 */
namespace rules
{
namespace type
{
constexpr const char* signal() noexcept
{
    return "type='signal',";
}
} // namespace type

std::string interface(std::string_view name) noexcept;
std::string member(std::string_view name) noexcept;
std::string path(std::string_view path) noexcept;

} // namespace rules
} // namespace match

using match_t = match::match;

} // namespace sdbusplus::bus
