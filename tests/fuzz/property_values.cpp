// SPDX-License-Identifier: Apache-2.0
/*
 * The daemon's decoding of a property's value, and what it makes of a host
 * state. An input is the message's signature and its body.
 */
#include "morrow/morrow_client.hpp"
#include "morrow/power_state.hpp"
#include "tests/fuzz/bus_peer.hpp"

#include <sdbusplus/exception.hpp>

#include <algorithm>
#include <array>
#include <string_view>
#include <variant>

namespace
{

/** The signatures of the alternatives of PropertyValue. */
constexpr std::array<std::string_view, std::variant_size_v<PropertyValue>>
    signatures{"as", "s", "x", "t", "d", "i", "u", "n", "q", "y", "b"};

/** The alternative for what is next in a message: 0, too, for what none fits.
 */
std::size_t expectedIndex(sdbusplus::message_t& message)
{
    char type = 0;
    const char* contents = "";
    sd_bus_message_peek_type(message.get(), &type, &contents);
    const auto* const found =
        std::find(signatures.begin(), signatures.end(),
                  std::string_view(contents == nullptr ? "" : contents));
    return found == signatures.end()
               ? 0
               : static_cast<std::size_t>(found - signatures.begin());
}

void take(const PropertyValue& value)
{
    power_down_pending = 0;
    const auto* const text = std::get_if<std::string>(&value);
    try
    {
        readproperty("currenthoststate", "CurrentHostState", value);
        fuzz::expect(text != nullptr && current_host_state == *text,
                     "the host's state is the text");
        fuzz::expect((power_down_pending == 0) == (*text == hostStateRunning),
                     "every state but Running sets the flag");
    }
    catch (const std::bad_variant_access&)
    {
        fuzz::expect(text == nullptr, "a text is taken");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    static fuzz::BusPeer peer;
    fuzz::Input input(data, size);
    const auto signature = input.text();
    auto message = peer.signal(signature, input.rest());
    if (!message)
    {
        return 0;
    }
    const auto expected = expectedIndex(*message);
    PropertyValue value;
    try
    {
        message->read(value);
    }
    catch (const sdbusplus::exception::SdBusError&)
    {
        return 0;
    }
    fuzz::expect(value.index() == expected, "the type decides");
    take(value);
    return 0;
}
