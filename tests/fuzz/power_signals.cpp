// SPDX-License-Identifier: Apache-2.0
/*
 * Both signal handlers of the daemon, with a PropertiesChanged of any body. An
 * input is the body's signature and the body.
 */
#include "morrow/morrow_client.hpp"
#include "morrow/power_state.hpp"
#include "tests/fuzz/bus_peer.hpp"

#include <algorithm>
#include <string_view>
#include <variant>

namespace
{

bool contains(fuzz::Bytes bytes, std::string_view text)
{
    return std::search(bytes.begin(), bytes.end(), text.begin(), text.end()) !=
           bytes.end();
}

/** @param property  what alone makes the handler set the flags */
void handle(void (*handler)(sdbusplus::message_t&),
            sdbusplus::message_t& message, fuzz::Bytes body,
            std::string_view property)
{
    power_down_pending = 0;
    await_host_running = 0;
    try
    {
        handler(message);
    }
    catch (const std::bad_variant_access&)
    {
        // The property is no text.
    }
    fuzz::expect(power_down_pending == await_host_running,
                 "the flags are set together");
    fuzz::expect(power_down_pending == 0 || contains(body, property),
                 "another property sets no flag");
    sd_bus_message_rewind(message.get(), 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    static fuzz::BusPeer peer;
    fuzz::Input input(data, size);
    const auto signature = input.text();
    const auto body = input.rest();
    if (auto message = peer.signal(signature, body))
    {
        handle(signalHandler_internalpowerstate, *message, body,
               "InternalPowerState");
        handle(signalHandler_warmreset, *message, body, "ResetCause");
    }
    return 0;
}
