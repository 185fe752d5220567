// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <string_view>

/** Values of any D-Bus type, for who sends what nobody expects. */
namespace board
{

/** @brief Whether this is the signature of exactly one complete type, file
 *         descriptors excepted, e.g. "u" or "a{sv}", within D-Bus's limits:
 *         255 bytes, 32 arrays and 32 structs in each other. */
[[nodiscard]] bool isCompleteType(std::string_view signature);

/** @brief Whether this is a sequence of such types, e.g. "" or "sa{sv}as". */
[[nodiscard]] bool isSignature(std::string_view signature);

/** @brief Append a value of each type of a signature: zeros, empty arrays and
 *         empty texts.
 *  @param signature one for which isSignature() holds
 *  @param text what texts of the types "s" and "o" are, where it fits
 *  @return 0 or more, or a negative errno value */
int appendSample(sd_bus_message* message, std::string_view signature,
                 const std::string& text = "");

} // namespace board
