// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace board
{

/** @brief Text for a terminal: control characters are shown in hexadecimal.
 *  @param kept control characters that stay */
[[nodiscard]] std::string withoutControls(std::string_view text,
                                          std::string_view kept = "\n\t");

/** @brief A word in quotes for an error's line; a long one ends in dots. */
[[nodiscard]] std::string inQuotes(std::string_view word);

} // namespace board
