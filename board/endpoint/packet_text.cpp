// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint/packet_text.hpp"

#include <mctp/wire.hpp>

#include <algorithm>
#include <cstddef>

namespace board
{
namespace
{

constexpr std::size_t mostShown = 20;
constexpr std::size_t requestSize = 3;
constexpr std::size_t answerSize = 4;
constexpr std::uint8_t requestBit = 0x80;
constexpr std::uint8_t discoveryNotify = 0x0D;

std::string meaning(std::span<const std::uint8_t> message, std::uint8_t from)
{
    if (message.size() < requestSize || message[0] != 0)
    {
        return {};
    }
    const auto command = message[2] == discoveryNotify
                             ? std::string("Discovery Notify")
                             : "command " + hexText(message.subspan(2, 1));
    if ((message[1] & requestBit) != 0)
    {
        return "  " + command + ", request";
    }
    if (message.size() < answerSize)
    {
        return "  " + command + ", cut answer";
    }
    return "  " + command +
           (message[3] == 0 ? ", success"
                            : ", error " + hexText(message.subspan(3, 1))) +
           " from EID " + std::to_string(from);
}

} // namespace

std::string hexText(std::span<const std::uint8_t> bytes)
{
    constexpr auto digits = "0123456789abcdef";
    std::string text;
    for (const auto byte : bytes)
    {
        text += text.empty() ? "" : " ";
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

std::string packetText(std::span<const std::uint8_t> packet)
{
    auto text = hexText(packet.first(std::min(packet.size(), mostShown)));
    if (packet.size() > mostShown)
    {
        text += " ... (" + std::to_string(packet.size()) + " bytes)";
    }
    const auto decoded = platform::mctp::decode(packet);
    if (decoded && decoded->start && decoded->end)
    {
        // Aligned for the short packets that make up discovery.
        constexpr std::size_t usualWidth = 3 * 8 - 1;
        text.resize(std::max(text.size(), usualWidth), ' ');
        text += meaning(decoded->body, decoded->envelope.source);
    }
    return text;
}

} // namespace board
