// SPDX-License-Identifier: Apache-2.0
/*
 * Reading of a message by the bundled bus wrapper: whatever types are asked
 * for, whatever the message has. An input is the message's signature, one byte
 * for each read, and the body.
 */
#include "tests/fuzz/bus_peer.hpp"

#include <sdbusplus/exception.hpp>

#include <array>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace
{

using sdbusplus::message_t;
using Strings = std::vector<std::string>;
using Value = std::variant<Strings, std::string, int64_t, uint64_t, double,
                           int32_t, uint32_t, int16_t, uint16_t, uint8_t, bool>;
using Nested = std::variant<std::map<std::string, Value>, Value,
                            std::vector<std::pair<uint8_t, Strings>>>;

template <typename T>
void read(message_t& message)
{
    T value{};
    message.read(value);
}

constexpr std::array readers{
    read<bool>,
    read<uint8_t>,
    read<int16_t>,
    read<uint16_t>,
    read<int32_t>,
    read<uint32_t>,
    read<int64_t>,
    read<uint64_t>,
    read<double>,
    read<std::string>,
    read<Strings>,
    read<std::vector<uint8_t>>,
    read<std::vector<std::vector<double>>>,
    read<Value>,
    read<Nested>,
    read<std::vector<std::pair<std::string, Value>>>,
    read<std::map<std::string, Nested>>,
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    static fuzz::BusPeer peer;
    fuzz::Input input(data, size);
    const auto signature = input.text();
    const auto reads = input.bytes();
    auto message = peer.signal(signature, input.rest());
    for (const auto read : message ? reads : fuzz::Bytes())
    {
        try
        {
            readers.at(read % readers.size())(*message);
        }
        catch (const sdbusplus::exception::SdBusError& error)
        {
            fuzz::expect(
                std::string_view(error.what()).starts_with("sd_bus_message_"),
                "an error names the call");
        }
    }
    return 0;
}
