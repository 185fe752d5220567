// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace board
{

/** @brief Bytes in hexadecimal, e.g. "7e 05". */
[[nodiscard]] std::string hexText(std::span<const std::uint8_t> bytes);

/** @brief An MCTP packet for the eye: its bytes, and what it says where it is
 *         a control message (DSP0236) in one packet, e.g.
 *         "01 00 08 c8 00 81 0d     Discovery Notify, request". */
[[nodiscard]] std::string packetText(std::span<const std::uint8_t> packet);

} // namespace board
