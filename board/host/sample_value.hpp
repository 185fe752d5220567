// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <string_view>

namespace board
{

/** @brief Append a value of each type of a D-Bus signature: zeros, empty
 *         arrays and empty texts.
 *  @param text the value of the types "s" and "o", where it fits
 *  @throws Error when it is no signature that can be sent; file descriptors
 *          cannot */
void appendSample(sd_bus_message* message, std::string_view signature,
                  const std::string& text = "");

/** @brief Append a variant with a value of one complete type, as above. */
void appendSampleVariant(sd_bus_message* message, const std::string& type,
                         const std::string& text = "");

} // namespace board
