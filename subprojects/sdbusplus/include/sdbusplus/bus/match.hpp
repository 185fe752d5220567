// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/bus/match_rules.hpp>
#include <sdbusplus/message.hpp>
#include <sdbusplus/slot.hpp>
#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <string>

/** A subscription to messages, for as long as the object lives.
 *
 *  The handler is called on the thread that processes the bus. It must not
 *  throw: what leaves it ends the process, because there is nobody above it
 *  who could handle it. A rule that the broker refuses is ignored: the
 *  subscription then never calls.
 */
namespace sdbusplus::bus
{
namespace match
{

struct match
{
    using callback_t = std::function<void(message_t&)>;

    /** Waits for the broker to take the rule. */
    match(bus_t& bus, const char* rule, callback_t callback);
    match(bus_t& bus, const std::string& rule, callback_t callback);
    /** The C form: handler(message, context, error). */
    match(bus_t& bus, const char* rule, sd_bus_message_handler_t handler,
          void* context = nullptr);
    match(bus_t& bus, const std::string& rule, sd_bus_message_handler_t handler,
          void* context = nullptr);

    match(const match&) = delete;
    match& operator=(const match&) = delete;
    match(match&&) noexcept = default;
    match& operator=(match&&) noexcept = default;
    ~match() = default;

  private:
    slot_t _slot;
    // On the heap: sd-bus keeps its address while the match may move.
    std::unique_ptr<callback_t> _callback;
};

} // namespace match

using match_t = match::match;

} // namespace sdbusplus::bus
