// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <vector>

/** The types that a message takes. Their failures are dropped, as
 *  message_t::append() says.
 */
namespace sdbusplus::message::details
{

void append(sd_bus_message* msg, uint8_t value) noexcept;
void append(sd_bus_message* msg, uint16_t value) noexcept;
void append(sd_bus_message* msg, uint32_t value) noexcept;
void append(sd_bus_message* msg, const char* value) noexcept;
void append(sd_bus_message* msg, const std::string& value) noexcept;
void append(sd_bus_message* msg, const std::vector<uint8_t>& value) noexcept;

} // namespace sdbusplus::message::details
